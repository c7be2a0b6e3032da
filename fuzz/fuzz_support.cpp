#include "fuzz_support.h"

#include "host/check.h"
#include "host/classdesc.h"
#include "host/plugins.h"

#include <stdlib.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

namespace mosaiq::fuzz {

namespace fs = std::filesystem;

namespace {

void removeWorkDir() {
    std::error_code ec;
    fs::remove_all(workDir(), ec);
}

}  // namespace

const fs::path& workDir() {
    static const fs::path dir = [] {
        std::string tmpl = (fs::temp_directory_path() / "mosaiq-fuzz-XXXXXX").string();
        if (!::mkdtemp(tmpl.data())) {
            std::perror("mosaiq fuzz: cannot create a temporary folder");
            std::abort();
        }
        std::atexit(removeWorkDir);
        return fs::path(tmpl);
    }();
    return dir;
}

fs::path writeInput(const std::string& name, const uint8_t* data, size_t size) {
    const fs::path file = workDir() / name;
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    if (!out) {
        std::fprintf(stderr, "mosaiq fuzz: cannot write %s\n", file.c_str());
        std::abort();
    }
    return file;
}

const std::vector<std::string>& meshFormats() {
    static const std::vector<std::string> formats = [] {
        std::vector<std::string> list;
        std::istringstream in(MOSAIQ_FUZZ_FORMATS);
        for (std::string ext; std::getline(in, ext, ',');) list.push_back(ext);
        return list;
    }();
    return formats;
}

const std::string& formatFor(uint8_t leadingByte) {
    return meshFormats()[leadingByte % meshFormats().size()];
}

void loadPlugins() {
    for (const std::string& skipped :
         mq::pluginManager().loadFolder(mq::PluginManager::defaultFolder())) {
        std::fprintf(stderr, "mosaiq fuzz: %s\n", skipped.c_str());
    }
    if (!mq::classDirectory().findByInternalName("PatternPattern")) {
        std::fprintf(stderr, "mosaiq fuzz: no Mosaiq plug-in in %s\n",
                     mq::PluginManager::defaultFolder().c_str());
        std::abort();
    }
}

}  // namespace mosaiq::fuzz

// Takes the place of the host library's definition (the executable exports
// its symbols), for the host and the plug-in alike.
void mq::failInvariant(const char* condition, const char* message, const char* file, int line) {
    std::fprintf(stderr, "mosaiq fuzz: internal error: %s (%s failed at %s:%d)\n", message,
                 condition, file, line);
    std::abort();
}
