// The helpers every mosaiq command shares: warnings, signals, loading
// (and checking) and saving scenes, and checking an output before any work
// is done.
#include "cli.h"

#include "host/atomic_file.h"
#include "host/node.h"
#include "host/paramblock.h"
#include "host/scenefile.h"
#include "tracer/renderer.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>

namespace mosaiq::cli {

namespace {

// Installed with SA_RESETHAND: the signal raised again, once the handler
// returns, ends the process as it would have.
extern "C" void onFatalSignal(int signalNumber) {
    mq::removeTemporaryFiles();
    ::raise(signalNumber);
}

bool gStrict = false;
int gWarnings = 0;

// The named parameter's first element as text; "" when no block has it.
std::string stringParam(mq::Object& obj, const std::string& name) {
    for (int b = 0; b < obj.NumParamBlocks(); ++b) {
        mq::ParamBlock* pb = obj.GetParamBlock(b);
        const mq::ParamDef* def = pb ? pb->GetDesc()->findByName(name) : nullptr;
        if (!def) continue;
        return def->type == mq::TYPE_INT ? std::to_string(pb->GetInt(def->id, 0))
                                         : pb->GetStr(def->id, 0);
    }
    return {};
}

}  // namespace

void printWarning(const std::string& text) {
    ++gWarnings;
    std::cerr << "mosaiq: warning: " << text << "\n";
}

void setStrict(bool strict) { gStrict = strict; }
bool isStrict() { return gStrict; }

void checkStrict() {
    if (!gStrict || gWarnings == 0) return;
    throw CliError(kExitInput, std::to_string(gWarnings) + " warning" +
                                   (gWarnings == 1 ? "" : "s") +
                                   " above; --strict made them errors and nothing was written");
}

void removeTemporariesOnSignal() {
    struct sigaction sa {};
    sa.sa_handler = onFatalSignal;
    sa.sa_flags = SA_RESETHAND;
    sigemptyset(&sa.sa_mask);
    // A signal ignored from the start (nohup, a background job) stays ignored.
    for (int signalNumber : {SIGINT, SIGTERM}) {
        struct sigaction old {};
        if (sigaction(signalNumber, nullptr, &old) == 0 && old.sa_handler != SIG_IGN)
            sigaction(signalNumber, &sa, nullptr);
    }
}

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

std::string pathForScene(const std::filesystem::path& sceneFile, const std::string& given) {
    namespace fs = std::filesystem;
    if (given.empty()) return given;
    std::error_code ec;
    const fs::path absolute = fs::weakly_canonical(fs::absolute(given, ec), ec);
    const fs::path folder = fs::weakly_canonical(fs::absolute(sceneFile, ec).parent_path(), ec);
    if (ec) return given;
    const fs::path relative = absolute.lexically_relative(folder);
    // Beside or below the scene: stored relative, so the two move together.
    if (!relative.empty() && *relative.begin() != "..") return relative.generic_string();
    return absolute.generic_string();
}

void loadSceneOrFail(mq::HostInterface& ip, const std::filesystem::path& file) {
    try {
        mq::loadScene(ip, file);
    } catch (const mq::SceneError& e) {
        throw CliError(kExitInput, e.what());
    }
    // Every command refuses what render would, so inspect never passes a
    // scene that render then refuses.
    checkRenderDataOrFail(ip.scene(), file.string());
}

std::vector<std::string> unreadablePatternFiles(mq::HostInterface& ip, const mq::Node* only) {
    namespace fs = std::filesystem;
    std::vector<std::string> problems;
    for (mq::Node* node : ip.scene().allNodes()) {
        // A hidden node renders nothing anyway; a node asked for by name counts.
        if (only ? node != only : !node->Renderable()) continue;
        mq::Object* obj = node->GetObjectRef();
        if (!obj || !obj->GetInterface(mq::kPatternToolsInterfaceId)) continue;
        // Only a file the pattern comes from matters; "/" is the unset default.
        const std::string file = stringParam(*obj, "Pattern_File");
        if (stringParam(*obj, "Pattern_Source") != "1" || file.empty() || file == "/") continue;
        const std::string path = ip.ResolveAssetPath(file);
        std::error_code ec;
        std::string why;
        if (!fs::exists(path, ec)) {
            why = "does not exist";
        } else if (fs::is_directory(path, ec)) {
            why = "is a folder, not a file";
        } else if (!std::ifstream(path, std::ios::binary)) {
            why = std::string("cannot be read: ") + std::strerror(errno);
        } else {
            continue;
        }
        const fs::path looked = fs::absolute(path, ec);
        problems.push_back(node->GetName() + ": pattern file \"" + file + "\" " + why +
                           " (looked for " + looked.string() + "); the node would render nothing");
    }
    return problems;
}

void checkPatternFilesOrFail(mq::HostInterface& ip, const std::string& what, const mq::Node* only) {
    const std::vector<std::string> problems = unreadablePatternFiles(ip, only);
    if (problems.empty()) return;
    std::string text = what + ": " + problems.front();
    for (size_t i = 1; i < problems.size(); ++i) text += "\n  " + what + ": " + problems[i];
    throw CliError(kExitInput, text);
}

void checkRenderDataOrFail(const mq::Scene& scene, const std::string& what) {
    try {
        mq::tracer::checkRenderData(scene);
    } catch (const mq::tracer::InputError& e) {
        throw CliError(kExitInput, what + ": " + e.what());
    }
}

void saveSceneOrFail(const mq::Scene& scene, const std::filesystem::path& file) {
    checkStrict();
    try {
        mq::saveScene(scene, file);
    } catch (const mq::SceneError& e) {
        throw CliError(kExitOutput, e.what());
    }
}

}  // namespace mosaiq::cli
