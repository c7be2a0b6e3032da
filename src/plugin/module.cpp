#include "plugin/module.h"

#include "engine/segment_walk.h"
#include "ui/library_browser.h"

#include <dlfcn.h>
#include <link.h>

namespace mosaiq {

namespace {

void* gModule = nullptr;

// Runs when the library is loaded, before any entry point.
__attribute__((constructor)) void recordModuleHandle() {
    // The segment walk's random table is built before any render can start,
    // and the library browser's view classes exist before any dialog opens.
    mq::SegmentRandomTable::fill();
    registerLibraryViews();

    Dl_info info{};
    link_map* ownMap = nullptr;
    if (!dladdr1(reinterpret_cast<void*>(&recordModuleHandle), &info,
                 reinterpret_cast<void**>(&ownMap), RTLD_DL_LINKMAP))
        return;

    void* handle = info.dli_fname ? dlopen(info.dli_fname, RTLD_NOLOAD | RTLD_LAZY) : nullptr;
    if (!handle) {
        // Linked into the program itself (the unit tests): the program's handle stands in.
        void* program = dlopen(nullptr, RTLD_LAZY);
        link_map* programMap = nullptr;
        if (program && dlinfo(program, RTLD_DI_LINKMAP, &programMap) == 0 && programMap == ownMap) {
            handle = program;
        } else if (program) {
            dlclose(program);
        }
    }
    if (!handle) return;
    gModule = handle;
    // Looking ourselves up took a reference; give it back so unloading still works.
    dlclose(handle);
}

// Runs when the library is unloaded: the host's registry must not keep
// view classes that go with it.
__attribute__((destructor)) void forgetViews() { unregisterLibraryViews(); }

}  // namespace

void* moduleHandle() { return gModule; }

void setModuleHandle(void* handle) { gModule = handle; }

}  // namespace mosaiq
