#include "host/paramblock.h"
#include "host/classdesc.h"
#include "host/hold.h"
#include "host/node.h"

#include <gtest/gtest.h>

namespace mq {
namespace {

ParamBlockDesc makeDesc() {
    ParamBlockDesc desc{0, "parameters", 0, nullptr, P_AUTO_CONSTRUCT, 0};
    desc.addParam({.id = 0, .internalName = "On", .type = TYPE_BOOL, .defaultValue = 1});
    desc.addParam({.id = 1,
                   .internalName = "Count",
                   .type = TYPE_INT,
                   .defaultValue = 8,
                   .rangeMin = 4,
                   .rangeMax = 2048});
    desc.addParam({.id = 3,
                   .internalName = "Size",
                   .type = TYPE_WORLD,
                   .tableSize = 3,
                   .defaultValue = 100.0f,
                   .rangeMin = 1e-7f,
                   .rangeMax = 100000.0f});
    desc.addParam(
        {.id = 4, .internalName = "Target", .type = TYPE_INODE, .defaultValue = NodeRef{}});
    desc.addParam(
        {.id = 5, .internalName = "File", .type = TYPE_FILENAME, .defaultValue = std::string()});
    desc.addParam(
        {.id = 6, .internalName = "Frame", .type = TYPE_MATRIX3, .defaultValue = Matrix3()});
    return desc;
}

// A small block with one parameter of each kind the host stores.
struct Fixture : ::testing::Test {
    Fixture() { theHold.Reset(); }
    ParamBlockDesc desc = makeDesc();
    ParamBlock pb{&desc, nullptr};
};

TEST_F(Fixture, ScriptingEntryClampsAndNamesBothValuesAndRefusesWhatDoesNotFit) {
    auto r = pb.assignFromScript(1, 0, 3);
    EXPECT_TRUE(r.ok);
    EXPECT_EQ(pb.GetInt(1), 4);
    for (const char* part : {"Count", "3", "4"})
        EXPECT_NE(r.message.find(part), std::string::npos) << r.message;
    EXPECT_TRUE(pb.assignFromScript(1, 0, 4096.0f).ok);
    EXPECT_EQ(pb.GetInt(1), 2048);
    EXPECT_TRUE(pb.assignFromScript(3, 2, 0).ok);
    EXPECT_EQ(pb.GetFloat(3, 0, 2), 1e-7f);
    r = pb.assignFromScript(3, 1, 50.5f);
    EXPECT_TRUE(r.ok && r.message.empty()) << "in range: no warning";

    // No parameter 2, an index past the table, the wrong kind, NaN.
    EXPECT_FALSE(pb.assignFromScript(1, 0, 2.5f).ok);
    EXPECT_FALSE(pb.assignFromScript(3, 0, std::nanf("")).ok);
    EXPECT_FALSE(pb.assignFromScript(3, 3, 1.0f).ok);
    EXPECT_FALSE(pb.assignFromScript(2, 0, 1).ok);
    EXPECT_FALSE(pb.assignFromScript(5, 0, 1).ok);
    EXPECT_FALSE(pb.SetValue(1, 0, 2.5f));
    EXPECT_EQ(pb.GetFloat(3, 0, 0), 100.0f) << "refused assignments change nothing";
    float f = -1;
    int wrongKind = 0;
    Interval valid = FOREVER;
    EXPECT_FALSE(pb.GetValue(2, 0, f, valid));
    EXPECT_FALSE(pb.GetValue(3, 0, f, valid, 3));
    EXPECT_FALSE(pb.GetValue(3, 0, wrongKind, valid));
}

TEST_F(Fixture, DeletedNodeReadsAsNone) {
    auto node = std::make_unique<Node>("Pattern");
    ASSERT_TRUE(pb.SetValue(4, 0, node.get()));
    EXPECT_EQ(pb.GetINode(4), node.get());
    node.reset();
    EXPECT_EQ(pb.GetINode(4), nullptr);
}

TEST_F(Fixture, UndoRedoOfNamedHolds) {
    theHold.Begin();
    pb.SetValue(3, 0, 10.0f, 0);
    pb.SetValue(3, 0, 20.0f, 1);
    theHold.Accept("Resize");
    pb.SetValue(1, 0, 16);  // outside any hold: not undoable
    EXPECT_EQ(theHold.undoCount(), 1);
    EXPECT_EQ(theHold.undoName(), "Resize");

    ASSERT_TRUE(theHold.Undo());
    EXPECT_EQ(pb.GetFloat(3, 0, 0), 100.0f);
    EXPECT_EQ(pb.GetFloat(3, 0, 1), 100.0f);
    EXPECT_EQ(pb.GetInt(1), 16);
    EXPECT_FALSE(theHold.Undo());

    ASSERT_TRUE(theHold.Redo());
    EXPECT_EQ(pb.GetFloat(3, 0, 0), 10.0f);
    EXPECT_EQ(pb.GetFloat(3, 0, 1), 20.0f);
    EXPECT_FALSE(theHold.Redo());

    // A new step drops what could be redone.
    theHold.Undo();
    theHold.Begin();
    pb.SetValue(0, 0, 0);
    theHold.Accept("Off");
    EXPECT_EQ(theHold.redoCount(), 0);
}

TEST_F(Fixture, NestedHoldsMakeOneStepAndCancelReverts) {
    theHold.Begin();
    pb.SetValue(1, 0, 10);
    theHold.Begin();
    pb.SetValue(1, 0, 12);
    theHold.Accept("inner");
    theHold.Accept("outer");
    EXPECT_EQ(theHold.undoCount(), 1);
    EXPECT_EQ(theHold.undoName(), "outer");

    theHold.Begin();
    pb.SetValue(1, 0, 99);
    theHold.Cancel();
    EXPECT_EQ(pb.GetInt(1), 12);
    EXPECT_EQ(theHold.undoCount(), 1);
    theHold.Undo();
    EXPECT_EQ(pb.GetInt(1), 8);
}

TEST_F(Fixture, UndoAfterTheBlockIsGoneIsHarmless) {
    auto* owned = new ParamBlock(&desc, nullptr);
    theHold.Begin();
    owned->SetValue(1, 0, 100);
    theHold.Accept("Change");
    owned->DeleteThis();
    EXPECT_TRUE(theHold.Undo());
    EXPECT_TRUE(theHold.Redo());
}

TEST(ParamBlockAccessor, MayRewriteTheValueBeforeItIsStored) {
    struct Rewriting : PBAccessor {
        void Set(ParamValue& v, ReferenceMaker*, ParamID, int, TimeValue) override { v = 7; }
    } acc;
    ParamBlockDesc desc{0, "p", 0, nullptr, 0, 0};
    desc.addParam({.id = 1, .internalName = "N", .type = TYPE_INT, .accessor = &acc});
    ParamBlock pb(&desc, nullptr);
    pb.SetValue(1, 0, 3);
    EXPECT_EQ(pb.GetInt(1), 7);
}

}  // namespace
}  // namespace mq
