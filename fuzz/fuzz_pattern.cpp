// Pattern files from untrusted bytes, taken through the whole path a
// pattern takes: a scene whose Mosaiq object reads its pattern from the
// file is loaded (the post-load callback loads the pattern and samples its
// points), then the object's tools reset the crop box and capture the tile
// (merge, mesh conversion, capture, the tile's octree). As for the import
// target, the first byte picks the file's format.
//
// Only host-level interfaces are used, and the plug-in is loaded from its
// library as the command line loads it.
#include "fuzz_support.h"

#include "host/classdesc.h"
#include "host/paramblock.h"
#include "host/pattern_tools.h"
#include "host/scenefile.h"

#include <cstdio>
#include <cstdlib>
#include <map>

namespace {

namespace fs = std::filesystem;

constexpr const char* kNodeName = "Mosaiq001";

[[noreturn]] void die(const std::string& what) {
    std::fprintf(stderr, "mosaiq fuzz: %s\n", what.c_str());
    std::abort();
}

void setParam(mq::Object& obj, const std::string& name, const auto& value) {
    mq::ParamBlock* pb = obj.GetParamBlock(0);
    const mq::ParamDef* def = pb ? pb->GetDesc()->findByName(name) : nullptr;
    if (!def || !pb->SetValue(def->id, 0, value)) die("cannot set " + name);
}

// The scene for one format, written on first use: a single Mosaiq object
// reading its pattern from pattern.<ext> beside it.
const fs::path& sceneFor(const std::string& ext) {
    static std::map<std::string, fs::path> scenes;
    fs::path& scene = scenes[ext];
    if (!scene.empty()) return scene;

    mq::ClassDesc* cd = mq::classDirectory().findByInternalName("PatternPattern");
    mq::Object* obj = cd ? mq::createObject(cd->SuperClassID(), cd->ClassID()) : nullptr;
    if (!obj) die("cannot create a Mosaiq object");
    mq::HostInterface ip;
    auto node = std::make_unique<mq::Node>(kNodeName);
    node->SetObjectRef(obj);
    setParam(*obj, "Pattern_Source", 1);
    setParam(*obj, "Pattern_File", (mosaiq::fuzz::workDir() / ("pattern." + ext)).string());
    ip.GetRootNode()->attachChild(std::move(node));
    scene = mosaiq::fuzz::workDir() / ("pattern-" + ext + ".mosaiq");
    mq::saveScene(ip.scene(), scene);
    return scene;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Faces piled up in one place fill the octree's budget before the build
    // gives up: a small budget keeps such inputs from eating the run.
    setenv("MOSAIQ_OCTREE_MEMORY_MB", "256", 0);
    mosaiq::fuzz::loadPlugins();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace mosaiq::fuzz;
    if (size == 0) return 0;
    const std::string& ext = formatFor(data[0]);
    writeInput("pattern." + ext, data + 1, size - 1);

    mq::HostInterface ip;
    try {
        mq::loadScene(ip, sceneFor(ext));
    } catch (const mq::SceneError& e) {
        die(std::string("the generated scene does not load: ") + e.what());
    }
    mq::Node* node = ip.scene().findNode(kNodeName);
    mq::Object* obj = node ? node->GetObjectRef() : nullptr;
    void* interface = obj ? obj->GetInterface(mq::kPatternToolsInterfaceId) : nullptr;
    if (!interface) die("the Mosaiq object offers no pattern tools");
    auto& tools = *static_cast<mq::IPatternTools*>(interface);

    // Either may refuse the pattern with a reason; neither may crash.
    std::string error;
    tools.resetCropBox(error);
    mq::TileStats stats;
    if (tools.tileStats(0, stats, error)) {
        // A captured tile has faces, and no leaf holds more than all of them.
        if (stats.faceCount <= 0 || stats.largestLeaf > stats.faceCount || stats.octreeLeaves < 1)
            die("inconsistent tile statistics");
    }
    return 0;
}
