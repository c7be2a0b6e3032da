// The Mosaiq object: references, life cycle, working copy, loading and editing.
#include "host/interface.h"
#include "host/node.h"
#include "object/cropmodes.h"
#include "object/mosaiq.h"
#include "plugin/about.h"
#include "plugin/classdesc.h"
#include "plugin/params.h"

#include <gtest/gtest.h>

#include <memory>
#include <numbers>
#include <vector>

namespace {

using namespace mosaiq;
using mq::ParamBlock;

struct DeleteThis {
    void operator()(mq::Animatable* a) const {
        if (a) a->DeleteThis();
    }
};
using MosaiqPtr = std::unique_ptr<Mosaiq, DeleteThis>;

MosaiqPtr newMosaiq() {
    return MosaiqPtr(
        dynamic_cast<Mosaiq*>(static_cast<mq::Object*>(GetMosaiqDesc().Create(false))));
}

TEST(MosaiqReferences, TheBlockIsTheOnlyReferenceWhateverTheIndex) {
    MosaiqPtr obj = newMosaiq();
    ASSERT_NE(obj, nullptr);
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
    EXPECT_EQ(obj->GetParamBlockByID(0), pb);
    EXPECT_EQ(obj->GetParamBlockByID(1), nullptr);
    EXPECT_EQ(obj->GetParamBlockByID(static_cast<mq::BlockID>(0x10000)), pb);  // wraps to 0
    obj->SetReference(7, nullptr);
    EXPECT_EQ(obj->GetReference(0), nullptr);
    obj->SetReference(3, pb);
    EXPECT_EQ(obj->GetReference(0), pb);
}

TEST(MosaiqObject, OffersNoConversionNoHostGeometryNoRenderObjectYet) {
    MosaiqPtr obj = newMosaiq();
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

    EXPECT_FALSE(obj->renderReady());
    EXPECT_EQ(obj->GetInterface(0x20122002), nullptr);
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
    ASSERT_NE(cpb, nullptr);
    ASSERT_NE(cpb, spb);
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

TEST(MosaiqValidity, HoldsForTheInstantOnly) {
    MosaiqPtr obj = newMosaiq();
    for (mq::TimeValue t : {0, 1, 4800, -160})
        EXPECT_EQ(obj->ObjectValidity(t), mq::Interval(t, t));
}

TEST(MosaiqValidity, RefreshesTheWorkingCopyFromTheBlock) {
    MosaiqPtr obj = newMosaiq();
    EXPECT_EQ(obj->cropSize(), mq::Point3(20, 10, 10));  // until the first evaluation

    ParamBlock* pb = obj->GetParamBlock(0);
    const mq::Matrix3 crop = mq::RotateZMatrix(0.5f) * mq::TransMatrix({4, 5, 6});
    pb->SetValue(kCropTransform, 0, crop);
    pb->SetValue(kCropSize, 0, 11.0f, 0);
    pb->SetValue(kCropSize, 0, 22.0f, 1);
    pb->SetValue(kCropSize, 0, 33.0f, 2);
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

TEST(MosaiqValidity, PatternNodeTransformIsItsWorldPositionOnly) {
    mq::Node parent("parent");
    mq::Node* node = parent.attachChild(std::make_unique<mq::Node>("pattern"));
    parent.setLocalTM(mq::TransMatrix({100, 0, 0}));
    node->setLocalTM(mq::ScaleMatrix({2, 3, 4}) * mq::RotateXMatrix(std::numbers::pi_v<float> / 3) *
                     mq::TransMatrix({1, 2, 3}));

    MosaiqPtr obj = newMosaiq();
    ParamBlock* pb = obj->GetParamBlock(0);
    pb->SetValue(kPattern, 0, node);
    obj->ObjectValidity(0);
    EXPECT_EQ(obj->patternNode(), node);
    const mq::Matrix3& tm = obj->patternNodeTM();
    EXPECT_EQ(tm.GetRow(0), mq::Point3(1, 0, 0));
    EXPECT_EQ(tm.GetRow(1), mq::Point3(0, 1, 0));
    EXPECT_EQ(tm.GetRow(2), mq::Point3(0, 0, 1));
    EXPECT_EQ(tm.GetTrans(), mq::Point3(101, 2, 3));
}

TEST(MosaiqValidity, PatternNodeIsReadOnlyForAScenePattern) {
    auto node = std::make_unique<mq::Node>("pattern");
    MosaiqPtr obj = newMosaiq();
    ParamBlock* pb = obj->GetParamBlock(0);
    pb->SetValue(kPatternSource, 0, kSourceFile);
    // Written past the accessor, as a loaded scene or an undo does.
    pb->setRawValue(kPattern, 0, mq::NodeRef{node->GetHandle()});
    obj->ObjectValidity(0);
    EXPECT_EQ(obj->patternNode(), nullptr);

    pb->SetValue(kPatternSource, 0, kSourceScene);
    obj->ObjectValidity(0);
    EXPECT_EQ(obj->patternNode(), node.get());

    // A deleted node reads as none; the transform keeps its last position.
    node.reset();
    obj->ObjectValidity(0);
    EXPECT_EQ(obj->patternNode(), nullptr);
}

TEST(MosaiqValidity, RefreshesTheSurfaceThenTheBaseRollout) {
    std::vector<int> updated;  // map ids in call order
    struct Recorder : mq::ParamMap2UserDlgProc {
        Recorder(std::vector<int>& log, int map) : log(log), map(map) {}
        void Update(mq::TimeValue t) override { log.push_back(map); }
        std::vector<int>& log;
        int map;
    } base(updated, kBaseMap), surface(updated, kSurfaceMap), preview(updated, kPreviewMap);
    mq::ParamBlockDesc& pbd = patternPBDesc();
    pbd.SetUserDlgProc(kBaseMap, &base);
    pbd.SetUserDlgProc(kSurfaceMap, &surface);
    pbd.SetUserDlgProc(kPreviewMap, &preview);
    MosaiqPtr obj = newMosaiq();
    obj->ObjectValidity(480);
    for (mq::MapID map : {kBaseMap, kSurfaceMap, kPreviewMap}) pbd.SetUserDlgProc(map, nullptr);
    EXPECT_EQ(updated, (std::vector<int>{kSurfaceMap, kBaseMap}));
}

TEST(MosaiqLoad, SavesNothingAndReloadsOnlyAFilePattern) {
    for (int source : {kSourceScene, kSourceFile}) {
        SCOPED_TRACE(source);
        MosaiqPtr obj = newMosaiq();
        obj->GetParamBlock(0)->SetValue(kPatternSource, 0, source);
        mq::ISave isave;
        EXPECT_EQ(obj->Save(&isave), mq::IO_OK);
        mq::ILoad iload;
        EXPECT_EQ(obj->Load(&iload), mq::IO_OK);
        EXPECT_EQ(obj->loadPatternFileCalls(), 0) << "not before the scene is loaded";
        iload.runPostLoadCallbacks();
        EXPECT_EQ(obj->loadPatternFileCalls(), source == kSourceFile ? 1 : 0);
        iload.runPostLoadCallbacks();  // the callback freed itself: nothing runs twice
        EXPECT_EQ(obj->loadPatternFileCalls(), source == kSourceFile ? 1 : 0);
        obj->Load(&iload);  // never run: the loader frees it (checked under ASan)
    }
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

    std::vector<int> dialogs;
    std::vector<std::string> titles;
    for (const mq::RollupPage& p : ip.rollupPages()) {
        dialogs.push_back(p.dialogResource);
        titles.push_back(p.title);
    }
    EXPECT_EQ(dialogs, (std::vector<int>{999, 114, 147, 146, 116}));
    EXPECT_EQ(titles, (std::vector<std::string>{"Other", "Base Parameters", "Surface", "Preview",
                                                "About"}));

    const mq::RollupPage* about = ip.findRollupPage(obj->aboutPage());
    ASSERT_NE(about, nullptr);
    EXPECT_EQ(about->dialogResource, 116);
    EXPECT_EQ(about->title, "About");
    EXPECT_EQ(about->flags, mq::APPENDROLL_CLOSED);
    EXPECT_EQ(about->category, 4000);
    EXPECT_TRUE(about->registered);
    ASSERT_EQ(about->controlTexts.size(), 1u);
    EXPECT_EQ(about->controlTexts[0].first, 1113);
    EXPECT_EQ(about->controlTexts[0].second, aboutText());
    EXPECT_EQ(aboutText().rfind("Mosaiq 1.68\n\n", 0), 0u);

    const std::vector<mq::CommandMode*> modes(ip.commandModes().begin() + 1,
                                              ip.commandModes().end());
    ASSERT_EQ(modes.size(), 5u);
    EXPECT_NE(dynamic_cast<MoveModBoxCMode*>(modes[0]), nullptr);
    EXPECT_NE(dynamic_cast<RotateModBoxCMode*>(modes[1]), nullptr);
    EXPECT_NE(dynamic_cast<UScaleModBoxCMode*>(modes[2]), nullptr);
    EXPECT_NE(dynamic_cast<NUScaleModBoxCMode*>(modes[3]), nullptr);
    EXPECT_NE(dynamic_cast<SquashModBoxCMode*>(modes[4]), nullptr);
    for (mq::CommandMode* m : modes) {
        auto* crop = dynamic_cast<CropBoxCMode*>(m);
        ASSERT_NE(crop, nullptr);
        EXPECT_EQ(crop->object(), obj.get());
        EXPECT_EQ(crop->ip(), &ip);
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
