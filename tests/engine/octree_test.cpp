// The tile octree: build rules, links, the box helpers, the per-face test,
// and the rope walk against a brute-force test of every face.
#include "engine/octree.h"
#include "engine/tile.h"
#include "host/import.h"
#include "host/mesh.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <limits>
#include <map>
#include <random>
#include <vector>

namespace mq {
namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();
using Tri = std::array<Point3, 3>;

// Precomputed faces with stable addresses, without a tile.
struct Soup {
    explicit Soup(const std::vector<Tri>& tris) : points(tris.size() * 3), faces(tris.size()) {
        for (size_t f = 0; f < tris.size(); ++f) {
            for (int c = 0; c < 3; ++c) {
                points[3 * f + c] = tris[f][c];
                faces[f].vertex[c] = &points[3 * f + c];
            }
            faces[f].faceIndex = static_cast<int32_t>(f);
            precomputeFace(faces[f]);
        }
    }
    std::vector<const PatternFace*> list() const {
        std::vector<const PatternFace*> l;
        for (const PatternFace& f : faces) l.push_back(&f);
        return l;
    }
    std::vector<Point3> points;
    std::vector<PatternFace> faces;
};

// n small triangles inside the cell (1..2)^3.
Soup smallTriangles(int n) {
    std::vector<Tri> tris;
    for (int i = 0; i < n; ++i) {
        const float z = 1.25f + 0.5f * float(i) / float(n);
        tris.push_back({Point3(1.25f, 1.25f, z), Point3(1.5f, 1.25f, z), Point3(1.25f, 1.5f, z)});
    }
    return Soup(tris);
}

const Box3 kCube(Point3(0, 0, 0), Point3(16, 16, 16));  // power-of-two cells: exact planes

std::unique_ptr<PatternOctreeNode> buildTree(const std::vector<const PatternFace*>& faces,
                                             int depth = 0, int threadLimit = 0,
                                             const Box3& box = kCube) {
    OctreeBuild build;
    build.threadLimit = threadLimit;
    auto root = std::make_unique<PatternOctreeNode>(box, faces, 0, depth, build);
    linkNeighbours(root.get());
    return root;
}

template <class F>
void forEachNode(const PatternOctreeNode* node, F&& f) {
    f(node);
    if (!node->isLeaf()) {
        for (const PatternOctreeNode* c : node->children) forEachNode(c, f);
    }
}

// A tile in the mesh's own space, centred, with a crop box a bit larger than the mesh.
void buildCentred(PatternTile& tile, Mesh mesh, int threadLimit = -1) {
    const Box3 b = mesh.getBoundingBox();
    tile.build(mesh, TransMatrix(-b.Center()), b.Width() * 1.25f + Point3(0.5f, 0.5f, 0.5f), 1, 1,
               {.threadLimit = threadLimit});
}

TEST(OctreeBuild, SubdividesAboveTenFacesPerLevelAndNeverBelowDepth16) {
    const Soup none({}), one = smallTriangles(1), many = smallTriangles(500);
    EXPECT_TRUE(buildTree(none.list())->isLeaf());
    auto root = buildTree(one.list());  // 0 * 10 < 1
    ASSERT_FALSE(root->isLeaf());
    EXPECT_TRUE(root->faces.empty() && root->faceCount == 0);
    for (const auto& [depth, count, leaf] : std::vector<std::tuple<int, int, bool>>{
             {1, 10, true}, {1, 11, false}, {2, 20, true}, {2, 21, false}, {16, 500, true}}) {
        std::vector<const PatternFace*> faces = many.list();
        faces.resize(count);
        auto node = buildTree(faces, depth);
        EXPECT_EQ(node->isLeaf(), leaf) << "depth " << depth << ", " << count << " faces";
        EXPECT_EQ(node->faceCount, leaf ? count : 0);
    }
    auto nearBottom = buildTree(many.list(), 15);
    for (const PatternOctreeNode* c : nearBottom->children) EXPECT_TRUE(c->isLeaf());
}

TEST(OctreeBuild, AFaceOnAChildBoundaryIsListedInEveryChildItTouches) {
    // In the plane x = 8 between octants 0 and 1, low in y and z; then one
    // that touches the centre with a corner only.
    const Soup soup({{Point3(8, 2, 2), Point3(8, 6, 2), Point3(8, 2, 6)},
                     {Point3(8, 8, 8), Point3(12, 14, 15), Point3(13, 15, 14)}});
    for (int f = 0; f < 2; ++f) {
        auto root = buildTree({&soup.faces[f]});
        for (int i = 0; i < 8; ++i)
            EXPECT_EQ(root->children[i]->faceCount, int(f == 1 || i <= 1)) << f << ", octant " << i;
    }
}

// Nodes in depth-first order, so that two trees compare node by node, links included.
struct FlatTree {
    explicit FlatTree(const PatternOctreeNode* root) {
        forEachNode(root, [&](const PatternOctreeNode* n) {
            index[n] = static_cast<int>(nodes.size());
            nodes.push_back(n);
        });
        index[nullptr] = -1;
    }
    std::vector<const PatternOctreeNode*> nodes;
    std::map<const PatternOctreeNode*, int> index;
};

TEST(OctreeBuild, TheSameTreeWhateverTheThreadLimit) {
    PatternTile serial, parallel;
    const Mesh torus = makeTorusMesh(10, 3, 96, 48);
    buildCentred(serial, torus, 0);
    buildCentred(parallel, torus, 16);
    const FlatTree a(serial.tree.get()), b(parallel.tree.get());
    ASSERT_EQ(a.nodes.size(), b.nodes.size());
    ASSERT_GT(a.nodes.size(), 1000u);
    for (size_t i = 0; i < a.nodes.size(); ++i) {
        const PatternOctreeNode& x = *a.nodes[i];
        const PatternOctreeNode& y = *b.nodes[i];
        ASSERT_TRUE(x.box.pmin == y.box.pmin && x.box.pmax == y.box.pmax) << i;
        ASSERT_TRUE(x.depth == y.depth && x.octant == y.octant && x.faceCount == y.faceCount);
        ASSERT_EQ(x.faces.size(), y.faces.size());
        for (size_t f = 0; f < x.faces.size(); ++f) {
            ASSERT_EQ(x.faces[f]->faceIndex, y.faces[f]->faceIndex);
            // Leaves hold faces that overlap them, in face order.
            EXPECT_TRUE(triangleBoxOverlap(*x.faces[f], x.box));
            EXPECT_TRUE(f == 0 || x.faces[f - 1]->faceIndex < x.faces[f]->faceIndex);
        }
        ASSERT_EQ(a.index.at(x.parent), b.index.at(y.parent));
        for (int c = 0; c < 8; ++c) ASSERT_EQ(a.index.at(x.children[c]), b.index.at(y.children[c]));
        for (int s = 0; s < 6; ++s)
            ASSERT_EQ(a.index.at(x.neighbour[s]), b.index.at(y.neighbour[s]));
    }
    const OctreeStats stats = octreeStats(serial.tree.get());
    EXPECT_EQ(stats.nodes, static_cast<int>(a.nodes.size()));
    EXPECT_EQ(stats.nodes, (stats.leaves - 1) / 7 * 8 + 1);  // inner nodes have eight children
}

TEST(OctreeBoxes, TriangleOverlapCountsPointsOnTheBoxAsInside) {
    const Box3 unit(Point3(0, 0, 0), Point3(1, 1, 1));
    auto overlaps = [&](Point3 a, Point3 b, Point3 c) {
        return triangleBoxOverlap(Soup({{a, b, c}}).faces[0], unit);
    };
    EXPECT_TRUE(overlaps({0.1f, 0.1f, 0.1f}, {0.9f, 0.1f, 0.5f}, {0.1f, 0.9f, 0.9f}));
    EXPECT_FALSE(overlaps({2, 2, 2}, {3, 2, 2}, {2, 3, 2}));
    EXPECT_TRUE(overlaps({-5, 0.5f, -5}, {5, 0.5f, -5}, {0, 0.5f, 5}));
    // Bounding boxes overlap, but the plane x + y + z = 3.1 passes the corner.
    EXPECT_FALSE(overlaps({3.1f, 0, 0}, {0, 3.1f, 0}, {0, 0, 3.1f}));
    EXPECT_TRUE(overlaps({2.9f, 0, 0}, {0, 2.9f, 0}, {0, 0, 2.9f}));
    // Touching at a corner, along an edge, lying in a face; just off a face.
    EXPECT_TRUE(overlaps({1, 1, 1}, {2, 1, 3}, {3, 2, 1}));
    EXPECT_TRUE(overlaps({1, -1, 0.5f}, {1, 2, 0.5f}, {3, 0.5f, 0.5f}));
    EXPECT_TRUE(overlaps({0.2f, 0.2f, 1}, {0.8f, 0.2f, 1}, {0.5f, 0.8f, 1}));
    EXPECT_FALSE(overlaps({1.001f, -1, 0.5f}, {1.001f, 2, 0.5f}, {3, 0.5f, 0.5f}));
    // A segment through the box; non-finite corners overlap nothing.
    EXPECT_TRUE(overlaps({-1, 0.5f, 0.5f}, {2, 0.5f, 0.5f}, {2, 0.5f, 0.5f}));
    EXPECT_FALSE(overlaps({0.5f, 0.5f, 0.5f}, {kInf, 0.5f, 0.5f}, {0.6f, 0.6f, 0.6f}));
}

TEST(OctreeBoxes, ExitTiesGoToTheEarlierAxisAndClipsNeedToEnter) {
    const Box3 box(Point3(0, 0, 0), Point3(2, 2, 2));
    const Point3 mid(1, 1, 1);
    EXPECT_EQ(boxExit(mid, Point3(1, 0.5f, 0), box).t, 1.0f);
    EXPECT_EQ(boxExit(mid, Point3(0, 0, -4), box).side, kSideNegZ);
    EXPECT_EQ(boxExit(mid, Point3(-1, -1, 0), box).side, kSideNegX);
    EXPECT_EQ(boxExit(mid, Point3(0, 1, 1), box).side, kSidePosY);
    EXPECT_EQ(boxExit(mid, Point3(0, 0, 0), box).side, -1);

    auto clip = [&](Point3 o, Point3 d, float t0, float t1) {
        const bool enters = clipRayToBox(o, d, box, t0, t1);
        return std::make_tuple(enters, t0, t1);
    };
    EXPECT_EQ(clip(mid, {1, 0, 0}, 0.25f, 100), std::make_tuple(true, 0.25f, 1.0f));
    EXPECT_EQ(clip({-2, 1, 1}, {2, 0, 0}, 0, 100), std::make_tuple(true, 1.0f, 2.0f));
    EXPECT_EQ(clip({4, 1, 1}, {-1, 0, 0}, 0, 100), std::make_tuple(true, 2.0f, 4.0f));
    EXPECT_FALSE(std::get<0>(clip({-2, 1, 1}, {2, 0, 0}, 0, 0.5f)));
    // Parallel: outside the slab misses, on its boundary is kept.
    EXPECT_FALSE(std::get<0>(clip({-2, 2.5f, 1}, {1, 0, 0}, 0, 100)));
    EXPECT_TRUE(std::get<0>(clip({-2, 2, 1}, {1, 0, 0}, 0, 100)));
    // Touching a corner only is not entering.
    EXPECT_EQ(clip({-1, 1, 1}, {1, 1, 0}, 0, 100), std::make_tuple(false, 1.0f, 1.0f));
}

// One leaf over everything: the per-face test without a box restriction.
struct OneLeaf {
    explicit OneLeaf(const std::vector<const PatternFace*>& faces,
                     const Box3& box = Box3(Point3(-kInf, -kInf, -kInf), Point3(kInf, kInf, kInf)))
        : node(box, faces, 0, 16, build) {}
    // Straight down from z = 10.
    bool hit(float x, float y, float tStart = 0, float tEnd = 100, int64_t skipKey = -1) {
        ray = TileRay{};
        ray.ownerKey = 0x80000001u;
        ray.skipKey = skipKey;
        ray.origin = Point3(x, y, 10);
        ray.direction = Point3(0, 0, -1);
        ray.tStart = tStart;
        ray.tEnd = tEnd;
        result = TileHit{};
        return intersectLeaf(node, ray, result);
    }
    OctreeBuild build;
    PatternOctreeNode node;
    TileRay ray;
    TileHit result;
};

const Tri kLow{Point3(0, 0, 2), Point3(4, 0, 2), Point3(0, 4, 2)};  // hit at t = 8
const Tri kHigh{Point3(0, 0, 5), Point3(4, 0, 5), Point3(0, 4, 5)};

TEST(PerFaceTest, InclusiveRangeEdgesAndCornersWithoutEpsilon) {
    const Soup soup({kLow});
    OneLeaf leaf(soup.list());
    EXPECT_TRUE(leaf.hit(1, 1, 8.0f, 8.0f));
    EXPECT_EQ(leaf.ray.tEnd, 8.0f);
    EXPECT_FALSE(leaf.hit(1, 1, std::nextafter(8.0f, 9.0f)));
    EXPECT_FALSE(leaf.hit(1, 1, 0.0f, std::nextafter(8.0f, 0.0f)));
    // On edge AB (gamma 0), AC (beta 0), BC (beta + gamma 1), at corner B.
    for (const auto& [x, y, beta, gamma] : std::vector<std::array<float, 4>>{
             {2, 0, 0.5f, 0}, {0, 2, 0, 0.5f}, {2, 2, 0.5f, 0.5f}, {4, 0, 1, 0}}) {
        ASSERT_TRUE(leaf.hit(x, y)) << x << ", " << y;
        EXPECT_EQ(leaf.result.beta, beta);
        EXPECT_EQ(leaf.result.gamma, gamma);
    }
    EXPECT_FALSE(leaf.hit(2, -1e-6f));
    EXPECT_FALSE(leaf.hit(2, 2.001f));
}

TEST(PerFaceTest, LaterFacesWinTiesAndEveryFaceIsTested) {
    const Soup soup({kLow, {kLow[0], kLow[2], kLow[1]}, kLow, kHigh, kLow});
    OneLeaf leaf(soup.list());
    ASSERT_TRUE(leaf.hit(1, 1));
    EXPECT_EQ(leaf.result.faceIndex, 3);  // nearest, though not first
    // Without it, the last of the coincident faces.
    const Soup coincident({kLow, {kLow[0], kLow[2], kLow[1]}, kLow});
    OneLeaf leaf2(coincident.list());
    ASSERT_TRUE(leaf2.hit(1, 1));
    EXPECT_EQ(leaf2.result.faceIndex, 2);
}

TEST(PerFaceTest, SkippedEdgeOnAndOutOfLeafFacesAreNotHit) {
    const Soup soup({kLow, kHigh, {Point3(1, 0, 0), Point3(1, 4, 0), Point3(1, 0, 4)}});
    OneLeaf leaf(soup.list());
    // Keys are sign-extended; the skipped face is passed.
    ASSERT_TRUE(leaf.hit(2, 1, 0, 100, faceKeyOf(0x80000001u, 1)));
    EXPECT_EQ(leaf.result.faceIndex, 0);
    EXPECT_EQ(leaf.result.faceKey, int64_t(int32_t(0x80000001u)));
    // The face in the plane x = 1 is seen edge-on from straight above.
    ASSERT_TRUE(leaf.hit(1, 1, 0, 100, faceKeyOf(0x80000001u, 1)));
    EXPECT_EQ(leaf.result.faceIndex, 0);
    // A leaf above the faces' plane leaves the hit to the leaf it lies in.
    OneLeaf above(soup.list(), Box3(Point3(0, 0, 5.5f), Point3(4, 4, 9)));
    EXPECT_FALSE(above.hit(2, 1));
    EXPECT_EQ(above.ray.tEnd, 100.0f);
}

TEST(Traverse, EmptyTreesAndBadRaysMissWithoutHanging) {
    const Soup none({});
    PatternTile tile;
    buildCentred(tile, makeSphereMesh(5, 24));
    const Point3 c = tile.tree->centre;
    auto walk = [&](const PatternOctreeNode* root, Point3 d, float t0 = 0, Point3 o = Point3()) {
        TileRay ray;
        ray.origin = o == Point3() ? c : o;
        ray.direction = d;
        ray.tStart = t0;
        ray.tEnd = 1e30f;
        TileHit h;
        return traverse(ray, root, h);
    };
    EXPECT_TRUE(walk(tile.tree.get(), Point3(1, 0.1f, 0.2f)));
    EXPECT_FALSE(walk(buildTree(none.list()).get(), Point3(1, 0.1f, 0.2f)));
    EXPECT_FALSE(walk(nullptr, Point3(1, 0, 0)));
    EXPECT_FALSE(walk(tile.tree.get(), Point3(0, 0, 0)));
    EXPECT_FALSE(walk(tile.tree.get(), Point3(kInf, 1, 0)));
    EXPECT_FALSE(walk(tile.tree.get(), Point3(1, 0, 0), std::nanf("")));
    EXPECT_FALSE(walk(tile.tree.get(), Point3(1, 0, 0), 2e30f));
    EXPECT_FALSE(walk(tile.tree.get(), Point3(1, 0, 0), 0, Point3(std::nanf(""), 0, 0)));
    walk(tile.tree.get(), Point3(1e-30f, 1e-31f, 0));  // must only end
    walk(tile.tree.get(), Point3(1e30f, -1e29f, 3e29f));
}

// The rope walk against testing every face: same face, same distance, same weights.
void compareWithBruteForce(const PatternTile& tile, int rayCount, uint32_t seed) {
    std::vector<const PatternFace*> all;
    for (const PatternFace& f : tile.faces) all.push_back(&f);
    OneLeaf everything(all);
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u01(0.0f, 1.0f);
    auto u3 = [&] { return Point3(u01(rng), u01(rng), u01(rng)); };
    const Box3 bounds = tile.tree->box;
    const Point3 size = bounds.Width();
    int rays = 0, hits = 0, mismatches = 0;
    for (int i = 0; i < rayCount; ++i) {
        TileRay ray;
        ray.ownerKey = 0x5bd1e995u;
        ray.origin = bounds.pmin - size * 0.25f + size * 1.5f * u3();
        // Mostly aimed at points on faces, some with that face skipped.
        const PatternFace& face = tile.faces[rng() % tile.faces.size()];
        float a = u01(rng), b = u01(rng);
        if (a + b > 1.0f) a = 1.0f - a, b = 1.0f - b;
        const Point3 onFace = *face.vertex[0] + (*face.vertex[1] - *face.vertex[0]) * a +
                              (*face.vertex[2] - *face.vertex[0]) * b;
        ray.direction = (i % 4 ? onFace : bounds.pmin + size * u3()) - ray.origin;
        if (i % 5 == 1) ray.skipKey = faceKeyOf(ray.ownerKey, face.faceIndex);
        ray.tStart = i % 3 == 0 ? 0.3f * u01(rng) : 0.0f;
        ray.tEnd = i % 3 == 1 ? 0.8f + u01(rng) : 1e30f;
        if (!clipRayToBox(ray.origin, ray.direction, bounds, ray.tStart, ray.tEnd)) continue;
        ++rays;

        TileRay brute = ray, walked = ray;
        TileHit bruteHit, walkedHit;
        const bool found = intersectLeaf(everything.node, brute, bruteHit);
        hits += found;
        const bool same =
            traverse(walked, tile.tree.get(), walkedHit) == found &&
            (!found || (brute.tEnd == walked.tEnd && bruteHit.faceKey == walkedHit.faceKey &&
                        bruteHit.faceIndex == walkedHit.faceIndex &&
                        bruteHit.beta == walkedHit.beta && bruteHit.gamma == walkedHit.gamma));
        if (!same && ++mismatches <= 5) {
            ADD_FAILURE() << "ray " << i << ": every face " << found << " face "
                          << bruteHit.faceIndex << " t " << brute.tEnd << "; walk face "
                          << walkedHit.faceIndex << " t " << walked.tEnd;
        }
        if (!found) continue;
        // Independently: the hit point lies on the reported face.
        const PatternFace& hitFace = tile.faces[bruteHit.faceIndex];
        const Point3 q = *hitFace.vertex[0] +
                         (*hitFace.vertex[1] - *hitFace.vertex[0]) * bruteHit.beta +
                         (*hitFace.vertex[2] - *hitFace.vertex[0]) * bruteHit.gamma;
        EXPECT_LT(Length(ray.origin + ray.direction * brute.tEnd - q), 1e-3f * Length(size));
    }
    EXPECT_GT(rays, rayCount * 3 / 4);
    EXPECT_GT(hits, rays / 2);
    EXPECT_EQ(mismatches, 0);
}

TEST(TraverseOracle, AgreesWithEveryFaceTested) {
    std::vector<std::pair<std::string, Mesh>> meshes = {
        {"sphere", makeSphereMesh(10, 72)},
        {"torus", makeTorusMesh(10, 3, 64, 32)},
        {"dense box", makeBoxMesh(10, 12, 8, 20, 24, 16)},
    };
    // And the first big mesh of a real model, where it is installed.
    const std::filesystem::path file = "/usr/share/assimp/models/OBJ/WusonOBJ.obj";
    if (std::filesystem::exists(file)) {
        ImportedScene scene = importMeshFile(file);
        for (ImportedNode& node : scene.nodes) {
            if (!node.mesh || node.mesh->getNumFaces() < 3000) continue;
            meshes.emplace_back(file.filename().string(), *node.mesh);
            break;
        }
        EXPECT_EQ(meshes.size(), 4u) << "no mesh of 3000 faces in " << file;
    }
    uint32_t seed = 1;
    for (const auto& [name, mesh] : meshes) {
        SCOPED_TRACE(name);
        PatternTile tile;
        buildCentred(tile, mesh);
        EXPECT_GT(tile.faceCount, 3000);
        compareWithBruteForce(tile, 4000, seed++);
    }
}

}  // namespace
}  // namespace mq
