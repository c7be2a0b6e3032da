// Pattern capture: face precomputation, the tile build, the octree's memory
// budget, and capture from scene nodes and files.
#include "engine/tile.h"
#include "engine/octree.h"
#include "host/interface.h"
#include "host/node.h"
#include "host/object.h"
#include "host/scenefile.h"
#include "support/test_util.h"

#include <limits>
#include <numbers>
#include <random>

namespace mq {
namespace {

using test::expectNear;
namespace fs = std::filesystem;
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

// A two-face square (-1..1)^2 in z = 0 with UVs on channel 1 and material ids 7, 9.
Mesh squareMesh() {
    Mesh m;
    m.verts = {{-1, -1, 0}, {1, -1, 0}, {1, 1, 0}, {-1, 1, 0}};
    m.faces = {Face{{0, 1, 2}, 1, 7u << 16}, Face{{0, 2, 3}, 1, 9u << 16}};
    m.setMapSupport(1);
    m.Map(1).verts = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}};
    m.Map(1).faces = {{{0, 1, 2}}, {{0, 2, 3}}};
    return m;
}

// The face a ray through the tile's tree hits, or -1.
int hitFace(const PatternTile& tile, Point3 origin, Point3 direction) {
    TileRay r;
    r.origin = origin;
    r.direction = direction;
    r.tEnd = 1e30f;
    TileHit hit;
    if (!clipRayToBox(r.origin, r.direction, tile.tree->box, r.tStart, r.tEnd)) return -1;
    return traverse(r, tile.tree.get(), hit) ? hit.faceIndex : -1;
}

TEST(TileBuild, CropBoxBecomesZeroToCropSizeInsideOddlyGrownTreeBounds) {
    Mesh m;
    m.verts = {{-15, -15, -5}, {15, 15, 5}, {15, -15, 0}};
    m.faces = {Face{{0, 1, 2}, 1, 0}};
    PatternTile tile;
    tile.build(m, Matrix3(), Point3(30, 30, 10), 2, 3);
    EXPECT_EQ(tile.vertices[0], Point3(0, 0, 0));
    EXPECT_EQ(tile.vertices[1], Point3(30, 30, 10));
    EXPECT_FALSE(tile.built);  // only capture marks the tile built
    EXPECT_EQ(tile.segmentSize, Point3(15, 10, 10));
    const Box3& box = tile.tree->box;
    EXPECT_FLOAT_EQ(box.pmax.x, 30.37037f);
    EXPECT_FLOAT_EQ(box.pmax.y, 30.37037f);
    EXPECT_FLOAT_EQ(box.pmax.z, 10.123457f);
    // min is lowered with the already grown max.
    EXPECT_EQ(box.pmin, Point3() - box.pmax * 0.0023456789f);
}

TEST(TileBuild, NormalsTurnWithMirroringWhileWindingFollowsTheVertices) {
    // Flat shading makes each corner normal its face's own; after any crop
    // matrix (mirrored and sheared ones included) the two must still agree.
    Mesh sphere = makeSphereMesh(5, 16);
    for (Face& f : sphere.faces) f.smGroup = 0;
    const Matrix3 crops[] = {
        Matrix3(),
        ScaleMatrix(Point3(-1, 1, 1)),
        ScaleMatrix(Point3(1, 4, 0.5f)) * RotateZMatrix(0.3f),
        Matrix3(Point3(1, 0.5f, 0), Point3(0, 1, 0), Point3(0.2f, 0, -2), Point3(3, 1, 2)),
    };
    for (const Matrix3& crop : crops) {
        Mesh m = sphere;
        PatternTile tile;
        tile.build(m, crop, Point3(20, 20, 20), 1, 1);
        const bool mirrored = crop.Determinant() < 0;
        int checked = 0;
        for (int f = 0; f < tile.faceCount; ++f) {
            const PatternFace& face = tile.faces[f];
            for (int c = 0; c < 3; ++c) EXPECT_EQ(face.vertex[c], &tile.vertices[m.faces[f].v[c]]);
            if (face.faceNormal == Point3()) continue;
            // Out of the (now ellipsoidal) sphere unless mirrored.
            const Point3 outwards = face.centre - (crop.GetTrans() + Point3(10, 10, 10));
            EXPECT_EQ(DotProd(face.faceNormal, outwards) > 0, !mirrored);
            for (const Point3* n : face.normal) expectNear(*n, face.faceNormal, 1e-4f);
            ++checked;
        }
        EXPECT_GT(checked, 200);
    }
}

TEST(TileBuild, DegenerateFacesStayInTheTreeButAreNeverHit) {
    Mesh m;
    m.verts = {{-4, -4, 0}, {4, -4, 0}, {0, 4, 0}, {-1, 0, 0}, {1, 0, 0}, {0.5f, 0, 0}};
    // A real face, then a repeated corner and collinear corners lying on it.
    m.faces = {Face{{0, 1, 2}, 1, 0}, Face{{3, 4, 4}, 1, 0}, Face{{3, 5, 4}, 1, 0}};
    PatternTile tile;
    tile.build(m, Matrix3(), Point3(10, 10, 10), 1, 1);
    ASSERT_EQ(tile.faceCount, 3);
    // Degenerate faces keep a zero normal.
    EXPECT_EQ(tile.faces[1].faceNormal, Point3());
    EXPECT_EQ(tile.faces[2].faceNormal, Point3());
    std::vector<int> listed(3, 0);
    std::vector<const PatternOctreeNode*> stack{tile.tree.get()};
    for (const PatternOctreeNode* n = nullptr; !stack.empty();) {
        n = stack.back();
        stack.pop_back();
        for (const PatternFace* f : n->faces) listed[f->faceIndex] = 1;
        if (!n->isLeaf()) stack.insert(stack.end(), n->children, n->children + 8);
    }
    EXPECT_EQ(listed, std::vector<int>({1, 1, 1}));
    for (float x : {-1.0f, -0.3f, 0.5f, 1.0f})
        EXPECT_EQ(hitFace(tile, Point3(x + 5, 5, 9), Point3(0, 0, -1)), 0) << x;
}

TEST(TileBuild, CopiesEveryMapChannelAndReleaseFreesIt) {
    Mesh m = squareMesh();
    m.setMapSupport(0);
    m.Map(0).verts = {{1, 0, 0}, {0, 1, 0}};
    m.Map(0).faces = {{{0, 1, 1}}, {{1, 0, 0}}};
    m.setMapSupport(99);
    m.Map(99).verts = {{5, 5, 5}};
    PatternTile tile;
    tile.build(m, Matrix3(), Point3(4, 4, 4), 1, 1);
    for (int ch = 0; ch < MAX_MESHMAPS; ++ch) {
        const bool used = ch == 0 || ch == 1 || ch == 99;
        ASSERT_EQ(tile.mapFaces[ch].size(), used ? 2u : 0u) << ch;
        EXPECT_EQ(tile.mapVertices[ch], m.Map(ch).verts);
        for (int f = 0; used && f < 2; ++f)
            for (int c = 0; c < 3; ++c)
                EXPECT_EQ(tile.mapFaces[ch][f][c], &tile.mapVertices[ch][m.Map(ch).faces[f].t[c]]);
    }
    EXPECT_EQ(tile.faces[1].materialId, 9u);
    tile.release();
    EXPECT_TRUE(tile.mapVertices[1].empty() && tile.mapFaces[1].empty() && !tile.tree);
}

TEST(TileBuild, BrokenMeshesBuildAndWalkWithoutCrashing) {
    Mesh m = squareMesh();
    m.verts.push_back({kNaN, 0, 0});
    m.verts.push_back({kInf, -kInf, 1});
    m.faces.push_back(Face{{0, 99, 1}, 1, 0});  // index out of range
    m.faces.push_back(Face{{0, 4, 1}, 1, 0});   // NaN corner
    m.faces.push_back(Face{{5, 1, 2}, 1, 0});   // infinite corner
    m.Map(1).faces.resize(3);                   // a map face short...
    m.Map(1).faces[2] = {{0, 1, 1234}};         // ...and a bad map index
    PatternTile tile;
    tile.build(m, Matrix3(), Point3(4, 4, 4), 1, 1);
    ASSERT_EQ(tile.faceCount, 5);
    for (const Point3* v : tile.faces[2].vertex) EXPECT_EQ(v, &tile.vertices[0]);
    EXPECT_EQ(*tile.mapFaces[1][2][2], Point3());
    EXPECT_EQ(*tile.mapFaces[1][4][0], Point3());
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> u(-1.0f, 5.0f);
    int hits = 0;
    for (int i = 0; i < 2000; ++i) {
        const int f = hitFace(tile, Point3(u(rng), u(rng), u(rng)), Point3(u(rng), u(rng), u(rng)));
        EXPECT_LT(f, 2);
        hits += f >= 0;
    }
    EXPECT_GT(hits, 0);

    // Faces without any vertices, and no faces at all: no ray hits anything.
    Mesh noVertices, noFaces;
    noVertices.faces = {Face{{0, 1, 2}, 1, 0}};
    noFaces.verts = {{0, 0, 0}, {1, 1, 1}};
    for (Mesh broken : {noVertices, noFaces}) {
        tile.build(broken, Matrix3(), Point3(2, 2, 2), 1, 1);
        ASSERT_NE(tile.tree, nullptr);
        EXPECT_EQ(tile.faceCount, int(broken.faces.size()));
        if (broken.faces.empty()) {
            EXPECT_TRUE(tile.tree->isLeaf() && tile.tree->faceCount == 0);
        }
        for (int i = 0; i < 100; ++i)
            EXPECT_EQ(hitFace(tile, Point3(u(rng), u(rng), u(rng)), Point3(u(rng), u(rng), 1)), -1);
    }
}

TEST(TileBuild, TheOctreeTakesWhatFitsItsMemoryBudgetAndReportsWhatDoesNot) {
    // 71 identical faces stacked across the tile split the tree down to
    // depth 8 and 70,065 nodes: more than a node count limit of the old kind
    // allowed, yet a valid pattern that fits in memory.
    Mesh stack;
    stack.verts = {{0, 0, 0}, {10, 0, 10}, {0, 10, 10}};
    stack.faces.assign(71, Face{{0, 1, 2}, 1, 0});
    PatternTile tile;
    tile.build(stack, Matrix3(), Point3(10, 10, 10), 1, 1);
    const OctreeStats stats = octreeStats(tile.tree.get());
    EXPECT_EQ(stats.depth, 8);
    EXPECT_EQ(stats.nodes, 70065);

    // Past the budget the build fails with the numbers and leaves the tile released.
    const std::string what = test::messageOf<OctreeTooLarge>([&] {
        tile.build(stack, Matrix3(), Point3(10, 10, 10), 1, 1, {.memoryBudget = stats.bytes - 1});
    });
    EXPECT_NE(what.find("71 faces"), std::string::npos) << what;
    EXPECT_NE(what.find(kOctreeMemoryVariable), std::string::npos) << what;
    EXPECT_TRUE(!tile.tree && tile.faceCount == 0);
}

// An object nothing converts to triangles.
class Opaque : public GeomObject {
public:
    ClassId ClassID() const override { return {0x0BAD, 0}; }
    std::string GetClassName() const override { return "Opaque"; }
    ReferenceTarget* Clone(RemapDir&) override { return new Opaque; }
};

class TileCapture : public ::testing::Test {
protected:
    Node* addNode(const std::string& name, Object* obj, const Matrix3& tm = Matrix3()) {
        return test::addNode(host_.GetRootNode(), name, obj, tm);
    }
    bool capture(PatternTile& tile, const PatternSource& source, const CropBox& crop = {}) {
        why_.clear();
        return capturePattern(tile, source, crop, 0, why_);
    }
    static PatternSource scene(const Node* node) { return {.node = node ? node->GetHandle() : 0}; }
    static PatternSource file(const fs::path& path) {
        return {.fromFile = true, .file = path.string()};
    }
    static void expectUnbuilt(const PatternTile& tile) {
        EXPECT_TRUE(!tile.built && !tile.tree && tile.faceCount == 0 && tile.vertices.empty());
    }

    HostInterface host_;
    test::TempDir dir_;
    std::string why_;
};

TEST_F(TileCapture, FromASceneNodeConvertedTheCropFollowsThePositionNotTheRotation) {
    Node* node =
        addNode("Square", new TriObject(squareMesh()),
                RotateZMatrix(std::numbers::pi_v<float> / 2) * TransMatrix(Point3(100, 50, 7)));
    PatternTile tile;
    ASSERT_TRUE(capture(tile, scene(node), {TransMatrix(Point3(0.5f, 0, 0)), {4, 4, 2}, 2, 1}));
    EXPECT_TRUE(tile.built);
    EXPECT_EQ(tile.faceCount, 2);
    EXPECT_EQ(tile.segmentSize, Point3(2, 4, 2));
    // (1, -1, 0) turns to (1, 1, 0), moves by -0.5 in x and on to the box centre (2, 2, 1).
    expectNear(tile.vertices[1], Point3(2.5f, 3, 1), 1e-4f);
    expectNear(tile.vertices[3], Point3(0.5f, 1, 1), 1e-4f);
    EXPECT_EQ(tile.mapVertices[1].size(), 4u);
    EXPECT_GE(hitFace(tile, Point3(2.4f, 2.2f, 3), Point3(0, 0, -1)), 0);
    EXPECT_EQ(host_.GetRootNode()->NumberOfChildren(), 1);
    // Built once: a second capture reads nothing.
    EXPECT_TRUE(capture(tile, scene(nullptr)));
}

TEST_F(TileCapture, FromAFileTheFirstMeshInItsOwnSpaceAndNoMergedNodeStays) {
    addNode("Keep", new TriObject(squareMesh()));
    const fs::path two = dir_.write("two.obj",
                                    // Y-up, as OBJ is: file (x, y, z) is (x, -z, y) here.
                                    "o First\nv 0 0 0\nv 1 0 0\nv 0 0 -1\nf 1 2 3\n"
                                    "o Second\nv 0 1 0\nv 1 1 0\nv 1 1 -1\nv 0 1 -1\nf 4 5 6\n"
                                    "f 4 6 7\n");
    PatternTile tile;
    ASSERT_TRUE(capture(tile, file(two), {TransMatrix(Point3(0, 0, 0.5f)), {2, 2, 2}})) << why_;
    ASSERT_EQ(tile.faceCount, 1);
    const PatternFace& f = tile.faces[0];
    EXPECT_EQ(*f.vertex[0], Point3(1, 1, 0.5f));
    EXPECT_EQ(*f.vertex[1], Point3(2, 1, 0.5f));
    EXPECT_EQ(*f.vertex[2], Point3(1, 2, 0.5f));
    ASSERT_EQ(host_.scene().allNodes().size(), 1u);
    EXPECT_EQ(host_.GetRootNode()->GetChildNode(0)->GetName(), "Keep");

    // A file mesh without faces is captured as an empty tile, which misses everything.
    Scene points;
    Mesh noFaces;
    noFaces.verts = {{0, 0, 0}, {1, 0, 0}};
    points.root()
        ->attachChild(std::make_unique<Node>("Points"))
        ->SetObjectRef(new TriObject(noFaces));
    saveScene(points, dir_ / "points.mosaiq");
    PatternTile empty;
    ASSERT_TRUE(capture(empty, file(dir_ / "points.mosaiq"))) << why_;
    EXPECT_EQ(empty.faceCount, 0);
    EXPECT_EQ(hitFace(empty, Point3(50, 50, 200), Point3(0, 0, -1)), -1);
}

TEST_F(TileCapture, FailsWithoutAUsableMeshNamingWhyAndChangesNothing) {
    Mesh noFaces;
    noFaces.verts = {{0, 0, 0}};
    const std::pair<Node*, const char*> nodes[] = {
        {nullptr, "no \"Pattern\" node is set"},
        {addNode("Empty", nullptr), "\"Pattern\" node \"Empty\" has no mesh"},
        {addNode("NoFaces", new TriObject(noFaces)), "\"NoFaces\" has a mesh without faces"},
        {addNode("Other", new Opaque), "\"Other\" has no mesh"}};
    PatternTile tile;
    for (const auto& [node, why] : nodes) {
        EXPECT_FALSE(capture(tile, scene(node)));
        EXPECT_NE(why_.find(why), std::string::npos) << why_;
        expectUnbuilt(tile);
    }
    const int children = host_.GetRootNode()->NumberOfChildren();
    const std::pair<fs::path, const char*> files[] = {
        {dir_ / "missing.obj", "does not exist"},
        {dir_.write("garbage.glb", "\x01\x02 not a mesh"), "cannot be read"},
        {dir_.path(), "is a folder"},
        {fs::path(), "does not exist"}};
    for (const auto& [path, why] : files) {
        EXPECT_FALSE(capture(tile, file(path))) << path;
        EXPECT_NE(why_.find(why), std::string::npos) << why_;
        expectUnbuilt(tile);
        EXPECT_EQ(host_.GetRootNode()->NumberOfChildren(), children) << path;
    }
}

TEST(TileCaptureWithoutHost, AFilePatternNeedsAnInterface) {
    ASSERT_EQ(GetCOREInterface(), nullptr);
    PatternTile tile;
    std::string why;
    EXPECT_FALSE(capturePattern(tile,
                                {.fromFile = true, .file = "/usr/share/assimp/models/OBJ/box.obj"},
                                {}, 0, why) ||
                 tile.built);
    EXPECT_NE(why.find("there is no host"), std::string::npos) << why;
}

}  // namespace
}  // namespace mq
