// Finding and loading plug-in libraries (*.dlo) and registering their classes.
#pragma once

#include "host/classdesc.h"

#include <filesystem>
#include <string>
#include <vector>

namespace mq {

// The host's version word; a plug-in whose LibVersion differs is refused.
inline constexpr unsigned long kHostVersion = 0x36B02600;

// The six entry points a plug-in exports. LibShutdown has C++ linkage.
using LibDescriptionFn = const char* (*)();
using LibNumberClassesFn = int (*)();
using LibClassDescFn = ClassDesc* (*)(int);
using LibVersionFn = unsigned long (*)();
using LibInitializeFn = int (*)();
using LibShutdownFn = int (*)();
inline constexpr const char* kLibShutdownSymbol = "_Z11LibShutdownv";

struct PluginLibrary {
    std::filesystem::path file;
    void* handle = nullptr;
    std::string description;
    std::vector<ClassDesc*> classes;
    LibShutdownFn shutdown = nullptr;
};

class PluginManager {
public:
    ~PluginManager();

    // The plug-in folder: $MOSAIQ_PLUGIN_PATH when set, else the folder of
    // the running executable.
    static std::filesystem::path defaultFolder();

    // Load every *.dlo in the folder, in name order. Returns one message per
    // library that was skipped, naming the file and the reason; the rest load.
    std::vector<std::string> loadFolder(const std::filesystem::path& folder);
    // Load one library. False with error set when it is skipped.
    bool loadLibrary(const std::filesystem::path& file, std::string& error);
    // Shut down and unload every library, removing its classes.
    void unloadAll();
    const std::vector<PluginLibrary>& libraries() const { return libraries_; }

private:
    std::vector<PluginLibrary> libraries_;
};

// The process-wide plug-in manager.
PluginManager& pluginManager();

}  // namespace mq
