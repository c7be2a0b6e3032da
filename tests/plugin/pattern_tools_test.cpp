// The pattern tools a Mosaiq object hands out through GetInterface: what a
// host sees of the crop-box operations and the captured tile.
#include "host/pattern_tools.h"
#include "engine/octree.h"
#include "engine/tile.h"
#include "host/hold.h"
#include "host/interface.h"
#include "host/node.h"
#include "object/mosaiq.h"
#include "plugin/classdesc.h"
#include "plugin/params.h"

#include <gtest/gtest.h>

#include <unistd.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>

namespace {

namespace fs = std::filesystem;
using namespace mosaiq;
using mq::Point3;

struct DeleteThis {
    void operator()(mq::Animatable* a) const { a->DeleteThis(); }
};
using MosaiqPtr = std::unique_ptr<Mosaiq, DeleteThis>;

MosaiqPtr newMosaiq() {
    return MosaiqPtr(
        dynamic_cast<Mosaiq*>(static_cast<mq::Object*>(GetMosaiqDesc().Create(false))));
}

mq::IPatternTools* toolsOf(mq::Object& obj) {
    return static_cast<mq::IPatternTools*>(obj.GetInterface(mq::kPatternToolsInterfaceId));
}

// A wavy n x n grid over (0..n, 0..n), enough faces for a tree of some depth.
constexpr int kGrid = 12;
std::string gridObj() {
    std::ostringstream text;
    text << "o grid\n";
    for (int y = 0; y <= kGrid; ++y)
        for (int x = 0; x <= kGrid; ++x)
            text << "v " << x << " " << (x * y) % 3 << " " << -y << "\n";  // Y-up
    for (int y = 0; y < kGrid; ++y)
        for (int x = 0; x < kGrid; ++x) {
            const int a = y * (kGrid + 1) + x + 1;
            text << "f " << a << " " << a + 1 << " " << a + kGrid + 2 << " " << a + kGrid + 1
                 << "\n";
        }
    return text.str();
}

class PatternTools : public ::testing::Test {
protected:
    void SetUp() override {
        mq::theHold.Reset();
        dir_ = fs::temp_directory_path() /
               ("mq_tools_" + std::to_string(getpid()) + "_" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::create_directories(dir_);
        gridFile_ = (dir_ / "grid.obj").string();
        std::ofstream(gridFile_) << gridObj();
        // The same grid as a scene node, through the host's own merge.
        ASSERT_TRUE(ip_.MergeFromFile(gridFile_, true));
        gridNode_ = ip_.GetRootNode()->GetChildNode(0);
        gridNode_->setLocalTM(mq::RotateZMatrix(0.3f) * mq::TransMatrix({4, 5, 6}));
        obj_ = newMosaiq();
        pb_ = obj_->GetParamBlock(0);
        tools_ = toolsOf(*obj_);
        ASSERT_NE(tools_, nullptr);
    }
    void TearDown() override {
        mq::theHold.Reset();
        fs::remove_all(dir_);
    }

    void setCropBox(const Point3& size, const mq::Matrix3& tm) {
        for (int i = 0; i < 3; ++i) pb_->SetValue(kCropSize, 0, size[i], i);
        pb_->SetValue(kCropTransform, 0, tm);
    }

    fs::path dir_;
    std::string gridFile_;
    mq::HostInterface ip_;
    mq::Node* gridNode_ = nullptr;
    MosaiqPtr obj_;
    mq::ParamBlock* pb_ = nullptr;
    mq::IPatternTools* tools_ = nullptr;
};

TEST_F(PatternTools, HandedOutForItsIdOnlyOnePerObject) {
    EXPECT_EQ(toolsOf(*obj_), tools_);
    EXPECT_NE(obj_->GetInterface(0x20122002), static_cast<void*>(tools_));
    EXPECT_EQ(obj_->GetInterface(0), nullptr);
    MosaiqPtr other = newMosaiq();
    EXPECT_NE(toolsOf(*other), tools_);
    // A plain mesh offers none.
    EXPECT_EQ(gridNode_->GetObjectRef()->GetInterface(mq::kPatternToolsInterfaceId), nullptr);
}

TEST_F(PatternTools, TileStatsMatchADirectCapture) {
    pb_->setRawValue(kPattern, 0, mq::NodeRef{gridNode_->GetHandle()});
    pb_->SetValue(kRandomSegmentCount, 0, 2, 0);
    pb_->SetValue(kRandomSegmentCount, 0, 3, 1);
    setCropBox({6, 4, 2}, mq::RotateZMatrix(0.5f) * mq::TransMatrix({3, 3, 1}));
    for (const int source : {kSourceScene, kSourceFile}) {
        SCOPED_TRACE(source);
        pb_->SetValue(kPatternSource, 0, source);
        pb_->SetValue(kPatternFile, 0, gridFile_);
        if (source == kSourceFile) {
            ASSERT_TRUE(obj_->loadPatternFile()) << obj_->lastPatternError();
        }

        mq::TileStats stats;
        std::string error;
        ASSERT_TRUE(tools_->tileStats(0, stats, error)) << error;
        EXPECT_EQ(ip_.GetRootNode()->NumberOfChildren(), 1) << "the merge is undone";

        mq::PatternTile tile;
        ASSERT_TRUE(tile.capture(pb_, 0));
        EXPECT_EQ(stats.faceCount, 2 * kGrid * kGrid);
        EXPECT_EQ(stats.faceCount, tile.faceCount);
        EXPECT_EQ(stats.vertexCount, tile.vertexCount);
        EXPECT_EQ(stats.segmentCountU, 2);
        EXPECT_EQ(stats.segmentCountV, 3);
        EXPECT_EQ(stats.segmentSize, tile.segmentSize);
        EXPECT_EQ(stats.cropSize, Point3(6, 4, 2));
        EXPECT_EQ(stats.octreeMin, tile.tree->box.pmin);
        EXPECT_EQ(stats.octreeMax, tile.tree->box.pmax);
        const mq::OctreeStats tree = mq::octreeStats(tile.tree.get());
        EXPECT_GE(tree.depth, 2);
        EXPECT_EQ(stats.octreeDepth, tree.depth);
        EXPECT_EQ(stats.octreeNodes, tree.nodes);
        EXPECT_EQ(stats.octreeLeaves, tree.leaves);
        EXPECT_EQ(stats.largestLeaf, tree.largestLeaf);
        // Both sources sample the grid in its own object space.
        ASSERT_TRUE(stats.pointCloudValid);
        EXPECT_EQ(stats.pointCloudBox.pmin, Point3(0, 0, 0));
        EXPECT_EQ(stats.pointCloudBox.pmax, Point3(kGrid, kGrid, 2));
    }
}

TEST_F(PatternTools, FailuresNameTheCauseAndLeaveTheCropBox) {
    const mq::Matrix3 tm = mq::RotateXMatrix(0.4f) * mq::TransMatrix({1, 2, 3});
    setCropBox({7, 8, 9}, tm);
    const std::string missing = (dir_ / "missing.obj").string();
    struct Case {
        int source;
        std::string file;
        std::string mention;
    };
    for (const Case& c :
         {Case{kSourceScene, "", "\"Pattern\""}, Case{kSourceFile, missing, missing},
          Case{kSourceFile, "/", "\"/\" is a folder"}}) {
        SCOPED_TRACE(c.mention);
        pb_->SetValue(kPatternSource, 0, c.source);
        pb_->SetValue(kPatternFile, 0, c.file);
        std::string error;
        mq::TileStats stats;
        EXPECT_FALSE(tools_->tileStats(0, stats, error));
        EXPECT_NE(error.find(c.mention), std::string::npos) << error;
        for (bool fit : {false, true}) {
            error.clear();
            EXPECT_FALSE(fit ? tools_->fitCropBox(error) : tools_->resetCropBox(error));
            EXPECT_NE(error.find(c.mention), std::string::npos) << error;
        }
        EXPECT_EQ(pb_->GetMatrix3(kCropTransform), tm);
        EXPECT_EQ(pb_->GetFloat(kCropSize, 0, 2), 9.0f);
        EXPECT_EQ(ip_.GetRootNode()->NumberOfChildren(), 1);
    }

    // A file pattern not loaded yet is loaded by the operation itself.
    pb_->SetValue(kPatternFile, 0, gridFile_);
    ASSERT_FALSE(obj_->patternStore().valid);
    std::string error;
    ASSERT_TRUE(tools_->resetCropBox(error)) << error;
    EXPECT_TRUE(obj_->patternStore().valid);
    EXPECT_EQ(pb_->GetFloat(kCropSize, 0, 0), float(kGrid));
    EXPECT_EQ(pb_->GetMatrix3(kCropTransform).GetTrans(), Point3(kGrid / 2.0f, kGrid / 2.0f, 1));
}

}  // namespace
