// Surface mapping: which faces become prisms, where the prisms stand in
// world and tile space, and that the pieces of neighbouring prisms fill
// space without gaps or overlaps.
#include "render/surface_mapping.h"

#include "host/node.h"
#include "host/object.h"
#include "support/tile_test_util.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <map>
#include <memory>
#include <numbers>
#include <random>
#include <vector>

namespace mq {
namespace {

using test::floorTile;

// Host primitives number materials from 1 inside the mesh; the tests want
// Poli_ID 1, i.e. material id 0.
Mesh withMaterialZero(Mesh mesh) {
    for (Face& f : mesh.faces) f.setMatID(0);
    return mesh;
}

// Six times the signed volume of the tetrahedron (a, b, c, d), in double.
double volume6(const Point3& a, const Point3& b, const Point3& c, const Point3& d) {
    const double u[3] = {double(b.x) - a.x, double(b.y) - a.y, double(b.z) - a.z};
    const double v[3] = {double(c.x) - a.x, double(c.y) - a.y, double(c.z) - a.z};
    const double w[3] = {double(d.x) - a.x, double(d.y) - a.y, double(d.z) - a.z};
    return u[0] * (v[1] * w[2] - v[2] * w[1]) - u[1] * (v[0] * w[2] - v[2] * w[0]) +
           u[2] * (v[0] * w[1] - v[1] * w[0]);
}

// p lies in the piece: each barycentric coordinate (p in place of one
// corner) is at least -eps.
bool inside(const MosaiqPrimitive& piece, const Point3& p, double eps) {
    const Point3* c = piece.corners;
    const double whole = volume6(c[0], c[1], c[2], c[3]);
    return volume6(p, c[1], c[2], c[3]) / whole >= -eps &&
           volume6(c[0], p, c[2], c[3]) / whole >= -eps &&
           volume6(c[0], c[1], p, c[3]) / whole >= -eps &&
           volume6(c[0], c[1], c[2], p) / whole >= -eps;
}

double volume(const Point3 c[4]) { return std::fabs(volume6(c[0], c[1], c[2], c[3])) / 6.0; }

SurfaceMappingSettings settings(float height, float shift, float tilingU, float tilingV,
                                bool realWorldScale = false) {
    SurfaceMappingSettings s;
    s.height = height;
    s.shift = shift;
    s.tilingU = tilingU;
    s.tilingV = tilingV;
    s.realWorldScale = realWorldScale;
    return s;
}

TEST(SurfaceMappingRange, PoliIdCountsFromOne) {
    auto tile = floorTile(Point3(10, 20, 4));
    Mesh mesh = makePlaneMesh(10, 10, 1, 2);  // four faces
    const uint16_t ids[4] = {0, 1, 0, 2};
    for (int f = 0; f < 4; ++f) mesh.faces[f].setMatID(ids[f]);

    struct Case {
        int from, to, faces;
    };
    for (const Case c : {Case{1, 1, 2}, Case{2, 3, 2}, Case{1, 3, 4}, Case{5, 9, 0}}) {
        SCOPED_TRACE(testing::Message() << c.from << ".." << c.to);
        SurfaceMappingSettings s;
        s.poliIdFrom = c.from;
        s.poliIdTo = c.to;
        Mesh copy = mesh;
        SurfaceMapping mapping;
        std::vector<MosaiqPrimitive> pieces;
        ASSERT_TRUE(mapping.buildFromMesh(copy, *tile, s, pieces));
        EXPECT_EQ(mapping.stats.facesInRange, c.faces);
        EXPECT_EQ(pieces.size(), size_t(c.faces) * 3);
        EXPECT_EQ(mapping.primitiveCount, c.faces * 3);
        EXPECT_EQ(mapping.stats.piecesDropped, 0);
        for (int i = 0; i < mapping.primitiveCount; ++i) EXPECT_EQ(pieces[i].tile, tile.get());
    }
}

TEST(SurfaceMappingPrism, HeightShiftTilingAndRealWorldScale) {
    // Plane 10 x 10 with UVs 0..1. The stretch factor w is world 10 over a
    // tile period of 2 x crop x tiling, per axis, in the geometric mean;
    // prisms reach 2 x crop.z x w x height / 100 up from -shift x w.
    const struct {
        Point3 crop;
        float height, shift, tilingU, tilingV;
        bool realWorld;
        float tu, tv, w, bottom, top;
    } cases[] = {
        {{5, 5, 4}, 100, 0, 2, 2, false, 2, 2, 0.5f, 0.0f, 4.0f},
        {{5, 5, 4}, 50, 0, 2, 2, false, 2, 2, 0.5f, 0.0f, 2.0f},
        {{5, 5, 4}, 100, 1, 2, 2, false, 2, 2, 0.5f, -0.5f, 3.5f},  // positive shift sinks
        {{5, 5, 4}, 100, -1, 2, 2, false, 2, 2, 0.5f, 0.5f, 4.5f},  // negative shift lifts
        {{5, 8, 4}, 100, 0, 2, 4, false, 2, 4, 0.2795085f, 0.0f, 2.236068f},
        {{5, 8, 4}, 100, 0, 2, 4, true, 0.5f, 0.25f, 2.236068f, 0.0f, 17.888544f},  // reciprocal
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "height " << c.height << " shift " << c.shift << " tiling " << c.tilingU
                     << " x " << c.tilingV << (c.realWorld ? " real world" : ""));
        auto tile = floorTile(c.crop);
        Mesh mesh = withMaterialZero(makePlaneMesh(10, 10, 4, 4));
        SurfaceMapping mapping;
        std::vector<MosaiqPrimitive> pieces;
        ASSERT_TRUE(mapping.buildFromMesh(
            mesh, *tile, settings(c.height, c.shift, c.tilingU, c.tilingV, c.realWorld), pieces));
        EXPECT_EQ(mapping.tilingU, c.tu);
        EXPECT_EQ(mapping.tilingV, c.tv);
        EXPECT_NEAR(mapping.stats.stretchMin, c.w, c.w * 1e-5f);
        EXPECT_NEAR(mapping.stats.stretchMax, c.w, c.w * 1e-5f);
        ASSERT_EQ(mapping.primitiveCount, 32 * 3);
        for (int i = 0; i < mapping.primitiveCount; ++i) {
            for (const Point3& corner : pieces[i].corners) {
                const Point3 t = corner * pieces[i].worldToTile;
                if (std::fabs(corner.z - c.bottom) < 1e-5f) {
                    // Bottom corners sit at tile z 0 where the surface's UV puts them.
                    const float u = corner.x / 10 + 0.5f, v = corner.y / 10 + 0.5f;
                    EXPECT_NEAR(t.x, u * c.tu * c.crop.x, 1e-4f);
                    EXPECT_NEAR(t.y, v * c.tv * c.crop.y, 1e-4f);
                    EXPECT_NEAR(t.z, 0.0f, 1e-4f);
                } else {
                    EXPECT_NEAR(corner.z, c.top, std::max(1e-5f, 4e-6f * c.top));
                    EXPECT_NEAR(t.z, c.crop.z, 1e-4f);
                }
            }
        }
    }
}

TEST(SurfaceMappingCover, FlatPrismsAreFilledExactlyOnce) {
    // Flat plane, one normal: each prism is right and its pieces must fill
    // it with no gap (every point covered) and no overlap (volumes add up).
    auto tile = floorTile(Point3(5, 5, 4));
    Mesh mesh = withMaterialZero(makePlaneMesh(4, 6, 2, 3));
    SurfaceMapping mapping;
    std::vector<MosaiqPrimitive> pieces;
    ASSERT_TRUE(mapping.buildFromMesh(mesh, *tile, settings(60, 0.3f, 1, 1), pieces));
    const int faces = mesh.getNumFaces();
    ASSERT_EQ(mapping.primitiveCount, faces * 3);
    // w = sqrt(6 / 10 * 4 / 10); bottom and top of every prism.
    const float w = std::sqrt(0.6f * 0.4f);
    const float zBottom = -0.3f * w, zTop = zBottom + 60 * 8 * 0.01f * w;

    std::mt19937 rng(7);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    for (int f = 0; f < faces; ++f) {
        const Point3 a = mesh.verts[mesh.faces[f].v[0]];
        const Point3 b = mesh.verts[mesh.faces[f].v[1]];
        const Point3 c = mesh.verts[mesh.faces[f].v[2]];
        const double prismVolume =
            0.5 * double(Length(CrossProd(b - a, c - a))) * double(zTop - zBottom);
        double pieceVolume = 0;
        for (int i = 3 * f; i < 3 * f + 3; ++i) pieceVolume += volume(pieces[i].corners);
        EXPECT_NEAR(pieceVolume, prismVolume, prismVolume * 1e-4) << "face " << f;

        for (int s = 0; s < 200; ++s) {
            float r1 = unit(rng), r2 = unit(rng);
            if (r1 + r2 > 1) r1 = 1 - r1, r2 = 1 - r2;
            Point3 p = a + (b - a) * r1 + (c - a) * r2;
            p.z = zBottom + (zTop - zBottom) * unit(rng);
            int own = 0, any = 0;
            for (int i = 0; i < mapping.primitiveCount; ++i) {
                if (!inside(pieces[i], p, 1e-5)) continue;
                ++any;
                if (i / 3 == f) ++own;
            }
            EXPECT_GE(own, 1) << "gap in face " << f;
            // On a shared side or diagonal a point may touch two pieces, never more.
            EXPECT_LE(any, 2) << "overlap in face " << f;
        }
    }
}

TEST(SurfaceMappingCover, CurvedNeighboursShareTheirSideTriangles) {
    // On a smooth sphere the prisms' sides are bent; the side triangles of a
    // face's pieces lie in the neighbour's pieces only when both cut the side
    // along the same diagonal, and tile space agrees there from both sides.
    auto tile = floorTile(Point3(5, 5, 4));
    Mesh mesh = withMaterialZero(makeSphereMesh(10, 12));
    SurfaceMapping mapping;
    std::vector<MosaiqPrimitive> pieces;
    ASSERT_TRUE(mapping.buildFromMesh(mesh, *tile, settings(100, 0.5f, 1, 1), pieces));
    const int faces = mesh.getNumFaces();
    // No piece turned inside out anywhere on a closed surface.
    ASSERT_EQ(mapping.primitiveCount, faces * 3);
    EXPECT_EQ(mapping.stats.islands, 1);

    // Neighbours across each undirected edge, found by brute force.
    std::map<std::pair<uint32_t, uint32_t>, std::vector<int>> edgeFaces;
    for (int f = 0; f < faces; ++f) {
        for (int k = 0; k < 3; ++k) {
            const uint32_t a = mesh.faces[f].v[k], b = mesh.faces[f].v[(k + 1) % 3];
            edgeFaces[{std::min(a, b), std::max(a, b)}].push_back(f);
        }
    }
    auto isCornerOf = [&](int g, const Point3& p) {
        for (int i = 3 * g; i < 3 * g + 3; ++i) {
            for (const Point3& c : pieces[i].corners) {
                if (c == p) return true;
            }
        }
        return false;
    };

    // Tile space is continuous across edges whose map vertices both faces share.
    auto mapVertexAt = [&](int f, uint32_t v) {
        for (int k = 0; k < 3; ++k) {
            if (mesh.faces[f].v[k] == v) return mesh.Map(1).faces[f].t[k];
        }
        return ~0u;
    };

    std::mt19937 rng(11);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    int sideTriangles = 0, continuousSides = 0;
    for (const auto& [edge, pair] : edgeFaces) {
        ASSERT_EQ(pair.size(), 2u);
        const bool sharedUvs =
            mapVertexAt(pair[0], edge.first) == mapVertexAt(pair[1], edge.first) &&
            mapVertexAt(pair[0], edge.second) == mapVertexAt(pair[1], edge.second);
        continuousSides += sharedUvs;
        for (int side = 0; side < 2; ++side) {
            const int f = pair[side], g = pair[1 - side];
            for (int i = 3 * f; i < 3 * f + 3; ++i) {
                const Point3* c = pieces[i].corners;
                for (int skip = 0; skip < 4; ++skip) {
                    Point3 tri[3];
                    int n = 0;
                    for (int j = 0; j < 4; ++j) {
                        if (j != skip) tri[n++] = c[j];
                    }
                    // Side triangles on the shared edge: all corners are g's too.
                    if (!isCornerOf(g, tri[0]) || !isCornerOf(g, tri[1]) || !isCornerOf(g, tri[2]))
                        continue;
                    ++sideTriangles;
                    for (int s = 0; s < 10; ++s) {
                        float r1 = unit(rng), r2 = unit(rng);
                        if (r1 + r2 > 1) r1 = 1 - r1, r2 = 1 - r2;
                        const Point3 p = tri[0] + (tri[1] - tri[0]) * r1 + (tri[2] - tri[0]) * r2;
                        int hit = -1;
                        for (int h = 3 * g; h < 3 * g + 3 && hit < 0; ++h) {
                            if (inside(pieces[h], p, 1e-4)) hit = h;
                        }
                        ASSERT_GE(hit, 0) << "gap between faces " << f << " and " << g;
                        if (!sharedUvs) continue;
                        const Point3 fromF = p * pieces[i].worldToTile;
                        const Point3 fromG = p * pieces[hit].worldToTile;
                        EXPECT_NEAR(Length(fromF - fromG), 0.0f, 1e-3f);
                    }
                }
            }
        }
    }
    // Two side triangles per side of every shared edge.
    EXPECT_EQ(sideTriangles, int(edgeFaces.size()) * 2 * 2);
    EXPECT_GT(continuousSides, int(edgeFaces.size()) / 2);
}

// Mapping settings whose surface is a node holding mesh.
struct SurfaceScene {
    explicit SurfaceScene(Mesh mesh, const Matrix3& tm = Matrix3()) {
        node.SetObjectRef(new TriObject(std::move(mesh)));
        node.setLocalTM(tm);
        settings.surface = node.GetHandle();
    }
    Node node{"Surface"};
    SurfaceMappingSettings settings;
};

TEST(SurfaceMappingScene, MirroredSurfaceKeepsFacesOutward) {
    auto tile = floorTile(Point3(5, 5, 4));
    const Point3 centre(3, -2, 1);
    for (const Matrix3& tm :
         {TransMatrix(centre), ScaleMatrix(Point3(-1, 1, 1)) * TransMatrix(centre),
          ScaleMatrix(Point3(-1, -1, -1)) * RotateZMatrix(0.3f) * TransMatrix(centre)}) {
        SCOPED_TRACE(tm.Determinant() < 0 ? "mirrored" : "plain");
        SurfaceScene scene(withMaterialZero(makeSphereMesh(10, 12)), tm);
        Mesh world;
        ASSERT_TRUE(surfaceWorldMesh(scene.settings.surface, 0, world));
        for (const Face& face : world.faces) {
            const Point3 a = world.verts[face.v[0]];
            const Point3 n = CrossProd(world.verts[face.v[1]] - a, world.verts[face.v[2]] - a);
            EXPECT_GT(DotProd(n, a - centre), 0.0f);
        }

        SurfaceMapping mapping;
        std::vector<MosaiqPrimitive> pieces;
        ASSERT_TRUE(mapping.build(scene.settings, *tile, 0, pieces));
        // Every piece is accepted, and prisms grow out of the sphere.
        ASSERT_EQ(mapping.primitiveCount, world.getNumFaces() * 3);
        float farthest = 0;
        for (int i = 0; i < mapping.primitiveCount; ++i) {
            for (const Point3& c : pieces[i].corners) {
                const float r = Length(c - centre);
                EXPECT_GT(r, 10.0f - 1e-3f);
                farthest = std::max(farthest, r);
            }
        }
        EXPECT_GT(farthest, 10.5f);
    }
}

TEST(SurfaceMappingScene, ExplicitNormalsFollowTheTransform) {
    // A plane with explicit +Z normals, rotated and then mirrored: the
    // normals must still agree with the faces' world orientation.
    Mesh mesh = withMaterialZero(makePlaneMesh(4, 4, 2, 2));
    const int faces = mesh.getNumFaces();
    mesh.SpecifyNormals();
    mesh.GetSpecifiedNormals()->SetNormals({Point3(0, 0, 1)},
                                           std::vector<std::array<int, 3>>(faces, {0, 0, 0}));
    const float quarter = std::numbers::pi_v<float> / 2;
    for (const Matrix3& tm : {RotateXMatrix(quarter), ScaleMatrix(Point3(1, 1, -1)),
                              RotateXMatrix(quarter) * ScaleMatrix(Point3(2, -1, 1))}) {
        SurfaceScene scene(mesh, tm);
        Mesh world;
        ASSERT_TRUE(surfaceWorldMesh(scene.settings.surface, 0, world));
        const MeshNormalSpec* nspec = world.GetSpecifiedNormals();
        ASSERT_NE(nspec, nullptr);
        ASSERT_TRUE(nspec->IsExplicit());
        for (int f = 0; f < faces; ++f) {
            const Face& face = world.faces[f];
            const Point3 a = world.verts[face.v[0]];
            const Point3 n =
                Normalize(CrossProd(world.verts[face.v[1]] - a, world.verts[face.v[2]] - a));
            for (int c = 0; c < 3; ++c) {
                EXPECT_NEAR(DotProd(nspec->Normal(nspec->GetNormalIndex(f, c)), n), 1.0f, 1e-5f);
            }
        }
    }
}

TEST(SurfaceMappingScene, FailedMappingsLeaveNoPieces) {
    auto tile = floorTile(Point3(5, 5, 4));
    SurfaceMapping mapping;
    std::vector<MosaiqPrimitive> pieces;
    // A host plane's faces carry the user's material 1, which the default
    // Poli_ID 1..1 takes; 2..2 takes nothing.
    SurfaceScene scene(makePlaneMesh(10, 10, 2, 2));
    ASSERT_TRUE(mapping.build(scene.settings, *tile, 0, pieces));
    EXPECT_EQ(mapping.primitiveCount, 8 * 3);
    scene.settings.mapChannel = 3;
    EXPECT_FALSE(mapping.build(scene.settings, *tile, 0, pieces));
    EXPECT_EQ(mapping.primitiveCount, 0);
    scene.settings.mapChannel = 1;
    scene.settings.poliIdFrom = scene.settings.poliIdTo = 2;
    ASSERT_TRUE(mapping.build(scene.settings, *tile, 0, pieces));
    EXPECT_EQ(mapping.primitiveCount, 0);

    SurfaceScene empty{Mesh()};
    EXPECT_FALSE(mapping.build(empty.settings, *tile, 0, pieces));
    EXPECT_FALSE(mapping.build(SurfaceMappingSettings{}, *tile, 0, pieces));
    EXPECT_EQ(mapping.problem, "no \"Surface\" node is set");
}

}  // namespace
}  // namespace mq
