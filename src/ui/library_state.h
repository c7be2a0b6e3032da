// What one opening of the library browser holds, and the work that needs no
// window: scanning a folder into the folder and file lists with their
// positions, telling pattern files apart, and the library path file.
//
// Positions are pixels in a view's unscrolled content. The rectangles are
// view pixels with the scroll offset already subtracted; painting stores
// them and clicks are tested against them. Both lists keep the order items
// were added in, which is the order they are painted and hit-tested in.
//
// Main thread only, like the dialog it serves.
#pragma once

#include "host/interface.h"
#include "host/ui/view.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace mosaiq {

// Paths and names the browser takes: the dialog's path buffers held 256
// characters, so longer text is refused with a message, never cut.
inline constexpr size_t kMaxLibraryPathLength = 255;

// Layout of the two views, in pixels.
inline constexpr int kFolderIconWidth = 32, kFolderIconHeight = 28;
inline constexpr int kPreviewWidth = 160, kPreviewHeight = 100;
inline constexpr int kFolderRowHeight = 30;  // the chain and the sub-folders alike
inline constexpr int kFileColumnStep = 170, kFileRowHeight = 120;

struct LibFolderItem {
    std::string name;  // the folder's own name; "/" for the root
    std::string path;  // full, no trailing "/" except the root itself
    int x = 0, y = 0;
    mq::ui::Rect iconRect, labelRect;
    bool onPath = false;  // on the chain to the current folder (drawn open)
};

struct LibFileItem {
    std::optional<mq::ui::Bitmap> preview;  // none: the cell shows "No Preview"
    std::string name, path;
    bool selected = false;
    int x = 0, y = 0;
    mq::ui::Rect imageRect, labelRect;
};

struct LibBrowserState {
    explicit LibBrowserState(mq::HostInterface& host) : ip(host) {}

    mq::HostInterface& ip;
    // The caller's path on entry; the chosen file once "Select File" ends the dialog.
    std::string chosenPath;
    // The dialog's window and views, set at Init; null before and after.
    mq::ui::DialogWindow* dialog = nullptr;
    mq::ui::View* folderView = nullptr;
    mq::ui::View* fileView = nullptr;
    std::unique_ptr<mq::ui::OffScreenBuffer> folderBuffer, fileBuffer;
    std::vector<LibFolderItem> folders;
    std::vector<LibFileItem> files;
};

// True for files the host merges as patterns: scene files (.mosaiq) and
// every mesh format the importer reads.
bool isPatternFile(const std::filesystem::path& file);

// Rebuild both lists at path: the chain of folders from the root to the
// current folder (path itself, or the folder holding the file it names),
// the current folder's sub-folders, and its pattern files with their
// previews. A path that does not exist leaves both lists empty. Entries
// whose path would pass kMaxLibraryPathLength are left out; their paths are
// returned so the caller can tell the user.
std::vector<std::string> scanLibrary(LibBrowserState& state, std::string path);

// "MosaiqLibPath.ini" in the host's configuration folder.
std::filesystem::path libraryPathFile(mq::HostInterface& ip);

// The folder path the file holds: its text up to the first blank, tab or
// line end (so a saved "/data/My Lib" reads back as "/data/My", as it
// always has). nullopt when the file cannot be opened.
std::optional<std::string> readLibraryPath(const std::filesystem::path& file);

// Create or replace file (and its folder) holding path alone, without a
// line end. Throws mq::FileWriteError naming the file and the reason.
void writeLibraryPath(const std::filesystem::path& file, const std::string& path);

}  // namespace mosaiq
