// The parameter block: saved ids, defaults, ranges, control bindings, the
// "Pattern" accessor and undo of parameter changes.
#include "plugin/params.h"

#include "host/hold.h"
#include "host/node.h"
#include "plugin/entry.h"
#include "support/mosaiq_test.h"

#include <gtest/gtest.h>

#include <map>

namespace {

using namespace mosaiq;
using mosaiq::test::MosaiqPtr;
using mosaiq::test::newMosaiq;
using mq::ParamBlock;

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
    EXPECT_EQ(d.ID, 0);
    EXPECT_EQ(d.int_name, "parameters");
    ASSERT_EQ(d.Count(), static_cast<int>(saved.size()));
    for (const auto& [id, name] : saved) {
        const mq::ParamDef* def = d.findByName(name);
        ASSERT_NE(def, nullptr) << name;
        EXPECT_EQ(def->id, id) << name;
        EXPECT_EQ(def->flags, 0u) << name << " must not be animatable";
    }
    EXPECT_EQ(d.GetParamDef(2), nullptr);

    MosaiqPtr obj = newMosaiq();
    ParamBlock* pb = obj->GetParamBlock(0);
    int i = 0;
    mq::Interval valid;
    EXPECT_FALSE(pb->GetValue(2, 0, i, valid));
    EXPECT_FALSE(pb->SetValue(2, 0, 1));
    EXPECT_FALSE(pb->assignFromScript(2, 0, 1).ok);
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

TEST(PatternBlock, ScriptingClampsIntoRangeWithWarning) {
    // A value typed at the scripting entry and what the block keeps of it.
    const struct {
        mq::ParamID id;
        int tabIndex;
        mq::ParamValue typed, kept;
    } cases[] = {
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
    for (const auto& c : cases) {
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

// Control bindings, as InitParamBlockUI leaves them and ClearParamBlockUI restores them.
TEST(ControlBindings, EveryParameterButTheCropTransformHasItsOwnControls) {
    InitParamBlockUI(&patternPBDesc());
    std::map<int, std::map<int, std::string>> used;  // map -> control -> parameter
    std::map<int, std::vector<int>> bound;
    for (const mq::ParamDef& def : patternPBDesc().params()) {
        // The crop transform is changed only by the crop-box operations.
        ASSERT_EQ(def.ui.has_value(), def.id != kCropTransform) << def.internalName;
        if (!def.ui) continue;
        bound[def.id] = def.ui->controls;
        if (def.ui->control == mq::TYPE_SPINNER) {  // an edit box and a spinner per element
            EXPECT_EQ(def.ui->controls.size(), 2u * def.count()) << def.internalName;
        }
        for (int control : def.ui->controls) {
            auto [it, fresh] = used[def.ui->map].emplace(control, def.internalName);
            EXPECT_TRUE(fresh) << control << " in map " << def.ui->map << " serves " << it->second
                               << " and " << def.internalName;
        }
    }
    ClearParamBlockUI(&patternPBDesc());
    for (const mq::ParamDef& def : patternPBDesc().params()) {
        ASSERT_EQ(def.ui.has_value(), bound.count(def.id) == 1) << def.internalName;
        if (def.ui) {
            EXPECT_EQ(def.ui->controls, bound[def.id]) << def.internalName;
        }
    }
}

}  // namespace
