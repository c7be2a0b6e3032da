#include "ui/library_state.h"

#include "host/atomic_file.h"
#include "host/import.h"
#include "host/scenefile.h"
#include "host/ui/bitmap.h"

#include <algorithm>
#include <cctype>
#include <fstream>
#include <system_error>

namespace mosaiq {

namespace fs = std::filesystem;

namespace {

constexpr const char* kLibraryPathFileName = "MosaiqLibPath.ini";

bool exists(mq::HostInterface& ip, const std::string& path) {
    return ip.DoesFileExist(path) || ip.IsDirectory(path);
}

std::string childPath(const std::string& folder, const std::string& name) {
    return folder == "/" ? "/" + name : folder + "/" + name;
}

// The names of folder's entries that are directories (want true) or not,
// sorted: the file system's order is arbitrary and the views must be stable.
// An unreadable folder has none.
std::vector<std::string> entryNames(const std::string& folder, bool wantDirectories) {
    std::vector<std::string> names;
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        std::error_code typeEc;
        if (it->is_directory(typeEc) == wantDirectories)
            names.push_back(it->path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

void addFolder(LibBrowserState& s, std::string name, std::string path, int x, int y, bool onPath) {
    LibFolderItem item;
    item.name = std::move(name);
    item.path = std::move(path);
    item.x = x;
    item.y = y;
    item.onPath = onPath;
    s.folders.push_back(std::move(item));
}

void addFile(LibBrowserState& s, std::string name, std::string path, int x, int y) {
    LibFileItem item;
    item.name = std::move(name);
    item.path = std::move(path);
    item.x = x;
    item.y = y;
    // A missing or unreadable picture is no error for the user: the cell says "No Preview".
    item.preview = mq::ui::loadBitmap(fs::path(item.path).replace_extension(".jpg"));
    s.files.push_back(std::move(item));
}

}  // namespace

bool isPatternFile(const fs::path& file) {
    return mq::isSceneFile(file) || mq::isImportableMeshFile(file);
}

std::vector<std::string> scanLibrary(LibBrowserState& s, std::string path) {
    std::vector<std::string> tooLong;
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    s.folders.clear();
    s.files.clear();
    if (!exists(s.ip, path)) return tooLong;

    // The chain: the root, then each component that is a folder, one step
    // deeper and one row lower each. A path naming a file stops at its folder.
    addFolder(s, "/", "/", 5, 5, true);
    int x = 15, y = 35;
    for (size_t pos = 0; pos < path.size();) {
        if (path[pos] == '/') {
            ++pos;
            continue;
        }
        const size_t end = std::min(path.find('/', pos), path.size());
        std::string prefix = path.substr(0, end);
        if (!s.ip.IsDirectory(prefix)) break;
        addFolder(s, path.substr(pos, end - pos), std::move(prefix), x, y, true);
        x += 10;
        y += kFolderRowHeight;
        pos = end;
    }
    const std::string current = s.folders.back().path;

    // Sub-folders: one column under the chain, one step deeper than the current folder.
    for (const std::string& name : entryNames(current, true)) {
        if (name.front() == '.') continue;
        std::string sub = childPath(current, name);
        if (sub.size() > kMaxLibraryPathLength) {
            tooLong.push_back(std::move(sub));
            continue;
        }
        addFolder(s, name, std::move(sub), x, y, false);
        y += kFolderRowHeight;
    }

    // Pattern files: two columns, at x 5 and 175.
    x = 5;
    y = 5;
    for (const std::string& name : entryNames(current, false)) {
        std::string file = childPath(current, name);
        if (!isPatternFile(file) || !s.ip.DoesFileExist(file)) continue;
        if (file.size() > kMaxLibraryPathLength) {
            tooLong.push_back(std::move(file));
            continue;
        }
        addFile(s, name, std::move(file), x, y);
        x += kFileColumnStep;
        if (x > 200) {
            x = 5;
            y += kFileRowHeight;
        }
    }
    return tooLong;
}

fs::path libraryPathFile(mq::HostInterface& ip) {
    return fs::path(ip.GetDir(mq::APP_PLUGCFG_DIR)) / kLibraryPathFileName;
}

std::optional<std::string> readLibraryPath(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) return std::nullopt;
    std::string path;
    // A blank ends the path too: a saved "/data/My Lib" comes back as
    // "/data/My". Kept so that existing library path files read as before.
    for (char c; in.get(c) && c != ' ' && c != '\t' && c != '\n' && c != '\r';) path += c;
    return path;
}

void writeLibraryPath(const fs::path& file, const std::string& path) {
    std::error_code ec;
    fs::create_directories(file.parent_path(), ec);
    if (ec) throw mq::FileWriteError(file, "cannot create its folder: " + ec.message());
    mq::writeFileAtomically(file, path);
}

}  // namespace mosaiq
