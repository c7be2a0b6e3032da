// The plug-in's dialogs as data, and the ids of the controls its code
// addresses. Ids are per dialog: the same number names different controls
// in different dialogs, as the templates have always had them.
#pragma once

#include "host/ui/dialog.h"

namespace mosaiq {

// The template with this resource id (114, 147, 146, 116, 140); null for
// any other. Statics of the library.
const mq::ui::DialogTemplate* dialogTemplate(int id);

// "Base Parameters", dialog 114.
namespace base {
inline constexpr int kEnabled = 1096;
inline constexpr int kFromScene = 1182;
inline constexpr int kPatternPick = 1029;
inline constexpr int kFromFile = 1183;
inline constexpr int kPatternFile = 1030;
inline constexpr int kBrowse = 1186;
inline constexpr int kUpdateFile = 1187;
inline constexpr int kPatternRenderable = 1180;
inline constexpr int kResetCropBox = 1032;
inline constexpr int kFitCropBox = 1031;
inline constexpr int kUseSurfaceMapping = 1192;
}  // namespace base

// "Surface", dialog 147.
namespace surface {
inline constexpr int kSurfacePick = 1173;
inline constexpr int kSurfaceRenderable = 1180;
inline constexpr int kTilingUEdit = 1176;
inline constexpr int kTilingUSpinner = 1177;
inline constexpr int kTilingVEdit = 1178;
inline constexpr int kTilingVSpinner = 1179;
inline constexpr int kRealWorldScale = 1187;
}  // namespace surface

// "Preview", dialog 146.
namespace preview {
inline constexpr int kMakePreviewTexture = 1033;
}  // namespace preview

// "About", dialog 116.
namespace about {
inline constexpr int kText = 1113;
}  // namespace about

// "Lib Browser", dialog 140.
namespace library {
inline constexpr int kFolderView = 1190;
inline constexpr int kFileView = 1192;
inline constexpr int kPathLine = 1199;
inline constexpr int kPickFolder = 1202;
inline constexpr int kSelectFile = 1197;
inline constexpr int kCancel = 1198;
inline constexpr int kMoveToLibraryPath = 1200;
inline constexpr int kSaveLibraryPath = 1201;
}  // namespace library

}  // namespace mosaiq
