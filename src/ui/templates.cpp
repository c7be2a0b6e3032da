// The dialogs of the rollouts, the About page and the library browser. The
// controls the code addresses keep their ids, kinds, captions and rectangles
// exactly; labels whose place the dialogs leave open stand left of their
// field, one line high, four dialog units a character.
#include "ui/templates.h"

#include "object/resource.h"

#include <string>
#include <vector>

namespace mosaiq {

namespace {

using mq::ui::ControlKind;
using mq::ui::ControlTemplate;
using mq::ui::DialogTemplate;

constexpr int kLabelHeight = 8;
constexpr int kEditHeight = 10;
constexpr int kSpinnerWidth = 8;
constexpr int kSpinnerHeight = 11;

int textWidth(const std::string& text) { return 4 * int(text.size()); }

ControlTemplate label(const std::string& text, int x, int y) {
    return {
        .kind = ControlKind::Static, .text = text, .rect = {x, y, textWidth(text), kLabelHeight}};
}

ControlTemplate control(int id, ControlKind kind, const std::string& text, int x, int y, int w,
                        int h) {
    return {.id = id, .kind = kind, .text = text, .rect = {x, y, w, h}};
}

ControlTemplate checkBox(int id, int x, int y) {
    return control(id, ControlKind::CheckBox, "", x, y, 8, 10);
}

// A host edit field with its spinner to the right and its label to the left.
void spinnerPair(std::vector<ControlTemplate>& out, const std::string& text, int editId,
                 int spinnerId, int editX, int spinnerX, int y, int editWidth) {
    if (!text.empty()) out.push_back(label(text, editX - textWidth(text) - 1, y + 1));
    out.push_back(control(editId, ControlKind::CustomEdit, "", editX, y, editWidth, kEditHeight));
    out.push_back(
        control(spinnerId, ControlKind::Spinner, "", spinnerX, y, kSpinnerWidth, kSpinnerHeight));
}

DialogTemplate rollout(int id, const std::string& title, int height) {
    return {.id = id, .title = title, .width = 108, .height = height};
}

DialogTemplate makeBase() {
    DialogTemplate d = rollout(kDlgBase, "Base Parameters", 230);
    auto& c = d.controls;
    c.push_back(label("Enabled:", 4, 4));
    c.push_back(checkBox(base::kEnabled, 93, 4));
    c.push_back(label("Pattern Object:", 4, 16));
    c.push_back(control(base::kFromScene, ControlKind::RadioButton, "From Scene", 4, 27, 53, 10));
    c.push_back(control(base::kPatternPick, ControlKind::PickButton, "Custom1", 4, 38, 98, 12));
    c.push_back(control(base::kFromFile, ControlKind::RadioButton, "From File", 4, 53, 45, 10));
    c.push_back(control(base::kPatternFile, ControlKind::CustomEdit, "Custom1", 4, 64, 82, 12));
    c.push_back(control(base::kBrowse, ControlKind::PushButton, "...", 88, 64, 14, 12));
    c.push_back(control(base::kUpdateFile, ControlKind::PushButton, "Update File", 57, 78, 45, 11));
    c.push_back(label("Pattern Renderable:", 4, 93));
    c.push_back(checkBox(base::kPatternRenderable, 93, 93));
    c.push_back(label("Crop Size:", 4, 105));
    spinnerPair(c, "  X:", 1173, 1174, 61, 94, 115, 32);
    spinnerPair(c, "  Y:", 1184, 1185, 61, 94, 128, 32);
    spinnerPair(c, "  Z:", 1188, 1189, 61, 94, 141, 32);
    spinnerPair(c, "Height (%):", 1193, 1194, 67, 94, 156, 26);
    spinnerPair(c, "Shift:", 1195, 1196, 67, 94, 169, 26);
    c.push_back(
        control(base::kResetCropBox, ControlKind::PushButton, "Reset Crop Box", 4, 185, 98, 12));
    c.push_back(
        control(base::kFitCropBox, ControlKind::PushButton, "Fit Crop Box", 4, 199, 98, 12));
    c.push_back(label("Use surface mapping:", 4, 216));
    c.push_back(checkBox(base::kUseSurfaceMapping, 93, 216));
    return d;
}

DialogTemplate makeSurface() {
    DialogTemplate d = rollout(kDlgSurface, "Surface", 181);
    auto& c = d.controls;
    c.push_back(label("Surface:", 4, 2));
    c.push_back(control(surface::kSurfacePick, ControlKind::PickButton, "Custom1", 4, 12, 100, 12));
    c.push_back(label("Surface Renderable:", 4, 28));
    c.push_back(checkBox(surface::kSurfaceRenderable, 95, 28));
    spinnerPair(c, "Map. Channel:", 1174, 1175, 59, 96, 41, 36);
    spinnerPair(c, "Tiling U:", surface::kTilingUEdit, surface::kTilingUSpinner, 59, 96, 55, 36);
    spinnerPair(c, "Tiling V:", surface::kTilingVEdit, surface::kTilingVSpinner, 59, 96, 68, 36);
    c.push_back(label("Real World Scale:", 4, 83));
    c.push_back(checkBox(surface::kRealWorldScale, 95, 83));
    // Spelled so on purpose.
    c.push_back(label("Poligon ID:", 4, 97));
    spinnerPair(c, "From:", 1181, 1182, 26, 46, 109, 19);
    spinnerPair(c, "To:", 1183, 1184, 76, 96, 109, 19);
    c.push_back(label("Random Segment Count:", 4, 126));
    spinnerPair(c, "  U:", 1185, 1186, 69, 96, 137, 26);
    spinnerPair(c, "  V:", 1189, 1190, 69, 96, 151, 26);
    spinnerPair(c, "  Seed:", 1191, 1192, 60, 96, 164, 35);
    return d;
}

DialogTemplate makePreview() {
    DialogTemplate d = rollout(kDlgPreview, "Preview", 50);
    auto& c = d.controls;
    spinnerPair(c, "Dummy Size:", 1063, 1064, 59, 96, 4, 36);
    spinnerPair(c, "Texture Size:", 1065, 1066, 59, 96, 18, 36);
    c.push_back(control(preview::kMakePreviewTexture, ControlKind::PushButton,
                        "Make Preview Texture", 4, 33, 100, 12));
    return d;
}

DialogTemplate makeAbout() {
    DialogTemplate d = rollout(kDlgAbout, "About", 104);
    d.controls.push_back(control(about::kText, ControlKind::Static, "About Text", 7, 4, 93, 91));
    return d;
}

DialogTemplate makeLibrary() {
    DialogTemplate d{.id = kDlgLibrary, .title = "Lib Browser", .width = 445, .height = 281};
    auto& c = d.controls;
    ControlTemplate folders = control(library::kFolderView, ControlKind::View, "", 4, 5, 186, 243);
    folders.viewClass = "LibFolderView";
    folders.verticalScroll = true;
    c.push_back(folders);
    ControlTemplate files = control(library::kFileView, ControlKind::View, "", 195, 5, 246, 243);
    files.viewClass = "LibFileView";
    files.verticalScroll = true;
    c.push_back(files);
    ControlTemplate path = control(library::kPathLine, ControlKind::Edit, "", 4, 251, 424, 12);
    path.border = true;
    path.scrollsText = true;
    c.push_back(path);
    c.push_back(control(library::kPickFolder, ControlKind::PushButton, "...", 428, 251, 14, 13));
    c.push_back(
        control(library::kSelectFile, ControlKind::PushButton, "Select File", 3, 264, 41, 14));
    c.push_back(control(library::kCancel, ControlKind::PushButton, "Cancel", 47, 264, 36, 14));
    c.push_back(control(library::kMoveToLibraryPath, ControlKind::PushButton,
                        "Move to Library Path", 284, 264, 81, 14));
    c.push_back(control(library::kSaveLibraryPath, ControlKind::PushButton, "Save Library Path",
                        368, 264, 74, 14));
    return d;
}

}  // namespace

const mq::ui::DialogTemplate* dialogTemplate(int id) {
    static const std::vector<DialogTemplate> templates = {makeBase(), makeSurface(), makePreview(),
                                                          makeAbout(), makeLibrary()};
    for (const DialogTemplate& t : templates)
        if (t.id == id) return &t;
    return nullptr;
}

}  // namespace mosaiq
