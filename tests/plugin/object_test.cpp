// The Mosaiq object: references, life cycle, working copy and editing.
#include "host/interface.h"
#include "host/node.h"
#include "object/cropmodes.h"
#include "plugin/about.h"
#include "plugin/params.h"
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
    EXPECT_EQ(obj->NumRefs(), 1);
    EXPECT_EQ(obj->NumSubs(), 1);
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

    // No conversion, no host geometry, an empty render mesh it keeps.
    EXPECT_EQ(obj->CanConvertToType(mq::TRIOBJ_CLASS_ID), 0);
    EXPECT_FALSE(mq::meshOfObject(obj.get(), 0).has_value());
    std::vector<mq::ClassId> types;
    std::vector<std::string> names;
    obj->GetCollapseTypes(types, names);
    EXPECT_TRUE(types.empty() && names.empty());
    bool needDelete = true;
    mq::View view;
    mq::Mesh* mesh = obj->GetRenderMesh(0, nullptr, view, needDelete);
    ASSERT_NE(mesh, nullptr);
    EXPECT_FALSE(needDelete);
    EXPECT_EQ(mesh->getNumFaces(), 0);
}

TEST(MosaiqConstruction, BindsControlsOnlyWhenAUserSeesTheHost) {
    // A stand-in binding shows whether construction rebound the controls.
    mq::ParamBlockDesc& pbd = patternPBDesc();
    auto markUnbound = [&] {
        mq::ParamUIBinding standIn;
        standIn.controls = {-1};
        pbd.bindUI(kPatternOn, standIn);
    };
    auto bound = [&] { return pbd.GetParamDef(kPatternOn)->ui->controls.front() == 1096; };

    markUnbound();
    ASSERT_EQ(mq::GetCOREInterface(), nullptr);
    MosaiqPtr noHost = newMosaiq();
    EXPECT_FALSE(bound()) << "no interface counts as without UI";
    {
        mq::HostInterface cli;
        cli.SetRunningWithoutUI(true);
        MosaiqPtr obj = newMosaiq();
        EXPECT_FALSE(bound());

        mq::HostInterface studio;
        studio.SetRunningWithoutUI(false);
        MosaiqPtr withUi = newMosaiq();
        EXPECT_TRUE(bound());
    }
    // Destruction issues the bindings too, whatever the host.
    markUnbound();
    noHost.reset();
    EXPECT_TRUE(bound());
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
    ASSERT_TRUE(cpb != nullptr && cpb != spb);
    EXPECT_EQ(cpb->GetOwner(), copy.get());
    // The copy's own construction does not overwrite what was cloned.
    EXPECT_EQ(cpb->GetFloat(kHeight), 42.0f);
    EXPECT_EQ(cpb->GetMatrix3(kCropTransform), mq::TransMatrix({1, 2, 3}));
    EXPECT_EQ(cpb->GetStr(kPatternFile), "/patterns/weave.glb");

    cpb->SetValue(kHeight, 0, 7.0f);
    cpb->SetValue(kCropSize, 0, 3.0f, 1);
    EXPECT_EQ(spb->GetFloat(kHeight), 42.0f);
    EXPECT_EQ(spb->GetFloat(kCropSize, 0, 1), 100.0f);
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
    pb->SetValue(kRandomSegmentCount, 0, 3, 0);
    pb->SetValue(kRandomSegmentCount, 0, 5, 1);
    pb->SetValue(kShift, 0, -2.5f);
    pb->SetValue(kDummySize, 0, 7.0f);
    pb->SetValue(kPatternOn, 0, 0);
    pb->SetValue(kPatternSource, 0, kSourceFile);

    obj->ObjectValidity(320);
    EXPECT_EQ(obj->cropTransform(), crop);
    EXPECT_EQ(obj->cropSize(), mq::Point3(11, 22, 33));
    EXPECT_EQ(obj->segmentCounts()[0], 3);
    EXPECT_EQ(obj->segmentCounts()[1], 5);
    EXPECT_EQ(obj->shift(), -2.5f);
    EXPECT_EQ(obj->dummySize(), 7.0f);
    EXPECT_EQ(obj->patternEnabled(), 0);
    EXPECT_EQ(obj->patternSource(), kSourceFile);
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

    // A deleted node reads as none.
    node->detach().reset();
    obj->ObjectValidity(0);
    EXPECT_EQ(obj->patternNode(), nullptr);
}

TEST(MosaiqEditing, OpensAndClosesRolloutsAboutPageAndCropModes) {
    struct OtherMode : mq::CommandMode {
        const char* name() const override { return "Other"; }
    } other;
    mq::HostInterface ip;
    const int otherPage = ip.AddRollupPage(999, "Other", nullptr);
    ip.AddCommandMode(&other);

    MosaiqPtr obj = newMosaiq();
    obj->BeginEditParams(&ip, 0, nullptr);
    EXPECT_EQ(Mosaiq::editInterface(), &ip);
    std::vector<std::string> titles;
    for (const mq::RollupPage& p : ip.rollupPages()) titles.push_back(p.title);
    EXPECT_EQ(titles, (std::vector<std::string>{"Other", "Base Parameters", "Surface", "Preview",
                                                "About"}));
    const mq::RollupPage* about = ip.findRollupPage(obj->aboutPage());
    ASSERT_NE(about, nullptr);
    EXPECT_EQ(about->flags, mq::APPENDROLL_CLOSED);
    EXPECT_TRUE(about->registered);
    ASSERT_EQ(about->controlTexts.size(), 1u);
    EXPECT_EQ(about->controlTexts[0].second, aboutText());
    EXPECT_EQ(aboutText().rfind("Mosaiq 1.68\n\n", 0), 0u);
    // Move, rotate, uniform scale, non-uniform scale and squash of the crop box.
    ASSERT_EQ(ip.commandModes().size(), 6u);
    EXPECT_NE(dynamic_cast<MoveModBoxCMode*>(ip.commandModes()[1]), nullptr);
    EXPECT_NE(dynamic_cast<SquashModBoxCMode*>(ip.commandModes()[5]), nullptr);
    for (size_t i = 1; i < 6; ++i) {
        auto* crop = dynamic_cast<CropBoxCMode*>(ip.commandModes()[i]);
        ASSERT_NE(crop, nullptr);
        EXPECT_TRUE(crop->object() == obj.get() && crop->ip() == &ip);
    }

    // Ending removes what beginning added, and only that.
    obj->EndEditParams(&ip, 0, nullptr);
    ASSERT_EQ(ip.rollupPages().size(), 1u);
    EXPECT_EQ(ip.rollupPages()[0].id, otherPage);
    EXPECT_EQ(ip.commandModes(), std::vector<mq::CommandMode*>{&other});
    EXPECT_EQ(obj->aboutPage(), 0);
    EXPECT_EQ(Mosaiq::editInterface(), nullptr);
}

}  // namespace
