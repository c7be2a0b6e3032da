// A Mosaiq object through a saved scene: every parameter comes back bit for
// bit, node references included, past the object's own construction.
#include "host/classdesc.h"
#include "host/interface.h"
#include "host/scenefile.h"
#include "object/mosaiq.h"
#include "object/params.h"
#include "plugin/classdesc.h"
#include "support/test_util.h"

#include <cstring>

namespace {

namespace fs = std::filesystem;
using namespace mosaiq;

bool sameBits(const mq::ParamValue& a, const mq::ParamValue& b) {
    if (a.index() != b.index()) return false;
    if (auto* fa = std::get_if<float>(&a)) return std::memcmp(fa, &std::get<float>(b), 4) == 0;
    if (auto* ma = std::get_if<mq::Matrix3>(&a))
        return std::memcmp(ma, &std::get<mq::Matrix3>(b), sizeof(mq::Matrix3)) == 0;
    return a == b;
}

TEST(SceneRoundTrip, EveryMosaiqParameterComesBackBitForBit) {
    mq::classDirectory().add(&GetMosaiqDesc());
    mq::test::TempDir dir;
    mq::HostInterface ip;
    auto addNode = [&](const char* name) {
        return ip.GetRootNode()->attachChild(std::make_unique<mq::Node>(name));
    };
    mq::Node* pattern = addNode("Chain");
    mq::Node* surface = addNode("Cloth");
    auto* obj = static_cast<mq::Object*>(GetMosaiqDesc().Create(false));
    addNode("Mosaiq001")->SetObjectRef(obj);
    mq::ParamBlock* pb = obj->GetParamBlock(0);

    // Values chosen to lose bits if anything goes through text carelessly.
    // The pick resets the crop box, so the box is set after it.
    pb->SetValue(kPattern, 0, pattern);
    pb->SetValue(kPatternOn, 0, 0);
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
    pb->SetValue(kPoliId, 0, 100000, 1);
    pb->SetValue(kRandomSegmentCount, 0, 1000, 0);
    pb->SetValue(kUvRandomSeed, 0, 1000000);
    pb->SetValue(kDummySize, 0, 0.001f);
    pb->SetValue(kTextureSize, 0, 2048);

    // Every value but the node handles, which a load renews.
    std::vector<std::pair<const mq::ParamDef*, int>> slots;
    std::vector<mq::ParamValue> before;
    for (const mq::ParamDef& def : patternPBDesc().params())
        for (int i = 0; def.type != mq::TYPE_INODE && i < def.count(); ++i) {
            slots.push_back({&def, i});
            before.push_back(*pb->rawValue(def.id, i));
        }

    const fs::path file = dir / "scene.mosaiq", again = dir / "again.mosaiq";
    mq::saveScene(ip.scene(), file);
    mq::loadScene(ip, file);
    mq::Node* loaded = ip.scene().findNode("Mosaiq001");
    ASSERT_NE(loaded, nullptr);
    mq::ParamBlock* back = loaded->GetObjectRef()->GetParamBlock(0);
    for (size_t k = 0; k < slots.size(); ++k) {
        const auto [def, i] = slots[k];
        const mq::ParamValue* v = back->rawValue(def->id, i);
        ASSERT_NE(v, nullptr) << def->internalName;
        EXPECT_TRUE(sameBits(*v, before[k]))
            << def->internalName << "[" << i << "]: " << mq::formatParamValue(before[k])
            << " came back as " << mq::formatParamValue(*v);
    }
    EXPECT_EQ(back->GetINode(kPattern)->GetName(), "Chain");
    EXPECT_EQ(back->GetINode(kSurface)->GetName(), "Cloth");
    // A second save of the loaded scene is byte-identical to the first.
    mq::saveScene(ip.scene(), again);
    EXPECT_EQ(mq::test::readText(again), mq::test::readText(file));
}

}  // namespace
