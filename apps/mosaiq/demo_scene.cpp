// The built-in demo scene: chain mail over a cylinder standing on a ground
// plane. The pattern is generated in code, so the demo needs no files.
#include "cli.h"

#include "host/classdesc.h"
#include "host/mesh.h"
#include "host/node.h"
#include "host/object.h"
#include "host/plugins.h"
#include "pattern_gen.h"

#include <memory>
#include <sstream>

namespace mosaiq::cli {

namespace {

mq::Node* addNode(mq::Scene& scene, const std::string& name, mq::Object* obj,
                  const std::string& material = {}) {
    auto node = std::make_unique<mq::Node>(name);
    node->SetObjectRef(obj);
    node->setMaterial(material);
    return scene.root()->attachChild(std::move(node));
}

std::string list(std::initializer_list<float> values) {
    std::ostringstream s;
    s.precision(9);
    const char* sep = "";
    for (float v : values) {
        s << sep << v;
        sep = ",";
    }
    return s.str();
}

}  // namespace

void buildDemoScene(mq::HostInterface& ip) {
    mq::ClassDesc* cd = mq::classDirectory().findByInternalName("PatternPattern");
    mq::Object* mosaiq = cd ? mq::createObject(cd->SuperClassID(), cd->ClassID()) : nullptr;
    if (!mosaiq) {
        throw CliError(kExitInput,
                       "the demo scene needs the Mosaiq plug-in, and none was loaded from " +
                           mq::PluginManager::defaultFolder().string());
    }
    mq::Scene& scene = ip.scene();

    // Surface: a bolster lying along X, sides and two caps, three UV islands
    // (material ids 1 and 2 the caps, 3 the sides). Its length is its circumference, so equal
    // tiling in U and V gives square tiles on the sides.
    const float radius = 14.0f, length = 2.0f * 3.14159265f * radius;
    mq::Node* surface =
        addNode(scene, "Surface", new mq::TriObject(mq::makeCylinderMesh(radius, length, 12, 72)),
                "leather");
    // Rows are the images of x, y, z: the cylinder's axis (z) becomes +X.
    surface->setLocalTM(mq::Matrix3(mq::Point3(0, 0, -1), mq::Point3(0, 1, 0), mq::Point3(1, 0, 0),
                                    mq::Point3(-0.5f * length, 0, radius)));
    addNode(scene, "Ground", new mq::TriObject(mq::makePlaneMesh(4000.0f, 4000.0f, 1, 1)),
            "ground");

    // The pattern, kept out of the render: the Mosaiq object tiles it.
    mq::patterns::Pattern mail = mq::patterns::chainMail();
    const mq::Point3 centre = mail.tile.Center(), size = mail.tile.Width();
    addNode(scene, "Pattern", new mq::TriObject(std::move(mail.mesh)))->SetRenderable(false);

    // The sides' UVs span the circumference, the caps' the diameter, so the
    // caps take their own object with pi times less tiling: about 8.8 world
    // units a tile on both.
    struct Cover {
        const char* name;
        mq::Object* object;
        const char* tiling;
        const char* faces;
    };
    mq::Object* caps = mq::createObject(cd->SuperClassID(), cd->ClassID());
    for (const Cover& cover : {Cover{"ChainMail", mosaiq, "Tiling=10,10", "Poli_ID=3,3"},
                               Cover{"ChainMailCaps", caps, "Tiling=3.2,3.2", "Poli_ID=1,2"}}) {
        mq::Node* node = addNode(scene, cover.name, cover.object, "mail");
        const std::vector<std::string> settings = {
            "Pattern_Source=0",
            "Pattern=Pattern",
            "Surface=Surface",
            "Use_Surface_Mapping=1",
            "Map_Channel=1",
            cover.tiling,
            cover.faces,
            "Height=100",
            "Crop_Size=" + list({size.x, size.y, size.z}),
            "Crop_Transfrom=" + list({1, 0, 0, 0, 1, 0, 0, 0, 1, centre.x, centre.y, centre.z}),
        };
        for (const std::string& s : settings) applyAssignment(scene, *node, s, false);
    }

    // Seen from above and to the side, so the rings' depth reads.
    scene.camera = {{"position", {95.0, -150.0, 88.0}},
                    {"target", {0.0, 4.0, 10.0}},
                    {"up", {0.0, 0.0, 1.0}},
                    {"fov", 34.0}};
    scene.lights = nlohmann::json::array(
        {{{"type", "dome"}, {"color", {0.45, 0.55, 0.75}}, {"intensity", 0.6}},
         {{"type", "sun"},
          {"direction", {-0.45, -0.6, 0.65}},
          {"angle", 3.0},
          {"color", {1.0, 0.93, 0.82}},
          {"intensity", 2.6}}});
    scene.materials = {
        {"mail", {{"baseColor", {0.78, 0.78, 0.8}}, {"metallic", 0.9}, {"roughness", 0.3}}},
        {"leather", {{"baseColor", {0.22, 0.07, 0.04}}, {"roughness", 0.6}}},
        {"ground", {{"baseColor", {0.22, 0.2, 0.18}}, {"roughness", 0.9}}}};
    scene.render = {{"width", 640}, {"height", 480}, {"spp", 32}};
}

}  // namespace mosaiq::cli
