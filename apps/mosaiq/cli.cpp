// The helpers every mosaiq command shares: warnings, loading and saving
// scenes, and checking an output before any work is done.
#include "cli.h"

#include "host/scenefile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>

namespace mosaiq::cli {

void printWarning(const std::string& text) { std::cerr << "mosaiq: warning: " << text << "\n"; }

void checkWritable(const std::filesystem::path& out, const std::string& what) {
    namespace fs = std::filesystem;
    const fs::path dir = out.parent_path().empty() ? fs::path(".") : out.parent_path();
    std::error_code ec;
    if (!fs::is_directory(dir, ec))
        throw CliError(kExitOutput, out.string() + ": folder " + dir.string() + " does not exist");
    if (fs::is_directory(out, ec))
        throw CliError(kExitOutput, out.string() + ": is a folder, not " + what + " file");
    // Only creating a file shows that the folder takes one.
    const fs::path probe =
        dir / ("." + out.filename().string() + ".probe" + std::to_string(::getpid()));
    const int fd = ::open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
    if (fd < 0) {
        throw CliError(kExitOutput, out.string() + ": cannot write in " + dir.string() + ": " +
                                        std::strerror(errno));
    }
    ::close(fd);
    ::unlink(probe.c_str());
}

void loadSceneOrFail(mq::HostInterface& ip, const std::filesystem::path& file) {
    try {
        mq::loadScene(ip, file);
    } catch (const mq::SceneError& e) {
        throw CliError(kExitInput, e.what());
    }
}

void saveSceneOrFail(const mq::Scene& scene, const std::filesystem::path& file) {
    try {
        mq::saveScene(scene, file);
    } catch (const mq::SceneError& e) {
        throw CliError(kExitOutput, e.what());
    }
}

}  // namespace mosaiq::cli
