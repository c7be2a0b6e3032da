// The parameter block: its descriptor, defaults, ranges, control bindings,
// the "Pattern" accessor and undo of parameter changes.
#include "plugin/params.h"
#include "host/hold.h"
#include "host/node.h"
#include "object/mosaiq.h"
#include "plugin/classdesc.h"
#include "plugin/entry.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>

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

TEST(PatternBlockDesc, ShapeAndRollouts) {
    const mq::ParamBlockDesc& d = patternPBDesc();
    EXPECT_EQ(d.ID, 0);
    EXPECT_EQ(d.int_name, "parameters");
    EXPECT_EQ(d.local_name, 0);
    EXPECT_EQ(d.cd, &GetMosaiqDesc());
    EXPECT_EQ(d.flags, 0x26u);
    EXPECT_EQ(d.ref_no, 0);
    ASSERT_EQ(d.maps.size(), 3u);
    const int expected[3][3] = {{0, 114, 4}, {1, 147, 36}, {2, 146, 5}};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(d.maps[i].id, expected[i][0]);
        EXPECT_EQ(d.maps[i].dialogResource, expected[i][1]);
        EXPECT_EQ(d.maps[i].titleStringId, expected[i][2]);
        EXPECT_EQ(d.maps[i].flags, 0u);
    }
}

TEST(PatternBlockDesc, SavedIdsAndNamesAndNoParameterTwo) {
    // Ids and names are what saved scenes and scripts hold: they never move.
    const std::map<int, std::string> saved = {
        {0, "Pattern_On"},      {17, "Pattern_Source"}, {1, "Pattern"},
        {18, "Pattern_File"},   {3, "Crop_Size"},       {6, "Crop_Transfrom"},
        {4, "Height"},          {5, "Shift"},           {7, "Use_Surface_Mapping"},
        {8, "Surface"},         {9, "Map_Channel"},     {16, "Real_World_Scale"},
        {10, "Tiling"},         {11, "Poli_ID"},        {12, "Random_Segment_Count"},
        {13, "UV_Random_Seed"}, {14, "Dummy_Size"},     {15, "Texture_Size"}};
    const mq::ParamBlockDesc& d = patternPBDesc();
    ASSERT_EQ(d.Count(), static_cast<int>(saved.size()));
    for (const auto& [id, name] : saved) {
        const mq::ParamDef* def = d.findByName(name);
        ASSERT_NE(def, nullptr) << name;
        EXPECT_EQ(def->id, id) << name;
        EXPECT_EQ(def->flags, 0u) << name << " must not be animatable";
    }
    EXPECT_EQ(d.GetParamDef(2), nullptr);
    // Declaration order is kept: the first three are the pattern switch, source and node.
    EXPECT_EQ(d.params()[0].id, 0);
    EXPECT_EQ(d.params()[1].id, 17);
    EXPECT_EQ(d.params()[2].id, 1);
}

TEST(PatternBlock, NewObjectDefaults) {
    MosaiqPtr obj = newMosaiq();
    ParamBlock* pb = obj->GetParamBlock(0);
    ASSERT_NE(pb, nullptr);
    EXPECT_EQ(pb->GetInt(kPatternOn), 1);
    EXPECT_EQ(pb->GetInt(kPatternSource), 0);
    EXPECT_EQ(pb->GetINode(kPattern), nullptr);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(pb->GetFloat(kCropSize, 0, i), 100.0f);
    EXPECT_EQ(pb->GetFloat(kHeight), 100.0f);
    EXPECT_EQ(pb->GetFloat(kShift), 0.0f);
    EXPECT_EQ(pb->GetInt(kUseSurfaceMapping), 1);
    EXPECT_EQ(pb->GetINode(kSurface), nullptr);
    EXPECT_EQ(pb->GetInt(kMapChannel), 1);
    EXPECT_EQ(pb->GetInt(kRealWorldScale), 0);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(pb->GetFloat(kTiling, 0, i), 1.0f);
        EXPECT_EQ(pb->GetInt(kPoliId, 0, i), 1);
        EXPECT_EQ(pb->GetInt(kRandomSegmentCount, 0, i), 1);
    }
    EXPECT_EQ(pb->GetInt(kUvRandomSeed), 42);
    EXPECT_EQ(pb->GetFloat(kDummySize), 1.0f);
    EXPECT_EQ(pb->GetInt(kTextureSize), 256);
    // Set by the constructor rather than the table.
    EXPECT_TRUE(pb->GetMatrix3(kCropTransform).IsIdentity());
    EXPECT_EQ(pb->GetStr(kPatternFile), "/");
    EXPECT_EQ(std::get<std::string>(patternPBDesc().GetParamDef(kPatternFile)->defaultValue), "");
}

// A value typed at the scripting entry and what the block keeps of it.
struct ScriptCase {
    mq::ParamID id;
    int tabIndex;
    mq::ParamValue typed;
    mq::ParamValue kept;
};

TEST(PatternBlock, ScriptingClampsIntoRangeWithWarning) {
    const ScriptCase cases[] = {
        {kTextureSize, 0, 3, 4},
        {kTextureSize, 0, 4096, 2048},
        {kMapChannel, 0, 0, 1},
        {kShift, 0, -200000.0f, -100000.0f},
        {kCropSize, 1, 0.0f, 1e-7f},
        {kHeight, 0, 0.0f, 0.01f},
        {kTiling, 1, 0.0f, 0.0001f},
        {kPoliId, 0, 200000, 100000},
        {kRandomSegmentCount, 1, 1001, 1000},
        {kUvRandomSeed, 0, -1, 0},
        {kDummySize, 0, 0.0f, 0.001f},
    };
    MosaiqPtr obj = newMosaiq();
    ParamBlock* pb = obj->GetParamBlock(0);
    for (const ScriptCase& c : cases) {
        const std::string name = patternPBDesc().GetParamDef(c.id)->internalName;
        SCOPED_TRACE(name + "[" + std::to_string(c.tabIndex) +
                     "] = " + mq::formatParamValue(c.typed));
        const ParamBlock::ScriptResult r = pb->assignFromScript(c.id, c.tabIndex, c.typed);
        EXPECT_TRUE(r.ok) << r.message;
        EXPECT_NE(r.message.find(name), std::string::npos) << r.message;
        const mq::ParamValue* kept = pb->rawValue(c.id, c.tabIndex);
        ASSERT_NE(kept, nullptr);
        EXPECT_EQ(*kept, c.kept) << mq::formatParamValue(*kept);
    }
}

TEST(PatternBlock, ParameterTwoDoesNotExist) {
    MosaiqPtr obj = newMosaiq();
    ParamBlock* pb = obj->GetParamBlock(0);
    int i = 0;
    mq::Interval valid;
    EXPECT_FALSE(pb->GetValue(2, 0, i, valid));
    EXPECT_FALSE(pb->SetValue(2, 0, 1));
    EXPECT_FALSE(pb->assignFromScript(2, 0, 1).ok);
}

TEST(PatternBlock, ChangesUndoAndRedoAsOneStep) {
    mq::theHold.Reset();
    MosaiqPtr obj = newMosaiq();
    ParamBlock* pb = obj->GetParamBlock(0);

    mq::theHold.Begin();
    pb->SetValue(kHeight, 0, 50.0f);
    pb->SetValue(kCropSize, 0, 5.0f, 2);
    pb->SetValue(kPatternFile, 0, "/tiles/brick.glb");
    mq::theHold.Accept("Edit Pattern");
    EXPECT_EQ(mq::theHold.undoName(), "Edit Pattern");

    ASSERT_TRUE(mq::theHold.Undo());
    EXPECT_EQ(pb->GetFloat(kHeight), 100.0f);
    EXPECT_EQ(pb->GetFloat(kCropSize, 0, 2), 100.0f);
    EXPECT_EQ(pb->GetStr(kPatternFile), "/");

    ASSERT_TRUE(mq::theHold.Redo());
    EXPECT_EQ(pb->GetFloat(kHeight), 50.0f);
    EXPECT_EQ(pb->GetFloat(kCropSize, 0, 2), 5.0f);
    EXPECT_EQ(pb->GetStr(kPatternFile), "/tiles/brick.glb");
    mq::theHold.Reset();
}

TEST(PatternBlock, UndoingAPickRestoresTheNodeAtTheNextEvaluation) {
    mq::theHold.Reset();
    mq::Node first("first"), second("second");
    MosaiqPtr obj = newMosaiq();
    ParamBlock* pb = obj->GetParamBlock(0);
    pb->SetValue(kPattern, 0, &first);

    mq::theHold.Begin();
    pb->SetValue(kPattern, 0, &second);
    mq::theHold.Accept("Pick Pattern");
    EXPECT_EQ(obj->patternNode(), &second);

    // Undo writes the block directly, past the accessor; the evaluation catches up.
    ASSERT_TRUE(mq::theHold.Undo());
    EXPECT_EQ(pb->GetINode(kPattern), &first);
    obj->ObjectValidity(0);
    EXPECT_EQ(obj->patternNode(), &first);
    mq::theHold.Reset();
}

TEST(PatternPBAccessor, PickStoresTheNodeInTheOwnerOnly) {
    mq::Node node("pattern");
    MosaiqPtr obj = newMosaiq();
    ParamBlock* pb = obj->GetParamBlock(0);
    ASSERT_TRUE(pb->SetValue(kSurface, 0, &node));
    EXPECT_EQ(obj->patternNode(), nullptr);
    ASSERT_TRUE(pb->SetValue(kPattern, 0, &node));
    EXPECT_EQ(obj->patternNode(), &node);
    ASSERT_TRUE(pb->SetValue(kPattern, 0, static_cast<mq::Node*>(nullptr)));
    EXPECT_EQ(obj->patternNode(), nullptr);

    PatternPBAccessor accessor;
    mq::ParamValue v = mq::NodeRef{node.GetHandle()};
    accessor.Set(v, obj.get(), kSurface, 0, 0);
    accessor.Set(v, nullptr, kPattern, 0, 0);  // no owner
    accessor.Set(v, pb, kPattern, 0, 0);       // not a Mosaiq
    EXPECT_EQ(obj->patternNode(), nullptr);
}

// Control bindings, as InitParamBlockUI leaves them.
class ControlBindings : public ::testing::Test {
protected:
    void SetUp() override { InitParamBlockUI(&patternPBDesc()); }
    const mq::ParamUIBinding& ui(mq::ParamID id) {
        const mq::ParamDef* def = patternPBDesc().GetParamDef(id);
        EXPECT_NE(def, nullptr);
        EXPECT_TRUE(def->ui.has_value()) << def->internalName;
        return *def->ui;
    }
};

TEST_F(ControlBindings, EveryParameterButTheCropTransformHasAControl) {
    for (const mq::ParamDef& def : patternPBDesc().params()) {
        if (def.id == kCropTransform)
            EXPECT_FALSE(def.ui.has_value()) << "changed only by the crop-box operations";
        else
            EXPECT_TRUE(def.ui.has_value()) << def.internalName;
    }
}

TEST_F(ControlBindings, NoControlServesTwoParametersOfOneRollout) {
    std::map<int, std::map<int, std::string>> used;  // map -> control -> parameter
    for (const mq::ParamDef& def : patternPBDesc().params()) {
        if (!def.ui) continue;
        for (int control : def.ui->controls) {
            auto [it, fresh] = used[def.ui->map].emplace(control, def.internalName);
            EXPECT_TRUE(fresh) << control << " in map " << def.ui->map << " serves " << it->second
                               << " and " << def.internalName;
        }
    }
}

TEST_F(ControlBindings, SpinnersPairEveryElementAndEditTheRightUnits) {
    for (const mq::ParamDef& def : patternPBDesc().params()) {
        if (!def.ui || def.ui->control != mq::TYPE_SPINNER) continue;
        SCOPED_TRACE(def.internalName);
        EXPECT_TRUE(def.ui->autoScale);
        EXPECT_EQ(def.ui->controls.size(), 2u * def.count());
        // "Height" is a percentage typed as a world value: its spinner edits a plain float.
        const mq::EditSpinnerType units = def.type == mq::TYPE_INT ? mq::EDITTYPE_INT
                                          : def.type == mq::TYPE_WORLD && def.id != kHeight
                                              ? mq::EDITTYPE_UNIVERSE
                                              : mq::EDITTYPE_FLOAT;
        EXPECT_EQ(def.ui->spinnerType, units);
    }
}

TEST_F(ControlBindings, NodePicksAndSourceButtons) {
    EXPECT_EQ(ui(kPattern).control, 7);  // the host's node pick button
    EXPECT_EQ(ui(kSurface).control, mq::TYPE_PICKNODEBUTTON);
    EXPECT_EQ(ui(kSurface).map, kSurfaceMap);
    EXPECT_EQ(ui(kPatternSource).radioValues, (std::vector<int>{kSourceScene, kSourceFile}));
    EXPECT_EQ(ui(kPatternSource).labels, "From Scene\nFrom File");
}

TEST_F(ControlBindings, ClearingRebindsTheSameControls) {
    std::map<int, std::vector<int>> before;
    for (const mq::ParamDef& def : patternPBDesc().params())
        if (def.ui) before[def.id] = def.ui->controls;
    ClearParamBlockUI(&patternPBDesc());
    for (const mq::ParamDef& def : patternPBDesc().params()) {
        ASSERT_EQ(def.ui.has_value(), before.count(def.id) == 1) << def.internalName;
        if (def.ui) {
            EXPECT_EQ(def.ui->controls, before[def.id]) << def.internalName;
        }
    }
}

}  // namespace
