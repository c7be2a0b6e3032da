// The pattern store (pattern files, picked nodes) and the crop-box operations that read it.
#include "host/hold.h"
#include "host/interface.h"
#include "host/node.h"
#include "host/scenefile.h"
#include "host/view_camera.h"
#include "object/cropmodes.h"
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

// ---- The object in a headless viewport ----

// A top view, orthographic, 0.1 units per pixel, centred above target.
mq::ViewCamera topView(const Point3& target) {
    mq::ViewCamera cam = mq::ViewCamera::lookAt(target + Point3(0, 0, 100), target);
    cam.perspective = false;
    cam.orthoHeight = 48;
    return cam;
}

mq::IPoint2 pixelOf(const mq::ViewCamera& cam, const Point3& p) {
    float x, y;
    EXPECT_TRUE(cam.project(p, x, y));
    return {int(std::lround(x)), int(std::lround(y))};
}

TEST_F(Pattern, DisplayDrawsLogoBoxAndPointsAndHitTestSkipsThePoints) {
    std::unique_ptr<mq::Node> pattern = boxNode(mq::TransMatrix({50, 0, 0}));
    useNode(pattern.get());
    setCropBox({10, 20, 30}, mq::TransMatrix({1, 2, 3}));
    pb_->SetValue(kDummySize, 0, 2.0f);
    mq::Node self("Mosaiq");
    self.setLocalTM(mq::TransMatrix({-100, 0, 0}));

    const mq::ViewCamera cam = topView({51, 2, 3});
    for (int flags : {0, mq::DISP_SELECTED}) {
        mq::HitTestWindow gw(cam);
        mq::CameraViewExp vpt(cam, gw);
        obj_->Display(0, &self, vpt, flags);
        const auto& drawn = gw.drawn();
        EXPECT_EQ(drawn.triangles, logoMesh().triangleCount());
        EXPECT_EQ(drawn.segments, 12);
        EXPECT_EQ(drawn.points, mq::PatternPointCloud::kPointCount);
        EXPECT_EQ(drawn.lastColor, flags ? kPointSelColor : kPointColor);
        // The logo (unit wide, scaled by 2 at x = -100) is the lowest x; the
        // box and the points lie on the pattern at the node's pivot.
        expectNear(drawn.bounds.pmin, Point3(-101, -8, -12), 1e-4f);
        expectNear(drawn.bounds.pmax, Point3(56, 12, 18), 1e-4f);
    }

    mq::HitTestWindow gw(cam);
    mq::CameraViewExp vpt(cam, gw);
    auto hits = [&](const mq::ViewCamera& view, const Point3& p) {
        const mq::IPoint2 px = pixelOf(view, p);
        const mq::HitRegion region{px.x, px.y, 3};
        mq::HitTestWindow hw(view);
        hw.setHitRegion(&region);
        mq::CameraViewExp v(view, hw);
        return obj_->HitTest(0, &self, 0, v) != 0;
    };
    EXPECT_TRUE(hits(cam, {46, 2, 18})) << "a box edge";
    EXPECT_FALSE(hits(cam, {51, 2, 3})) << "inside the box: only points there";
    EXPECT_FALSE(hits(cam, {30, 30, 0})) << "empty space";
    EXPECT_TRUE(hits(topView({-100, 0, 0}), {-99.7f, 0.3f, 0.1f})) << "the logo";
}

TEST_F(Pattern, ClickDragSetsTheIconSizeAndAClickKeepsTheDefault) {
    mq::ViewCamera cam = mq::ViewCamera::lookAt({0, -100, 100}, {0, 0, 0});
    mq::HitTestWindow gw(cam);
    mq::CameraViewExp vpt(cam, gw);
    mq::CreateMouseCallBack* create = obj_->GetCreateMouseCallBack();
    ASSERT_NE(create, nullptr);
    auto onPlane = [&](int x, int y) {
        Point3 p;
        EXPECT_TRUE(vpt.mapScreenToConstructionPlane(float(x), float(y), p));
        return p;
    };
    Matrix3 tm;
    using mq::MouseMsg;
    EXPECT_EQ(create->proc(vpt, MouseMsg::Point, 0, 0, {300, 200}, tm), mq::CREATE_CONTINUE);
    expectNear(tm.GetTrans(), onPlane(300, 200), 1e-4f);
    EXPECT_EQ(create->proc(vpt, MouseMsg::Move, 1, 0, {350, 260}, tm), mq::CREATE_CONTINUE);
    EXPECT_EQ(create->proc(vpt, MouseMsg::Point, 1, 0, {380, 260}, tm), mq::CREATE_STOP);
    expectNear(tm.GetTrans(), onPlane(300, 200), 1e-4f);
    EXPECT_NEAR(pb_->GetFloat(kDummySize), Length(onPlane(380, 260) - onPlane(300, 200)), 1e-3f);

    EXPECT_EQ(create->proc(vpt, MouseMsg::Point, 0, 0, {300, 200}, tm), mq::CREATE_CONTINUE);
    EXPECT_EQ(create->proc(vpt, MouseMsg::Point, 1, 0, {302, 201}, tm), mq::CREATE_STOP);
    EXPECT_EQ(pb_->GetFloat(kDummySize), 1.0f);
    EXPECT_EQ(create->proc(vpt, MouseMsg::Point, 0, 0, {300, 200}, tm), mq::CREATE_CONTINUE);
    EXPECT_EQ(create->proc(vpt, MouseMsg::Abort, 1, 0, {300, 200}, tm), mq::CREATE_ABORT);
}

TEST_F(Pattern, EachCropModeDragIsOneUndoStepAndAbortRestoresTheBox) {
    const Point3 size0{10, 20, 30};
    const Matrix3 tm0 = mq::TransMatrix({1, 2, 3});
    const Point3 c{1, 2, 3};
    const mq::ViewCamera cam = topView(c);
    mq::HitTestWindow gw(cam);
    mq::CameraViewExp vpt(cam, gw);
    const float gizmo = CropBoxCMode::kGizmoPixels * cam.pixelSizeAt(c);  // 8 units
    const float r = gizmo * std::numbers::sqrt2_v<float> / 2;
    struct Drag {
        std::unique_ptr<CropBoxCMode> mode;
        Point3 from, to;  // world points under the cursor
        GizmoPart part;
        std::function<void(const Point3& size, const Matrix3& tm)> check;
    };
    std::vector<Drag> drags;
    drags.push_back({std::make_unique<MoveModBoxCMode>(obj_.get(), &ip_),
                     c + Point3(gizmo / 2, 0, 0), c + Point3(gizmo / 2 + 10, 0, 0), GizmoPart::X,
                     [&](const Point3& size, const Matrix3& tm) {
                         EXPECT_EQ(size, size0);
                         expectNear(tm.GetTrans(), Point3(11, 2, 3), 0.02f);
                     }});
    drags.push_back({std::make_unique<MoveModBoxCMode>(obj_.get(), &ip_), c, c + Point3(1, -1, 0),
                     GizmoPart::Center, [&](const Point3&, const Matrix3& tm) {
                         expectNear(tm.GetTrans(), Point3(2, 1, 3), 0.02f);
                     }});
    drags.push_back({std::make_unique<RotateModBoxCMode>(obj_.get(), &ip_), c + Point3(r, r, 0),
                     c + Point3(-r, r, 0), GizmoPart::Z,
                     [&](const Point3& size, const Matrix3& tm) {
                         EXPECT_EQ(size, size0);
                         // A quarter turn about the box's z, about its centre.
                         expectNear(tm.GetRow(0), Point3(0, 1, 0), 0.02f);
                         expectNear(tm.GetRow(1), Point3(-1, 0, 0), 0.02f);
                         expectNear(tm.GetRow(2), Point3(0, 0, 1), 1e-5f);
                         EXPECT_EQ(tm.GetTrans(), c);
                     }});
    drags.push_back({std::make_unique<UScaleModBoxCMode>(obj_.get(), &ip_), c, c + Point3(0, 10, 0),
                     GizmoPart::Center,  // 100 pixels up
                     [&](const Point3& size, const Matrix3& tm) {
                         expectNear(size, size0 * 2.0f, 1e-3f);
                         EXPECT_EQ(tm, tm0);
                     }});
    drags.push_back(
        {std::make_unique<NUScaleModBoxCMode>(obj_.get(), &ip_), c + Point3(gizmo, 0, 0),
         c + Point3(2 * gizmo, 0, 0), GizmoPart::X,
         [&](const Point3& size, const Matrix3&) { expectNear(size, Point3(20, 20, 30), 0.15f); }});
    drags.push_back({std::make_unique<SquashModBoxCMode>(obj_.get(), &ip_), c + Point3(0, gizmo, 0),
                     c + Point3(0, 2 * gizmo, 0), GizmoPart::Y,
                     [&](const Point3& size, const Matrix3&) {
                         EXPECT_NEAR(size.y, 40, 0.3f);
                         EXPECT_NEAR(size.x / size.z, 1.0f / 3.0f, 1e-5f);
                         EXPECT_NEAR(size.x * size.y * size.z, 6000, 6000 * 1e-5f) << "volume kept";
                     }});

    using mq::MouseMsg;
    for (Drag& d : drags) {
        SCOPED_TRACE(d.mode->name());
        setCropBox(size0, tm0);
        mq::theHold.Reset();
        CropBoxCMode& mode = *d.mode;
        const mq::IPoint2 from = pixelOf(cam, d.from), to = pixelOf(cam, d.to);
        mode.proc(vpt, MouseMsg::FreeMove, 0, 0, from);
        EXPECT_EQ(mode.highlighted(), d.part);
        mode.proc(vpt, MouseMsg::Point, 0, 0, from);
        ASSERT_TRUE(mode.dragging());
        mode.proc(vpt, MouseMsg::Move, 1, 0, {(from.x + to.x) / 2, (from.y + to.y) / 2});
        mode.proc(vpt, MouseMsg::Move, 1, 0, to);
        mode.proc(vpt, MouseMsg::Point, 1, 0, to);
        d.check(cropSize(), cropTransform());
        // The working copy follows the block, for the capture.
        EXPECT_EQ(obj_->cropSize(), cropSize());
        EXPECT_EQ(mq::theHold.undoCount(), 1);
        EXPECT_EQ(mq::theHold.undoName(), mode.name());
        ASSERT_TRUE(mq::theHold.Undo());
        EXPECT_EQ(cropSize(), size0);
        EXPECT_EQ(cropTransform(), tm0);

        // Abort part-way: exactly the box before the press, and no step.
        mode.proc(vpt, MouseMsg::Point, 0, 0, from);
        mode.proc(vpt, MouseMsg::Move, 1, 0, to);
        EXPECT_NE(std::pair(cropSize(), cropTransform()), std::pair(size0, tm0));
        mode.proc(vpt, MouseMsg::Abort, 0, 0, to);
        EXPECT_EQ(cropSize(), size0);
        EXPECT_EQ(cropTransform(), tm0);
        EXPECT_EQ(obj_->cropSize(), size0);
        EXPECT_EQ(std::pair(mq::theHold.depth(), mq::theHold.undoCount()), std::pair(0, 0));
    }
}

TEST_F(Pattern, ScalingStopsAtTheSizeRange) {
    setCropBox({10, 20, 30}, Matrix3());
    const mq::ViewCamera cam = topView({0, 0, 0});
    mq::HitTestWindow gw(cam);
    mq::CameraViewExp vpt(cam, gw);
    SquashModBoxCMode squash(obj_.get(), &ip_);
    const float gizmo = CropBoxCMode::kGizmoPixels * cam.pixelSizeAt({});
    // Through the centre and beyond: the factor turns negative.
    const mq::IPoint2 from = pixelOf(cam, {gizmo, 0, 0}), to = pixelOf(cam, {-gizmo, 0, 0});
    squash.proc(vpt, mq::MouseMsg::Point, 0, 0, from);
    squash.proc(vpt, mq::MouseMsg::Move, 1, 0, to);
    const Point3 size = cropSize();
    EXPECT_GE(std::min({size.x, size.y, size.z}), 1e-7f);
    EXPECT_LE(std::max({size.x, size.y, size.z}), 100000.0f);
    squash.ExitMode();
    EXPECT_EQ(cropSize(), Point3(10, 20, 30));
}

}  // namespace
