// Scene files from untrusted bytes, loaded as the command line loads them:
// into a host with the plug-ins present, so their parameter blocks, value
// clamping and post-load callbacks run on whatever the reader accepts.
// loadScene may only throw SceneError.
#include "fuzz_support.h"

#include "host/scenefile.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    mosaiq::fuzz::loadPlugins();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace mosaiq::fuzz;
    const std::filesystem::path file = writeInput("scene.mosaiq", data, size);
    mq::HostInterface ip;
    try {
        mq::loadScene(ip, file);
    } catch (const mq::SceneError&) {
        // A file the reader refuses, with its reason: what it should do.
    }
    return 0;
}
