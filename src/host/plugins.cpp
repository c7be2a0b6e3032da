#include "host/plugins.h"

#include <dlfcn.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <system_error>

namespace fs = std::filesystem;

namespace mq {

namespace {

template <class Fn>
Fn symbol(void* handle, const char* name) {
    return reinterpret_cast<Fn>(dlsym(handle, name));
}

std::string hex(unsigned long v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "0x%lX", v);
    return buf;
}

}  // namespace

PluginManager& pluginManager() {
    static PluginManager manager;
    return manager;
}

PluginManager::~PluginManager() { unloadAll(); }

fs::path PluginManager::defaultFolder() {
    if (const char* env = std::getenv("MOSAIQ_PLUGIN_PATH"); env && *env) return env;
    std::error_code ec;
    fs::path exe = fs::read_symlink("/proc/self/exe", ec);
    return ec ? fs::current_path() : exe.parent_path();
}

std::vector<std::string> PluginManager::loadFolder(const fs::path& folder) {
    std::vector<std::string> messages;
    std::error_code ec;
    if (!fs::is_directory(folder, ec)) {
        messages.push_back(folder.string() + ": plug-in folder does not exist");
        return messages;
    }
    std::vector<fs::path> files;
    for (const auto& entry : fs::directory_iterator(folder, ec))
        if (entry.path().extension() == ".dlo") files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    for (const fs::path& f : files) {
        std::string error;
        if (!loadLibrary(f, error)) messages.push_back(error);
    }
    return messages;
}

bool PluginManager::loadLibrary(const fs::path& file, std::string& error) {
    const fs::path canonical = fs::weakly_canonical(file);
    for (const PluginLibrary& lib : libraries_) {
        if (lib.file == canonical) {
            error = file.string() + ": skipped, already loaded";
            return false;
        }
    }
    void* handle = dlopen(canonical.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* why = dlerror();
        error = file.string() + ": skipped, cannot be loaded: " + (why ? why : "unknown reason");
        return false;
    }
    auto fail = [&](const std::string& why) {
        error = file.string() + ": skipped, " + why;
        dlclose(handle);
        return false;
    };

    PluginLibrary lib;
    lib.file = canonical;
    lib.handle = handle;
    auto description = symbol<LibDescriptionFn>(handle, "LibDescription");
    auto numberClasses = symbol<LibNumberClassesFn>(handle, "LibNumberClasses");
    auto classDesc = symbol<LibClassDescFn>(handle, "LibClassDesc");
    auto version = symbol<LibVersionFn>(handle, "LibVersion");
    auto initialize = symbol<LibInitializeFn>(handle, "LibInitialize");
    lib.shutdown = symbol<LibShutdownFn>(handle, kLibShutdownSymbol);
    const std::pair<const char*, bool> entries[] = {
        {"LibDescription", description != nullptr}, {"LibNumberClasses", numberClasses != nullptr},
        {"LibClassDesc", classDesc != nullptr},     {"LibVersion", version != nullptr},
        {"LibInitialize", initialize != nullptr},   {"LibShutdown", lib.shutdown != nullptr}};
    for (const auto& [name, present] : entries)
        if (!present) return fail(std::string("it has no entry point ") + name);

    if (version() != kHostVersion)
        return fail("it was built for host version " + hex(version()) + ", this host is " +
                    hex(kHostVersion));
    if (!initialize()) return fail("its LibInitialize failed");
    const char* desc = description();
    lib.description = desc ? desc : "";

    const int n = numberClasses();
    for (int i = 0; i < n; ++i) {
        ClassDesc* cd = classDesc(i);
        if (!cd) continue;
        if (!classDirectory().add(cd)) {
            // Another library already provides this class; keep the first.
            continue;
        }
        lib.classes.push_back(cd);
    }
    libraries_.push_back(std::move(lib));
    return true;
}

void PluginManager::unloadAll() {
    for (auto it = libraries_.rbegin(); it != libraries_.rend(); ++it) {
        for (ClassDesc* cd : it->classes) classDirectory().remove(cd);
        if (it->shutdown) it->shutdown();
        dlclose(it->handle);
    }
    libraries_.clear();
}

}  // namespace mq
