// mosaiq crop reset|fit: recompute a Mosaiq object's crop box from its
// pattern, as the object's "Reset Crop Box" and "Fit Crop Box" buttons do,
// and write the scene. The plug-in does the work behind IPatternTools; the
// scene is written only when the operation succeeded.
#include "cli.h"

#include "host/paramblock.h"

#include <iostream>

namespace mosaiq::cli {

namespace {

// The parameter's elements as `set` prints them; "?" when the block lacks it.
std::string paramText(mq::Object& obj, const std::string& name) {
    for (int b = 0; b < obj.NumParamBlocks(); ++b) {
        const mq::ParamBlock* pb = obj.GetParamBlock(b);
        const mq::ParamDef* def = pb ? pb->GetDesc()->findByName(name) : nullptr;
        if (!def) continue;
        std::string out;
        for (int i = 0; i < def->count(); ++i) {
            const mq::ParamValue* v = pb->rawValue(def->id, i);
            out += (i ? ", " : "") + (v ? mq::formatParamValue(*v) : std::string("?"));
        }
        return out;
    }
    return "?";
}

// Grow the crop box's height by pct percent about its centre, which moves
// its top and bottom off pattern faces lying exactly in them (the cause of
// holes on curved surfaces). Width and depth set the tiles' spacing and stay.
void growCropHeight(mq::Object& obj, double pct) {
    for (int b = 0; b < obj.NumParamBlocks(); ++b) {
        mq::ParamBlock* pb = obj.GetParamBlock(b);
        const mq::ParamDef* def = pb ? pb->GetDesc()->findByName("Crop_Size") : nullptr;
        if (!def) continue;
        float height = 0.0f;
        mq::Interval valid;
        pb->GetValue(def->id, 0, height, valid, 2);
        pb->SetValue(def->id, 0, static_cast<float>(height * (1.0 + pct / 100.0)), 2);
        return;
    }
}

}  // namespace

mq::IPatternTools& patternToolsOrFail(mq::Node& node, const std::string& what) {
    mq::Object* obj = node.GetObjectRef();
    void* tools = obj ? obj->GetInterface(mq::kPatternToolsInterfaceId) : nullptr;
    if (!tools) {
        throw CliError(kExitUsage, what + ": node \"" + node.GetName() +
                                       "\" is not a Mosaiq object (it holds " +
                                       (obj ? "a " + obj->GetClassName() : "no object") + ")");
    }
    return *static_cast<mq::IPatternTools*>(tools);
}

void runCrop(mq::HostInterface& ip, const CropOptions& opt) {
    loadSceneOrFail(ip, opt.scene);
    mq::Scene& scene = ip.scene();
    mq::Node* node = findUniqueNode(scene, opt.node, opt.scene.string());
    mq::IPatternTools& tools = patternToolsOrFail(*node, opt.scene.string());

    const bool fit = opt.operation == "fit";
    std::string error;
    if (!(fit ? tools.fitCropBox(error) : tools.resetCropBox(error))) {
        throw CliError(kExitInput, opt.scene.string() + ": " + node->GetName() + ": cannot " +
                                       (fit ? "fit" : "reset") + " the crop box: " + error);
    }
    if (opt.margin > 0) growCropHeight(*node->GetObjectRef(), opt.margin);
    for (const char* name : {"Crop_Size", "Crop_Transfrom"}) {
        std::cout << node->GetName() << "." << name << " = "
                  << paramText(*node->GetObjectRef(), name) << "\n";
    }
    const std::filesystem::path out = opt.output.empty() ? opt.scene : opt.output;
    saveSceneOrFail(scene, out);
    std::cout << "wrote " << out.string() << "\n";
}

}  // namespace mosaiq::cli
