// Surface analysis: edge flags that let neighbouring prisms share their
// diagonals, the stretch factor per normal, and UV islands.
#include "render/surface_analysis.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <utility>
#include <vector>

namespace mq {
namespace {

// A mesh from vertex and UV triangles (one map vertex per entry of uvs).
Mesh meshOf(const std::vector<Point3>& verts, const std::vector<std::array<uint32_t, 3>>& tris,
            const std::vector<Point3>& uvs, const std::vector<std::array<uint32_t, 3>>& uvTris) {
    Mesh mesh;
    mesh.verts = verts;
    for (const auto& t : tris) mesh.faces.push_back(Face{{t[0], t[1], t[2]}, 1, 0});
    mesh.setMapSupport(1);
    mesh.Map(1).verts = uvs;
    mesh.Map(1).faces.clear();
    for (const auto& t : uvTris) mesh.Map(1).faces.push_back(TVFace{{t[0], t[1], t[2]}});
    return mesh;
}

// Every undirected edge and the (face, edge) pairs that use it, found by
// brute force rather than through the analysis's face lists.
std::map<std::pair<uint32_t, uint32_t>, std::vector<std::pair<int, int>>> edgeUses(
    const Mesh& mesh) {
    std::map<std::pair<uint32_t, uint32_t>, std::vector<std::pair<int, int>>> uses;
    for (int f = 0; f < mesh.getNumFaces(); ++f) {
        for (int k = 0; k < 3; ++k) {
            const uint32_t a = mesh.faces[f].v[k], b = mesh.faces[f].v[(k + 1) % 3];
            uses[{std::min(a, b), std::max(a, b)}].push_back({f, k});
        }
    }
    return uses;
}

// Checks flags of a closed or open manifold mesh: complementary on every
// shared edge, never three equal on a face. Returns the shared edges seen.
int expectConsistentFlags(const Mesh& mesh, const surfDist& dist) {
    int shared = 0;
    for (const auto& [edge, uses] : edgeUses(mesh)) {
        if (uses.size() != 2) continue;
        ++shared;
        const auto [f, k] = uses[0];
        const auto [g, j] = uses[1];
        EXPECT_NE(dist.faces[f].edge[k], dist.faces[g].edge[j])
            << "edge " << edge.first << "-" << edge.second << " faces " << f << ", " << g;
    }
    for (int f = 0; f < dist.faceCount; ++f) {
        const uint8_t* e = dist.faces[f].edge;
        EXPECT_FALSE(e[0] == e[1] && e[1] == e[2]) << "face " << f;
        for (int k = 0; k < 3; ++k) EXPECT_LE(e[k], 1);
    }
    EXPECT_FALSE(dist.cycleBreakingCapped);
    return shared;
}

TEST(SurfDistFlags, ComplementaryOnSharedEdgesOfHostPrimitives) {
    struct Case {
        const char* name;
        Mesh mesh;
        int sharedEdges;
    };
    Case cases[] = {
        {"sphere", makeSphereMesh(10.0f, 16), -1},
        {"torus", makeTorusMesh(10.0f, 3.0f, 24, 12), -1},
        {"plane", makePlaneMesh(10.0f, 20.0f, 7, 5), 4 * 7 + 6 * 5 + 5 * 7},
        {"box", makeBoxMesh(10.0f, 10.0f, 10.0f, 3, 2, 4), -1},
    };
    int mostPasses = 0;
    for (Case& c : cases) {
        SCOPED_TRACE(c.name);
        surfDist dist;
        ASSERT_TRUE(dist.build(c.mesh, 1, Point3(1, 1, 0)));
        const int shared = expectConsistentFlags(c.mesh, dist);
        if (c.sharedEdges >= 0) {
            EXPECT_EQ(shared, c.sharedEdges);
        } else {
            EXPECT_EQ(shared * 2, c.mesh.getNumFaces() * 3);  // closed: every edge shared
        }
        mostPasses = std::max(mostPasses, dist.cycleBreakingPasses);
    }
    // At least one mesh needed the cycle-breaking pass to do something.
    EXPECT_GT(mostPasses, 1);
}

TEST(SurfDistFlags, TwoTrianglesByHand) {
    // Quad 0-1-2-3 split along 0-2: even face starts 1,0,1, odd 0,1,0, and
    // the shared diagonal (edge 2 of face 0, edge 0 of face 1) already differs.
    Mesh mesh = meshOf({{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}}, {{0, 1, 2}, {0, 2, 3}},
                       {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}}, {{0, 1, 2}, {0, 2, 3}});
    surfDist dist;
    ASSERT_TRUE(dist.build(mesh, 1, Point3(1, 1, 0)));
    const uint8_t expected[2][3] = {{1, 0, 1}, {0, 1, 0}};
    for (int f = 0; f < 2; ++f) {
        for (int k = 0; k < 3; ++k) EXPECT_EQ(dist.faces[f].edge[k], expected[f][k]);
    }
    EXPECT_EQ(dist.neighbour(0, 2), 1);
    EXPECT_EQ(dist.neighbour(1, 0), 0);
    EXPECT_EQ(dist.neighbour(0, 0), -1);
    EXPECT_EQ(dist.cycleBreakingPasses, 1);
}

TEST(SurfDistFlags, SameFlagsOnEveryBuildAndCopy) {
    Mesh mesh = makeTorusMesh(10.0f, 4.0f, 20, 10);
    surfDist first;
    ASSERT_TRUE(first.build(mesh, 1, Point3(1, 1, 0)));
    std::vector<surfDist::FaceRecord> flags = first.faces;
    const int passes = first.cycleBreakingPasses;
    // Built again (the stream restarts at its seed) and on a copy of the mesh.
    ASSERT_TRUE(first.build(mesh, 1, Point3(1, 1, 0)));
    Mesh copy = mesh;
    surfDist second;
    ASSERT_TRUE(second.build(copy, 1, Point3(3, 5, 0)));
    for (const surfDist* d : {&first, &second}) {
        EXPECT_EQ(d->cycleBreakingPasses, passes);
        for (size_t f = 0; f < flags.size(); ++f) {
            for (int k = 0; k < 3; ++k) ASSERT_EQ(d->faces[f].edge[k], flags[f].edge[k]) << f;
        }
    }
}

TEST(SurfDistFlags, EdgeOfThreeFacesTakesHighestOtherFaceAndEnds) {
    // Three faces hinge on edge 0-1; the walk of vertex 0 runs 2, 1, 0.
    Mesh mesh = meshOf({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0, 1}},
                       {{0, 1, 2}, {1, 0, 3}, {0, 1, 4}},
                       {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, -1, 0}, {0, 0.5f, 0}},
                       {{0, 1, 2}, {1, 0, 3}, {0, 1, 4}});
    surfDist dist;
    ASSERT_TRUE(dist.build(mesh, 1, Point3(1, 1, 0)));
    EXPECT_EQ(dist.neighbour(0, 0), 2);
    EXPECT_EQ(dist.neighbour(2, 0), 1);
    EXPECT_EQ(dist.neighbour(1, 0), 2);
    EXPECT_LE(dist.cycleBreakingPasses, surfDist::kMaxCycleBreakingPasses);
}

TEST(SurfDistScale, UniformAndStretchedPlanes) {
    // Width runs along X with u, length along Y with v; UVs span 0..1.
    struct Case {
        float length, width;
        Point3 period;
        float expected;
    };
    const Case cases[] = {
        {10, 10, {1, 1, 0}, 10.0f},
        {10, 10, {2, 4, 0}, std::sqrt(5.0f * 2.5f)},
        {10, 20, {1, 1, 0}, std::sqrt(20.0f * 10.0f)},
    };
    for (const Case& c : cases) {
        Mesh mesh = makePlaneMesh(c.length, c.width, 3, 4);
        surfDist dist;
        ASSERT_TRUE(dist.build(mesh, 1, c.period));
        ASSERT_FALSE(dist.normalScale.empty());
        for (float w : dist.normalScale) EXPECT_NEAR(w, c.expected, c.expected * 1e-5f);
        for (uint8_t valid : dist.faceValid) EXPECT_EQ(valid, 1);
    }
}

TEST(SurfDistScale, UnmeasuredFacesCountAsZero) {
    // Three faces side by side; face 1 has collapsed UVs, face 2 a collapsed
    // world triangle (its UVs are fine). Normal 0 is shared by faces 0 and
    // 1, normal 1 is face 2's alone, normal 2 is used by no face.
    Mesh mesh = meshOf({{0, 0, 0}, {2, 0, 0}, {0, 2, 0}, {4, 0, 0}, {5, 0, 0}, {6, 0, 0}},
                       {{0, 1, 2}, {1, 3, 2}, {3, 4, 5}},
                       {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0.5f, 0.5f, 0}},
                       {{0, 1, 2}, {3, 3, 3}, {0, 1, 2}});
    mesh.SpecifyNormals();
    mesh.GetSpecifiedNormals()->SetNormals({{0, 0, 1}, {0, 0, 1}, {0, 0, 1}},
                                           {{0, 0, 0}, {0, 0, 0}, {1, 1, 1}});
    surfDist dist;
    ASSERT_TRUE(dist.build(mesh, 1, Point3(1, 1, 0)));
    EXPECT_EQ(dist.faceValid, (std::vector<uint8_t>{1, 0, 1}));
    ASSERT_EQ(dist.normalScale.size(), 3u);
    EXPECT_NEAR(dist.normalScale[0], 2.0f * 3 / 6, 1e-6f);  // face 0's scale 2, face 1's 0
    EXPECT_EQ(dist.normalScale[1], 0.0f);                   // not the previous face's world frame
    EXPECT_EQ(dist.normalScale[2], 0.0f);
}

TEST(SurfDistIslands, LabelsAreTheSmallestMapVertexOfEachUvIsland) {
    // Two faces share world vertices 0 and 2 but no map vertex.
    Mesh pair = meshOf({{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}}, {{0, 1, 2}, {0, 2, 3}},
                       {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {5, 5, 0}, {6, 6, 0}, {5, 6, 0}},
                       {{2, 1, 0}, {3, 4, 5}});
    surfDist dist;
    ASSERT_TRUE(dist.build(pair, 1, Point3(1, 1, 0)));
    EXPECT_EQ(dist.faceValue(0), 0);  // the smallest map vertex, not the first corner's
    EXPECT_EQ(dist.faceValue(1), 3);
    EXPECT_EQ(dist.islandCount(), 2);

    // Each side of a box has its own UV grid: six islands, one per material id.
    Mesh box = makeBoxMesh(10, 10, 10, 2, 2, 2);
    ASSERT_TRUE(dist.build(box, 1, Point3(1, 1, 0)));
    EXPECT_EQ(dist.islandCount(), 6);
    std::map<int, int> labelOfSide;
    for (int f = 0; f < box.getNumFaces(); ++f)
        EXPECT_EQ(labelOfSide.try_emplace(box.faces[f].getMatID(), dist.faceValue(f)).first->second,
                  dist.faceValue(f));
    EXPECT_EQ(labelOfSide.size(), 6u);

    // A strip listed from its far end: the smallest map vertex is in the
    // last face, so one pass over the faces is not enough.
    const int n = 12;
    std::vector<Point3> verts, uvs;
    std::vector<std::array<uint32_t, 3>> tris;
    for (int i = 0; i < n + 2; ++i) {
        verts.push_back(Point3(float(i), float(i % 2), 0));
        uvs.push_back(verts.back() * 0.1f);
    }
    for (uint32_t i = n; i-- > 0;)
        tris.push_back(i % 2 == 0 ? std::array{i, i + 1, i + 2} : std::array{i + 1, i, i + 2});
    Mesh strip = meshOf(verts, tris, uvs, tris);
    ASSERT_TRUE(dist.build(strip, 1, Point3(1, 1, 0)));
    for (int32_t label : dist.islandLabel) EXPECT_EQ(label, 0);
    EXPECT_EQ(dist.islandCount(), 1);
    expectConsistentFlags(strip, dist);
}

TEST(SurfDistBuild, RefusesMissingChannelsAndBrokenIndices) {
    Mesh mesh = makePlaneMesh(1, 1, 2, 2);
    surfDist dist;
    EXPECT_FALSE(dist.build(mesh, 2, Point3(1, 1, 0)));  // beyond the channels in use
    EXPECT_FALSE(dist.build(mesh, 0, Point3(1, 1, 0)));  // in range, not supported
    EXPECT_FALSE(dist.build(mesh, -1, Point3(1, 1, 0)));
    EXPECT_FALSE(dist.build(mesh, 100, Point3(1, 1, 0)));
    EXPECT_EQ(dist.faceCount, 0);

    for (int broken = 0; broken < 3; ++broken) {
        Mesh bad = mesh;
        if (broken == 0) bad.Map(1).faces[3].t[1] = 999;
        if (broken == 1) bad.faces[2].v[0] = 999;
        if (broken == 2) bad.Map(1).faces.pop_back();
        EXPECT_FALSE(dist.build(bad, 1, Point3(1, 1, 0))) << broken;
    }

    ASSERT_TRUE(dist.build(mesh, 1, Point3(1, 1, 0)));
    EXPECT_EQ(dist.faceCount, 8);
    dist.release();
    EXPECT_TRUE(dist.faceCount == 0 && dist.faces.empty() && dist.normals == nullptr);
}

}  // namespace
}  // namespace mq
