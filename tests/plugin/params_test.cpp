// The parameter block: clamping at the scripting entry, the "Pattern"
// accessor and undo of a pick.
#include "object/params.h"

#include "host/hold.h"
#include "host/node.h"
#include "support/mosaiq_test.h"

#include <gtest/gtest.h>

namespace {

using namespace mosaiq;
using mosaiq::test::MosaiqPtr;
using mosaiq::test::newMosaiq;
using mq::ParamBlock;

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
    // There is no parameter 2: it fails as any unknown id does.
    int i = 0;
    mq::Interval valid;
    EXPECT_FALSE(pb->GetValue(2, 0, i, valid));
    EXPECT_FALSE(pb->SetValue(2, 0, 1));
    EXPECT_FALSE(pb->assignFromScript(2, 0, 1).ok);
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

}  // namespace
