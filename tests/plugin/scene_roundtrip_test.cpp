// A Mosaiq object through a saved scene: every parameter comes back bit for
// bit, node references included, and a file pattern is reloaded on load.
#include "host/classdesc.h"
#include "host/interface.h"
#include "host/scenefile.h"
#include "object/mosaiq.h"
#include "plugin/classdesc.h"
#include "plugin/params.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <fstream>

namespace fs = std::filesystem;

namespace {

using namespace mosaiq;

bool sameBits(const mq::ParamValue& a, const mq::ParamValue& b) {
    if (a.index() != b.index()) return false;
    if (auto* fa = std::get_if<float>(&a)) {
        const float fb = std::get<float>(b);
        return std::memcmp(fa, &fb, sizeof fb) == 0;
    }
    if (auto* ma = std::get_if<mq::Matrix3>(&a)) {
        const mq::Matrix3& mb = std::get<mq::Matrix3>(b);
        return std::memcmp(ma, &mb, sizeof mb) == 0;
    }
    return a == b;
}

struct SceneRoundTrip : ::testing::Test {
    SceneRoundTrip() {
        mq::classDirectory().add(&GetMosaiqDesc());
        dir = fs::temp_directory_path() / "mosaiq-roundtrip-test";
        fs::remove_all(dir);
        fs::create_directories(dir);
    }
    mq::HostInterface ip;
    fs::path dir;
};

TEST_F(SceneRoundTrip, EveryParameterComesBackBitForBit) {
    mq::Node* pattern = ip.GetRootNode()->attachChild(std::make_unique<mq::Node>("Chain"));
    mq::Node* surface = ip.GetRootNode()->attachChild(std::make_unique<mq::Node>("Cloth"));
    mq::Node* node = ip.GetRootNode()->attachChild(std::make_unique<mq::Node>("Mosaiq001"));
    auto* obj = static_cast<mq::Object*>(GetMosaiqDesc().Create(false));
    node->SetObjectRef(obj);
    mq::ParamBlock* pb = obj->GetParamBlock(0);

    // Values chosen to lose bits if anything goes through text carelessly.
    pb->SetValue(kPatternOn, 0, 0);
    pb->SetValue(kPatternSource, 0, 0);
    pb->SetValue(kPattern, 0, pattern);
    pb->SetValue(kPatternFile, 0, "/patterns/chain mail ü.glb");
    const float sizes[3] = {0.1f, 1e-7f, 33333.332f};
    for (int i = 0; i < 3; ++i) pb->SetValue(kCropSize, 0, sizes[i], i);
    pb->SetValue(
        kCropTransform, 0,
        mq::RotateZMatrix(0.7f) * mq::RotateXMatrix(-0.3f) * mq::TransMatrix({1.1f, -2.2f, 3.3f}));
    pb->SetValue(kHeight, 0, 0.01f);
    pb->SetValue(kShift, 0, -99999.99f);
    pb->SetValue(kUseSurfaceMapping, 0, 0);
    pb->SetValue(kSurface, 0, surface);
    pb->SetValue(kMapChannel, 0, 99);
    pb->SetValue(kRealWorldScale, 0, 1);
    pb->SetValue(kTiling, 0, 0.0001f, 0);
    pb->SetValue(kTiling, 0, 3.14159274f, 1);
    pb->SetValue(kPoliId, 0, 3, 0);
    pb->SetValue(kPoliId, 0, 100000, 1);
    pb->SetValue(kRandomSegmentCount, 0, 1000, 0);
    pb->SetValue(kRandomSegmentCount, 0, 7, 1);
    pb->SetValue(kUvRandomSeed, 0, 1000000);
    pb->SetValue(kDummySize, 0, 0.001f);
    pb->SetValue(kTextureSize, 0, 2048);

    // Snapshot every value but the node handles, which a load renews.
    struct Saved {
        const mq::ParamDef* def;
        int index;
        mq::ParamValue value;
    };
    std::vector<Saved> before;
    for (const mq::ParamDef& def : patternPBDesc().params())
        if (def.type != mq::TYPE_INODE)
            for (int i = 0; i < def.count(); ++i)
                before.push_back({&def, i, *pb->rawValue(def.id, i)});

    const fs::path file = dir / "scene.mosaiq";
    mq::saveScene(ip.scene(), file);
    mq::loadScene(ip, file);

    mq::Node* loaded = ip.scene().findNode("Mosaiq001");
    ASSERT_NE(loaded, nullptr);
    mq::ParamBlock* back = loaded->GetObjectRef()->GetParamBlock(0);
    ASSERT_NE(back, nullptr);
    for (const Saved& s : before) {
        const mq::ParamValue* v = back->rawValue(s.def->id, s.index);
        ASSERT_NE(v, nullptr) << s.def->internalName;
        EXPECT_TRUE(sameBits(*v, s.value))
            << s.def->internalName << "[" << s.index << "]: " << mq::formatParamValue(s.value)
            << " came back as " << mq::formatParamValue(*v);
    }
    EXPECT_EQ(back->GetINode(kPattern)->GetName(), "Chain");
    EXPECT_EQ(back->GetINode(kSurface)->GetName(), "Cloth");

    // A second save of the loaded scene is byte-identical to the first.
    const fs::path again = dir / "again.mosaiq";
    mq::saveScene(ip.scene(), again);
    std::ifstream a(file), b(again);
    const std::string sa((std::istreambuf_iterator<char>(a)), {}),
        sb((std::istreambuf_iterator<char>(b)), {});
    EXPECT_EQ(sa, sb);
}

TEST_F(SceneRoundTrip, AFilePatternIsReloadedOnLoad) {
    const fs::path obj = dir / "tile.obj";
    std::ofstream(obj) << "v 0 0 0\nv 2 0 0\nv 0 3 0\nv 0 0 4\nf 1 2 3\nf 1 2 4\n";
    mq::Node* node = ip.GetRootNode()->attachChild(std::make_unique<mq::Node>("Mosaiq001"));
    auto* created = static_cast<mq::Object*>(GetMosaiqDesc().Create(false));
    node->SetObjectRef(created);
    created->GetParamBlock(0)->SetValue(kPatternSource, 0, kSourceFile);
    created->GetParamBlock(0)->SetValue(kPatternFile, 0, obj.string());
    const fs::path file = dir / "file-pattern.mosaiq";
    mq::saveScene(ip.scene(), file);

    mq::loadScene(ip, file);
    auto* loaded = dynamic_cast<Mosaiq*>(ip.scene().findNode("Mosaiq001")->GetObjectRef());
    ASSERT_NE(loaded, nullptr);
    EXPECT_TRUE(loaded->patternStore().valid) << loaded->lastPatternError();
    // The file is Y-up: its y extent becomes the height.
    EXPECT_EQ(loaded->patternStore().box.Width(), mq::Point3(2, 4, 3));
    EXPECT_EQ(ip.GetRootNode()->NumberOfChildren(), 1) << "the merged pattern nodes are gone";
}

}  // namespace
