// The pattern store (pattern files, picked nodes) and the crop-box operations that read it.
#include "host/hold.h"
#include "host/interface.h"
#include "host/node.h"
#include "host/scenefile.h"
#include "object/params.h"
#include "support/mosaiq_test.h"
#include "support/test_util.h"

#include <functional>
#include <numbers>

namespace {

using namespace mosaiq;
using mosaiq::test::newMosaiq;
using mq::Matrix3;
using mq::Point3;
using mq::test::expectNear;

// The pattern of these tests: a box 10 x 20 x 30 centred at (1, 2, 3).
const Point3 kLo{-4, -8, -12};
const Point3 kHi{6, 12, 18};
const int kQuads[6][4] = {{0, 2, 3, 1}, {4, 5, 7, 6}, {0, 1, 5, 4},
                          {2, 6, 7, 3}, {0, 4, 6, 2}, {1, 3, 7, 5}};

Point3 corner(const Point3& lo, const Point3& hi, int i) {
    return {i & 1 ? hi.x : lo.x, i & 2 ? hi.y : lo.y, i & 4 ? hi.z : lo.z};
}

std::unique_ptr<mq::Node> boxNode(const Matrix3& tm = Matrix3(), Point3 lo = kLo, Point3 hi = kHi) {
    mq::Mesh mesh;
    for (int i = 0; i < 8; ++i) mesh.verts.push_back(corner(lo, hi, i));
    for (const auto& q : kQuads) {
        mesh.faces.push_back({{uint32_t(q[0]), uint32_t(q[1]), uint32_t(q[2])}});
        mesh.faces.push_back({{uint32_t(q[0]), uint32_t(q[2]), uint32_t(q[3])}});
    }
    auto node = std::make_unique<mq::Node>("pattern");
    node->SetObjectRef(new mq::TriObject(mesh));
    node->setLocalTM(tm);
    return node;
}

// OBJ text of a box named name whose corners follow `base` vertices already written.
std::string boxObj(const Point3& lo, const Point3& hi, const char* name, int base = 0) {
    std::ostringstream text;
    text << "o " << name << "\n";
    for (int i = 0; i < 8; ++i) {
        const Point3 p = corner(lo, hi, i);
        // OBJ is Y-up: written so that the box stands as given once imported.
        text << "v " << p.x << " " << p.z << " " << -p.y << "\n";
    }
    for (const auto& q : kQuads)
        text << "f " << base + q[0] + 1 << " " << base + q[1] + 1 << " " << base + q[2] + 1 << " "
             << base + q[3] + 1 << "\n";
    return text.str();
}

// A host with one node of its own, a new object, a folder of pattern files
// removed afterwards, and an empty undo history before and after.
class Pattern : public ::testing::Test {
protected:
    void SetUp() override {
        mq::theHold.Reset();
        ip_.GetRootNode()->attachChild(std::make_unique<mq::Node>("Existing"));
        boxFile_ = dir_.write("box.obj", boxObj(kLo, kHi, "box")).string();
    }
    void TearDown() override { mq::theHold.Reset(); }

    bool load(const std::string& path) {
        pb_->SetValue(kPatternFile, 0, path);
        return obj_->loadPatternFile();
    }
    void setSource(int source) {
        pb_->SetValue(kPatternSource, 0, source);
        obj_->ObjectValidity(0);
    }
    // A scene pattern set past the accessor, so the crop box is not reset.
    void useNode(mq::Node* node) {
        pb_->setRawValue(kPattern, 0, mq::NodeRef{node->GetHandle()});
        setSource(kSourceScene);
    }
    void setCropBox(const Point3& size, const Matrix3& tm) {
        for (int i = 0; i < 3; ++i) pb_->SetValue(kCropSize, 0, size[i], i);
        pb_->SetValue(kCropTransform, 0, tm);
        obj_->ObjectValidity(0);
    }
    Point3 cropSize() {
        Point3 p;
        for (int i = 0; i < 3; ++i) p[i] = pb_->GetFloat(kCropSize, 0, i);
        return p;
    }
    Matrix3 cropTransform() { return pb_->GetMatrix3(kCropTransform); }
    void expectOnlyTheHostsNode() {
        ASSERT_EQ(ip_.GetRootNode()->NumberOfChildren(), 1);
        EXPECT_EQ(ip_.GetRootNode()->GetChildNode(0)->GetName(), "Existing");
    }

    mq::test::TempDir dir_;
    mq::HostInterface ip_;
    test::MosaiqPtr obj_ = newMosaiq();
    mq::ParamBlock* pb_ = obj_->GetParamBlock(0);
    std::string boxFile_;
};

TEST_F(Pattern, LoadingAFileFillsTheStoreAndLeavesNoMergedNode) {
    EXPECT_FALSE(obj_->renderReady());
    ASSERT_TRUE(load(boxFile_)) << obj_->lastPatternError();
    EXPECT_TRUE(obj_->lastPatternError().empty());
    EXPECT_TRUE(obj_->renderReady());
    expectOnlyTheHostsNode();
    // The file's own object space: OBJ's Y-up turn belongs to the node.
    ASSERT_TRUE(obj_->patternStore().valid);
    EXPECT_EQ(obj_->patternStore().box.pmin, kLo);
    EXPECT_EQ(obj_->patternStore().box.pmax, kHi);
    // Of several objects the first supplies the pattern; all are removed.
    ASSERT_TRUE(load(dir_.write("two.obj", boxObj({0, 0, 0}, {1, 1, 1}, "first") +
                                               boxObj({5, 5, 5}, {9, 9, 9}, "second", 8))));
    expectOnlyTheHostsNode();
    EXPECT_EQ(obj_->patternStore().box.pmax, Point3(1, 1, 1));
}

TEST_F(Pattern, BadFilesFailNamingTheFileAndKeepTheStore) {
    ASSERT_TRUE(load(boxFile_));
    const auto before = std::make_unique<mq::PatternPointCloud>(obj_->patternStore());
    const std::pair<std::string, const char*> cases[] = {
        {(dir_ / "missing.obj").string(), "does not exist"},
        {"/", "is a folder"},  // a new object's "Pattern_File"
        {dir_.write("garbage.glb", std::string("glTF\x02\0\0\0 not really", 19)), "cannot be read"},
        {dir_.write("lines.obj", "v 0 0 0\nv 1 0 0\nl 1 2\n"), "cannot be read"},
    };
    for (const auto& [path, reason] : cases) {
        SCOPED_TRACE(path);
        EXPECT_FALSE(load(path));
        const std::string& error = obj_->lastPatternError();
        EXPECT_TRUE(error.find("\"" + path + "\"") != std::string::npos &&
                    error.find(reason) != std::string::npos)
            << error;
        EXPECT_TRUE(obj_->patternStore().points == before->points && obj_->renderReady());
        expectOnlyTheHostsNode();
    }
}

TEST_F(Pattern, AFileWithoutFacesEmptiesTheStoreSoNoOldBoxIsFitted) {
    ASSERT_TRUE(load(boxFile_));
    setSource(kSourceFile);
    mq::Scene points;
    mq::Mesh noFaces;
    noFaces.verts = {{0, 0, 0}, {1, 0, 0}};
    points.root()
        ->attachChild(std::make_unique<mq::Node>("Points"))
        ->SetObjectRef(new mq::TriObject(noFaces));
    const std::string file = (dir_ / "points.mosaiq").string();
    mq::saveScene(points, file);

    setCropBox({7, 8, 9}, Matrix3());
    EXPECT_FALSE(load(file));
    EXPECT_NE(obj_->lastPatternError().find("holds a mesh without faces"), std::string::npos)
        << obj_->lastPatternError();
    EXPECT_FALSE(obj_->patternStore().valid);
    EXPECT_FALSE(obj_->resetCropBox(true) || obj_->fitCropBox());
    EXPECT_EQ(cropSize(), Point3(7, 8, 9));
    expectOnlyTheHostsNode();
}

TEST_F(Pattern, SceneLoadReloadsOnlyAFilePatternOnceTheSceneIsRead) {
    for (int source : {kSourceScene, kSourceFile}) {
        SCOPED_TRACE(source);
        test::MosaiqPtr loaded = newMosaiq();
        loaded->GetParamBlock(0)->SetValue(kPatternFile, 0, boxFile_);
        loaded->GetParamBlock(0)->SetValue(kPatternSource, 0, source);
        mq::ISave isave;
        EXPECT_EQ(loaded->Save(&isave), mq::IO_OK);
        mq::ILoad iload;
        EXPECT_EQ(loaded->Load(&iload), mq::IO_OK);
        EXPECT_FALSE(loaded->patternStore().valid) << "not before the scene is loaded";
        iload.runPostLoadCallbacks();
        iload.runPostLoadCallbacks();  // the callback freed itself: nothing runs twice
        EXPECT_EQ(loaded->patternStore().valid, source == kSourceFile);
        EXPECT_EQ(loaded->renderReady(), source == kSourceFile);
        expectOnlyTheHostsNode();
        loaded->Load(&iload);  // never run: the loader frees it (checked under ASan)
    }
}

TEST_F(Pattern, WithoutAPatternTheCropBoxStaysAndNoHoldStaysOpen) {
    const Point3 size{7, 8, 9};
    const Matrix3 tm = mq::RotateXMatrix(0.4f) * mq::TransMatrix({1, 1, 1});
    auto noObject = std::make_unique<mq::Node>("empty");
    std::unique_ptr<mq::Node> deleted = boxNode();
    const std::pair<const char*, std::function<void()>> cases[] = {
        {"file source, nothing loaded", [&] { setSource(kSourceFile); }},
        {"scene source, no node", [&] { setSource(kSourceScene); }},
        {"node without an object", [&] { useNode(noObject.get()); }},
        {"node deleted since the last evaluation",
         [&] {
             useNode(deleted.get());
             deleted.reset();
         }},
    };
    for (const auto& [what, arrange] : cases) {
        SCOPED_TRACE(what);
        setCropBox(size, tm);
        arrange();
        EXPECT_FALSE(obj_->resetCropBox(true) || obj_->resetCropBox(false) || obj_->fitCropBox());
        EXPECT_TRUE(cropSize() == size && cropTransform() == tm);
        EXPECT_EQ(std::pair(mq::theHold.depth(), mq::theHold.undoCount()), std::pair(0, 0));
    }
    // Inside the caller's hold a stop closes only its own.
    mq::theHold.Begin();
    EXPECT_FALSE(obj_->resetCropBox(true));
    EXPECT_EQ(mq::theHold.depth(), 1);
}

TEST_F(Pattern, ResetEnclosesThePatternWithIdentityRotation) {
    const float quarter = std::numbers::pi_v<float> / 2;
    const struct {
        const char* what;
        bool fromFile;
        Matrix3 nodeTM;
        Point3 size, centre, lo = kLo, hi = kHi;
    } cases[] = {
        // The node's position plays no part, its rotation does; a flat
        // pattern gets the smallest crop height.
        {"file", true, Matrix3(), {10, 20, 30}, {1, 2, 3}},
        {"moved node", false, mq::TransMatrix({100, -200, 300}), {10, 20, 30}, {1, 2, 3}},
        {"turned node",
         false,
         mq::RotateZMatrix(quarter) * mq::TransMatrix({5, 5, 5}),
         {20, 10, 30},
         {-2, 1, 3}},
        {"flat node", false, Matrix3(), {4, 6, 1e-7f}, {2, 3, 5}, {0, 0, 5}, {4, 6, 5}},
    };
    std::unique_ptr<mq::Node> node;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        if (c.fromFile) {
            ASSERT_TRUE(load(boxFile_));
            setSource(kSourceFile);
        } else {
            node = boxNode(c.nodeTM, c.lo, c.hi);
            useNode(node.get());
        }
        setCropBox({1, 1, 1}, mq::RotateYMatrix(1.0f) * mq::TransMatrix({9, 9, 9}));
        ASSERT_TRUE(obj_->resetCropBox(true));
        expectNear(cropSize(), c.size, 1e-4f);
        Matrix3 rotation = cropTransform();
        expectNear(rotation.GetTrans(), c.centre, 1e-4f);
        rotation.NoTrans();
        EXPECT_TRUE(rotation.IsIdentity());
        EXPECT_EQ(obj_->cropTransform(), cropTransform());  // the working copy follows
    }
}

TEST_F(Pattern, FitKeepsTheRotationAndDropsScaleAndPosition) {
    std::unique_ptr<mq::Node> node = boxNode(mq::TransMatrix({40, 0, 0}));
    useNode(node.get());
    const Matrix3 rotation = mq::RotateXMatrix(0.3f) * mq::RotateZMatrix(0.7f);
    setCropBox({1, 2, 3}, mq::ScaleMatrix({2, 3, 0.5f}) * rotation * mq::TransMatrix({50, 60, 70}));
    ASSERT_TRUE(obj_->fitCropBox());
    const Matrix3 tm = cropTransform();
    for (int r = 0; r < 3; ++r) expectNear(tm.GetRow(r), rotation.GetRow(r), 1e-6f);
    // Oracle: the corners projected on the rotation's unit axes.
    mq::Box3 inBox;
    for (int i = 0; i < 8; ++i) {
        const Point3 p = corner(kLo, kHi, i);
        inBox +=
            {mq::DotProd(p, rotation[0]), mq::DotProd(p, rotation[1]), mq::DotProd(p, rotation[2])};
    }
    expectNear(cropSize(), inBox.Width(), 1e-4f);
    expectNear(tm.GetTrans(), inBox.Center() * rotation, 1e-4f);

    // From the store's points on the box's surface: inside the box, close to it.
    ASSERT_TRUE(load(boxFile_));
    setSource(kSourceFile);
    setCropBox({1, 1, 1}, mq::RotateZMatrix(std::numbers::pi_v<float> / 2));
    ASSERT_TRUE(obj_->fitCropBox());
    expectNear(cropSize(), {20, 10, 30}, 0.1f);
    EXPECT_LE(cropSize().x, 20.0f + 1e-4f);
    expectNear(cropTransform().GetTrans(), {1, 2, 3}, 0.1f);
}

TEST_F(Pattern, OneUndoStepRevertsAWholeResetOrFit) {
    std::unique_ptr<mq::Node> node = boxNode();
    useNode(node.get());
    const Point3 size{7, 8, 9};
    const Matrix3 before = mq::RotateZMatrix(0.5f) * mq::TransMatrix({3, 3, 3});
    const std::pair<const char*, std::function<bool()>> cases[] = {
        {"Reset Crop Box", [&] { return obj_->resetCropBox(true); }},
        {"Fit Crop Box", [&] { return obj_->fitCropBox(); }},
    };
    for (const auto& [name, run] : cases) {
        SCOPED_TRACE(name);
        mq::theHold.Reset();
        setCropBox(size, before);
        ASSERT_TRUE(run());
        const Point3 afterSize = cropSize();
        const Matrix3 after = cropTransform();
        ASSERT_TRUE(afterSize != size && after != before);
        EXPECT_EQ(mq::theHold.undoCount(), 1);
        EXPECT_EQ(mq::theHold.undoName(), name);

        ASSERT_TRUE(mq::theHold.Undo());
        EXPECT_EQ(cropSize(), size);
        EXPECT_EQ(cropTransform(), before);
        ASSERT_TRUE(mq::theHold.Redo());
        EXPECT_EQ(cropSize(), afterSize);
        EXPECT_EQ(cropTransform(), after);
    }
}

TEST_F(Pattern, PickingSamplesAndResetsAtOnceWithoutAStepOfItsOwn) {
    std::unique_ptr<mq::Node> first = boxNode(mq::TransMatrix({100, 0, 0}));
    ASSERT_TRUE(pb_->SetValue(kPattern, 0, first.get()));
    EXPECT_EQ(cropSize(), Point3(10, 20, 30));
    EXPECT_EQ(cropTransform(), mq::TransMatrix({1, 2, 3}));
    EXPECT_EQ(mq::theHold.undoCount(), 0);

    // Inside the caller's hold the reset joins the pick's step.
    std::unique_ptr<mq::Node> second = boxNode(mq::TransMatrix({100, 0, 0}), {0, 0, 0}, {2, 2, 2});
    mq::theHold.Begin();
    pb_->SetValue(kPattern, 0, second.get());
    mq::theHold.Accept("Pick Pattern");
    EXPECT_EQ(cropSize(), Point3(2, 2, 2));
    EXPECT_EQ(obj_->patternStore().box.pmax, Point3(2, 2, 2));  // sampled in object space
    ASSERT_TRUE(mq::theHold.Undo());
    EXPECT_EQ(cropSize(), Point3(10, 20, 30));
    EXPECT_EQ(cropTransform(), mq::TransMatrix({1, 2, 3}));

    // A loaded file pattern is not replaced by a pick; the scene pattern
    // comes back with the next evaluation.
    setSource(kSourceFile);
    ASSERT_TRUE(load(boxFile_));
    pb_->SetValue(kPattern, 0, second.get());
    EXPECT_EQ(obj_->patternStore().box.pmax, kHi);
    setSource(kSourceScene);
    EXPECT_EQ(obj_->patternStore().box.pmax, Point3(2, 2, 2));
}

}  // namespace
