// Writing a file so that its name only ever shows the old file or the whole
// new one: every output of Mosaiq (scenes, meshes, images, previews) goes
// through here.
//
// The content is written under a temporary name in the target's own folder
// (so the rename stays on one file system), flushed to disk with fsync, and
// renamed over the target. When anything fails the temporary is removed and
// a file already under the target name is left as it was. A replaced file
// keeps its permissions.
//
// Temporaries in flight are listed where a signal handler can reach them:
// removeTemporaryFiles() unlinks them, so a process stopped by Ctrl-C leaves
// none behind, and the writes they belonged to fail instead of renaming.
#pragma once

#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace mq {

// A file that could not be written. what() is "<file>: <reason>"; the
// reason names the temporary file where one is involved.
class FileWriteError : public std::runtime_error {
public:
    FileWriteError(const std::filesystem::path& file, const std::string& reason);
    const std::filesystem::path& file() const { return file_; }
    const std::string& reason() const { return reason_; }

private:
    std::filesystem::path file_;
    std::string reason_;
};

// Writes bytes to file atomically. Throws FileWriteError when file is a
// folder, its folder does not exist, or creating, writing, flushing or
// renaming the temporary fails.
void writeFileAtomically(const std::filesystem::path& file, std::string_view bytes);

// Writes file atomically with a writer that creates the content itself:
// write gets the temporary's path, an empty file that keeps file's extension
// (libraries that pick a format by the extension see the right one), and
// must fill it and close what it opened before returning. Whatever write
// throws propagates once the temporary is removed. Throws FileWriteError as
// the overload above does.
void writeFileAtomically(const std::filesystem::path& file,
                         const std::function<void(const std::filesystem::path& temporary)>& write);

// Unlinks the temporary files of the writes in flight in this process; each
// of those writes then fails rather than replacing its target.
// Async-signal-safe: for SIGINT and SIGTERM handlers. At most
// kTrackedTemporaries writes in flight at once are tracked; others complete
// untouched.
void removeTemporaryFiles() noexcept;
inline constexpr int kTrackedTemporaries = 16;

}  // namespace mq
