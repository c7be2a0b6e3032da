// Resource ids of the plug-in: dialogs, string-table entries and the controls
// the code addresses by number. Saved UI layouts and the studio refer to them.
#pragma once

namespace mosaiq {

// Dialogs.
inline constexpr int kDlgBase = 114;
inline constexpr int kDlgPreview = 146;
inline constexpr int kDlgSurface = 147;
inline constexpr int kDlgAbout = 116;
inline constexpr int kDlgLibrary = 140;

// String-table entries.
inline constexpr int kStrLibDescription = 1;
inline constexpr int kStrCategory = 2;
inline constexpr int kStrClassName = 3;
inline constexpr int kStrBaseParameters = 4;
inline constexpr int kStrPreview = 5;
inline constexpr int kStrSurface = 36;

// Controls.
inline constexpr int kCtlAboutText = 1113;

// Rollup category of the About page: after the parameter rollouts.
inline constexpr int kAboutRollupCategory = 4000;

}  // namespace mosaiq
