// The Mosaiq object: references, life cycle, working copy and editing.
#include "host/interface.h"
#include "host/node.h"
#include "object/params.h"
#include "support/mosaiq_test.h"

#include <gtest/gtest.h>

#include <numbers>

namespace {

using namespace mosaiq;
using mosaiq::test::MosaiqPtr;
using mosaiq::test::newMosaiq;
using mq::ParamBlock;

TEST(MosaiqReferences, TheBlockIsTheOnlyReferenceWhateverTheIndex) {
    MosaiqPtr obj = newMosaiq();
    ParamBlock* pb = obj->GetParamBlock(0);
    ASSERT_NE(pb, nullptr);
    EXPECT_EQ(pb->GetOwner(), obj.get());
    for (int i : {0, 1, 5, -1}) {
        EXPECT_EQ(obj->GetReference(i), pb) << i;
        EXPECT_EQ(obj->SubAnim(i), pb) << i;
        EXPECT_EQ(obj->SubAnimName(i), "Base Parameters") << i;
    }
    EXPECT_EQ(obj->GetParamBlockByID(1), nullptr);
    EXPECT_EQ(obj->GetParamBlockByID(static_cast<mq::BlockID>(0x10000)), pb);  // wraps to 0
    obj->SetReference(7, nullptr);
    EXPECT_EQ(obj->GetReference(0), nullptr);
    obj->SetReference(3, pb);
    EXPECT_EQ(obj->GetReference(0), pb);
    // No host geometry: an empty render mesh the object keeps.
    bool needDelete = true;
    mq::View view;
    mq::Mesh* mesh = obj->GetRenderMesh(0, nullptr, view, needDelete);
    EXPECT_TRUE(mesh && !needDelete && mesh->getNumFaces() == 0);
}

TEST(MosaiqClone, CopyHasItsOwnBlockWithTheSameValues) {
    mq::Node node("pattern");
    MosaiqPtr source = newMosaiq();
    ParamBlock* spb = source->GetParamBlock(0);
    spb->SetValue(kHeight, 0, 42.0f);
    spb->SetValue(kCropTransform, 0, mq::TransMatrix({1, 2, 3}));
    spb->SetValue(kPatternFile, 0, "/patterns/weave.glb");

    mq::RemapDir remap;
    MosaiqPtr copy(dynamic_cast<Mosaiq*>(source->Clone(remap)));
    ASSERT_NE(copy, nullptr);
    ParamBlock* cpb = copy->GetParamBlock(0);
    ASSERT_TRUE(cpb != nullptr && cpb != spb && cpb->GetOwner() == copy.get());
    // The copy's own construction does not overwrite what was cloned.
    EXPECT_EQ(cpb->GetFloat(kHeight), 42.0f);
    EXPECT_EQ(cpb->GetMatrix3(kCropTransform), mq::TransMatrix({1, 2, 3}));
    EXPECT_EQ(cpb->GetStr(kPatternFile), "/patterns/weave.glb");
    cpb->SetValue(kHeight, 0, 7.0f);
    EXPECT_EQ(spb->GetFloat(kHeight), 42.0f);
    // A pick on the copy reaches the copy, not the source.
    cpb->SetValue(kPattern, 0, &node);
    EXPECT_EQ(copy->patternNode(), &node);
    EXPECT_EQ(source->patternNode(), nullptr);
}

TEST(MosaiqValidity, HoldsForTheInstantAndRefreshesTheWorkingCopy) {
    MosaiqPtr obj = newMosaiq();
    EXPECT_EQ(obj->cropSize(), mq::Point3(20, 10, 10));  // until the first evaluation
    for (mq::TimeValue t : {0, 1, 4800, -160})
        EXPECT_EQ(obj->ObjectValidity(t), mq::Interval(t, t));

    ParamBlock* pb = obj->GetParamBlock(0);
    const mq::Matrix3 crop = mq::RotateZMatrix(0.5f) * mq::TransMatrix({4, 5, 6});
    pb->SetValue(kCropTransform, 0, crop);
    for (int i = 0; i < 3; ++i) pb->SetValue(kCropSize, 0, 11.0f * (i + 1), i);
    pb->SetValue(kRandomSegmentCount, 0, 5, 1);
    obj->ObjectValidity(320);
    EXPECT_EQ(obj->cropTransform(), crop);
    EXPECT_EQ(obj->cropSize(), mq::Point3(11, 22, 33));
    EXPECT_EQ(obj->segmentCounts()[1], 5);
}

TEST(MosaiqValidity, PatternNodeIsReadForAScenePatternAtItsWorldPosition) {
    mq::Node parent("parent");
    mq::Node* node = parent.attachChild(std::make_unique<mq::Node>("pattern"));
    parent.setLocalTM(mq::TransMatrix({100, 0, 0}));
    node->setLocalTM(mq::ScaleMatrix({2, 3, 4}) * mq::RotateXMatrix(std::numbers::pi_v<float> / 3) *
                     mq::TransMatrix({1, 2, 3}));
    MosaiqPtr obj = newMosaiq();
    ParamBlock* pb = obj->GetParamBlock(0);
    pb->SetValue(kPatternSource, 0, kSourceFile);
    // Written past the accessor, as a loaded scene or an undo does.
    pb->setRawValue(kPattern, 0, mq::NodeRef{node->GetHandle()});
    obj->ObjectValidity(0);
    EXPECT_EQ(obj->patternNode(), nullptr);
    pb->SetValue(kPatternSource, 0, kSourceScene);
    obj->ObjectValidity(0);
    EXPECT_EQ(obj->patternNode(), node);
    // Its position only: no rotation, no scale.
    EXPECT_EQ(obj->patternNodeTM(), mq::TransMatrix({101, 2, 3}));
    node->detach().reset();  // a deleted node reads as none
    obj->ObjectValidity(0);
    EXPECT_EQ(obj->patternNode(), nullptr);
}

// What a render sees of the object: its settings as plain data, and no
// instance (with the reason told) until a pattern is loaded or picked.
TEST(MosaiqRenderObject, HandsOverItsSettingsAndRefusesInstancesWithoutAPattern) {
    mq::Node surface("surface");
    MosaiqPtr obj = newMosaiq();
    ParamBlock* pb = obj->GetParamBlock(0);
    pb->SetValue(kSurface, 0, &surface);
    pb->SetValue(kPatternSource, 0, kSourceFile);
    pb->SetValue(kPatternFile, 0, "weave.glb");
    pb->SetValue(kCropSize, 0, 4.0f, 2);
    pb->SetValue(kRandomSegmentCount, 0, 3, 1);
    pb->SetValue(kTiling, 0, 7.0f, 0);
    pb->SetValue(kPoliId, 0, 9, 1);
    pb->SetValue(kUseSurfaceMapping, 0, 0);
    const mq::MosaiqSettings s = obj->renderSettings();
    EXPECT_TRUE(s.pattern.fromFile && s.pattern.file == "weave.glb");
    EXPECT_EQ(s.crop.size, mq::Point3(100, 100, 4));
    EXPECT_EQ(s.crop.segmentCountV, 3);
    EXPECT_EQ(s.surface.surface, surface.GetHandle());
    EXPECT_EQ(s.surface.tilingU, 7.0f);
    EXPECT_EQ(s.surface.poliIdTo, 9);
    EXPECT_FALSE(s.useSurfaceMapping);

    struct Core final : mq::tracer::RenderCore {
        int threadCount() const override { return 1; }
        mq::tracer::RayServer& rayServer() override { std::abort(); }
        mq::TimeValue currentTime() const override { return 0; }
        void warning(const std::string& text) override { warnings.push_back(text); }
        std::vector<std::string> warnings;
    } core;
    mq::Node node("Mosaiq001");
    EXPECT_EQ(obj->newRenderInstance(&node, core, 1), nullptr);
    ASSERT_EQ(core.warnings.size(), 1u);
    EXPECT_EQ(core.warnings[0],
              "\"Mosaiq001\" renders nothing: no pattern has been loaded or picked");
}

}  // namespace
