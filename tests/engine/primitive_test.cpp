// The tetrahedral piece: its matrices, boxes, world clip, intersection
// against an explicitly built mesh of the same geometry, normals, and that
// intersecting allocates nothing.
#include "engine/primitive.h"

#include "engine/segment_walk.h"
#include "engine/tile.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <random>
#include <vector>

// Counts allocations made on a thread while it has counting switched on.
namespace {
thread_local bool tCountAllocations = false;
std::atomic<long> gAllocations{0};
}  // namespace

void* operator new(std::size_t size) {
    if (tCountAllocations) gAllocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
// GCC pairs the inlined free with callers' new-expressions and warns; the
// pairing is right because operator new above uses malloc.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
#pragma GCC diagnostic pop

namespace mq {
namespace {

using Triangle = std::array<Point3, 3>;

// A tile whose faces are given in tile space; normals per face corner, or
// computed flat when none are given.
std::unique_ptr<PatternTile> makeTile(const std::vector<Triangle>& tris, const Point3& crop,
                                      int segU, int segV,
                                      const std::vector<Triangle>& normals = {}) {
    Mesh mesh;
    mesh.setNumVerts(int(tris.size()) * 3);
    mesh.setNumFaces(int(tris.size()));
    std::vector<Point3> normalPool;
    std::vector<std::array<int, 3>> normalFaces;
    for (size_t f = 0; f < tris.size(); ++f) {
        for (int c = 0; c < 3; ++c) {
            mesh.setVert(int(f * 3 + c), tris[f][c]);
            mesh.faces[f].v[c] = uint32_t(f * 3 + c);
            if (!normals.empty()) normalPool.push_back(normals[f][c]);
        }
        normalFaces.push_back({int(f * 3), int(f * 3 + 1), int(f * 3 + 2)});
    }
    if (!normals.empty()) {
        mesh.SpecifyNormals();
        mesh.GetSpecifiedNormals()->SetNormals(normalPool, normalFaces);
    }
    auto tile = std::make_unique<PatternTile>();
    tile->build(mesh, TransMatrix(crop * -0.5f), crop, segU, segV);
    return tile;
}

void addFloor(std::vector<Triangle>& tris, float x0, float y0, float x1, float y1, float z) {
    tris.push_back({Point3(x0, y0, z), Point3(x1, y0, z), Point3(x1, y1, z)});
    tris.push_back({Point3(x0, y0, z), Point3(x1, y1, z), Point3(x0, y1, z)});
}

const Point3 kUnit[4] = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}};

WorldRay makeRay(const Point3& origin, const Point3& direction) {
    WorldRay ray;
    ray.origin[0] = origin.x;
    ray.origin[1] = origin.y;
    ray.origin[2] = origin.z;
    ray.direction = direction;
    return ray;
}

void expectNear(const Point3& a, const Point3& b, float tolerance) {
    EXPECT_NEAR(a.x, b.x, tolerance);
    EXPECT_NEAR(a.y, b.y, tolerance);
    EXPECT_NEAR(a.z, b.z, tolerance);
}

// A non-uniform, sheared, rotated and moved affine map (det > 0).
Matrix3 skewMap() {
    Matrix3 m(Point3(0.5f, 0.1f, 0.0f), Point3(0.2f, 0.7f, 0.1f), Point3(0.0f, 0.3f, 0.9f),
              Point3(0, 0, 0));
    return m * RotateZMatrix(0.9f) * RotateXMatrix(0.3f) * TransMatrix(Point3(12, -5, 3.5f));
}

// ---------------------------------------------------------------------------
// A piece whose world and tile corners coincide (ten times the unit
// tetrahedron), so its matrices are exact; the tile has a floor at z = 5
// (faces 0, 1) and a wall at x = 5 (faces 2, 3).

class PrimitiveUnitPiece : public ::testing::Test {
protected:
    void SetUp() override {
        std::vector<Triangle> tris;
        addFloor(tris, 0, 0, 10, 10, 5);
        tris.push_back({Point3(5, 0, 0), Point3(5, 10, 0), Point3(5, 10, 10)});
        tris.push_back({Point3(5, 0, 0), Point3(5, 10, 10), Point3(5, 0, 10)});
        tile = makeTile(tris, Point3(10, 10, 10), 1, 1);
        ASSERT_TRUE(initPiece(prim, Point3(0, 0, 1)));
        ASSERT_TRUE(prim.worldToTile.IsIdentity());
    }
    bool initPiece(MosaiqPrimitive& piece, const Point3& surfaceNormal) {
        const Point3 dirs[4] = {surfaceNormal, surfaceNormal, surfaceNormal, surfaceNormal};
        return initPiece(piece, dirs);
    }
    bool initPiece(MosaiqPrimitive& piece, const Point3 dirs[4]) {
        Point3 corners[4];
        for (int i = 0; i < 4; ++i) corners[i] = kUnit[i] * 10.0f;
        piece.tile = tile.get();
        return piece.init(corners, corners, dirs, Point3(0, 0, 1), 0);
    }
    uint32_t ownerKeyOf(const MosaiqPrimitive& piece) const {
        return uint32_t(reinterpret_cast<uintptr_t>(&piece));
    }

    std::unique_ptr<PatternTile> tile;
    MosaiqPrimitive prim;
};

TEST_F(PrimitiveUnitPiece, HitWritesTheRayAndTheRecord) {
    WorldRay ray = makeRay({2, 1, 9}, {0, 0, -1});
    TileHit hit;
    ASSERT_TRUE(prim.intersect(ray, hit));
    EXPECT_EQ(ray.bestDistance, 4.0);
    EXPECT_EQ(ray.hitPrimitive, &prim);
    EXPECT_EQ(hit.faceIndex, 0);
    EXPECT_EQ(hit.faceKey, faceKeyOf(ownerKeyOf(prim), 0));
    EXPECT_EQ(ray.hitKey, hit.faceKey);
    // Face 0 runs (0,0) (10,0) (10,10): the point (2, 1) weighs corners 1
    // and 2 by 0.1 each. The shading point is in the piece's unit frame.
    EXPECT_NEAR(hit.beta, 0.1f, 1e-6f);
    EXPECT_NEAR(hit.gamma, 0.1f, 1e-6f);
    expectNear(hit.shadingPoint, Point3(0.2f, 0.1f, 0.5f), 1e-6f);
}

TEST_F(PrimitiveUnitPiece, MissLeavesRayAndRecordUntouched) {
    WorldRay ray = makeRay({2, 1, 9}, {0, 0, -1});
    ray.bestDistance = 3.9;
    TileHit hit;
    hit.faceIndex = 42;
    EXPECT_FALSE(prim.intersect(ray, hit));
    EXPECT_EQ(ray.bestDistance, 3.9);
    EXPECT_EQ(ray.hitPrimitive, nullptr);
    EXPECT_EQ(ray.hitKey, -1);
    EXPECT_EQ(hit.faceIndex, 42);
    // The wall is in tile space ahead of this ray, but only beyond the piece.
    WorldRay sideways = makeRay({0.5f, 3, 4}, {1, 0, 0});
    EXPECT_FALSE(prim.intersect(sideways, hit));
    WorldRay lower = makeRay({0.5f, 3, 1}, {1, 0, 0});
    EXPECT_TRUE(prim.intersect(lower, hit));
}

TEST_F(PrimitiveUnitPiece, HitsExactlyAtTheEndsOfTheRange) {
    const Point3 origin(2, 1, 9), down(0, 0, -1);
    TileHit hit;
    WorldRay atStart = makeRay(origin, down);
    atStart.tMin = 4.0f;
    ASSERT_TRUE(prim.intersect(atStart, hit));
    EXPECT_EQ(atStart.bestDistance, 4.0);
    atStart = makeRay(origin, down);
    atStart.tMin = std::nextafter(4.0f, 5.0f);
    EXPECT_FALSE(prim.intersect(atStart, hit));

    WorldRay atEnd = makeRay(origin, down);
    atEnd.tMax = 4.0f;
    ASSERT_TRUE(prim.intersect(atEnd, hit));
    atEnd = makeRay(origin, down);
    atEnd.tMax = std::nextafter(4.0f, 0.0f);
    EXPECT_FALSE(prim.intersect(atEnd, hit));

    // A hit at the current best distance still counts.
    WorldRay again = makeRay(origin, down);
    again.bestDistance = 4.0;
    EXPECT_TRUE(prim.intersect(again, hit));
}

TEST_F(PrimitiveUnitPiece, RayLeavingAFacePassesThroughIt) {
    // Starts exactly on the floor, heading down.
    const Point3 onFloor(2, 1, 5);
    WorldRay plain = makeRay(onFloor, {0, 0, -1});
    TileHit hit;
    ASSERT_TRUE(prim.intersect(plain, hit));
    EXPECT_EQ(plain.bestDistance, 0.0);
    const int64_t leftFace = plain.hitKey;

    WorldRay leaving = makeRay(onFloor, {0, 0, -1});
    leaving.skipKey = leftFace;
    EXPECT_FALSE(prim.intersect(leaving, hit));

    // The key names the face as seen through one piece only.
    MosaiqPrimitive other = prim;
    WorldRay throughOther = makeRay(onFloor, {0, 0, -1});
    throughOther.skipKey = leftFace;
    ASSERT_TRUE(other.intersect(throughOther, hit));
    EXPECT_EQ(throughOther.hitKey, faceKeyOf(ownerKeyOf(other), 0));
}

TEST_F(PrimitiveUnitPiece, RayParallelToASidePlane) {
    TileHit hit;
    // Parallel to face 0 (x + y + z = 10) and outside it: the floor point it
    // crosses, (4, 3, 5), lies outside the piece.
    WorldRay outside = makeRay({1, 3, 8}, {1, 0, -1});
    EXPECT_FALSE(prim.intersect(outside, hit));
    // Inside that plane, the same direction finds the floor.
    WorldRay inside = makeRay({0.5f, 1, 7}, {1, 0, -1});
    ASSERT_TRUE(prim.intersect(inside, hit));
    EXPECT_EQ(inside.bestDistance, 2.0);
    // Exactly on face 3 (z = 0): kept, and the wall's bottom edge is hit.
    WorldRay onPlane = makeRay({1, 2, 0}, {1, 0, 0});
    ASSERT_TRUE(prim.intersect(onPlane, hit));
    EXPECT_EQ(hit.faceIndex, 2);
    EXPECT_EQ(onPlane.bestDistance, 4.0);
    // Just below it: outside.
    WorldRay below = makeRay({1, 2, -1e-6f}, {1, 0, 0});
    EXPECT_FALSE(prim.intersect(below, hit));
}

TEST_F(PrimitiveUnitPiece, ZeroOrNonFiniteDirectionMisses) {
    TileHit hit;
    WorldRay still = makeRay({2, 1, 5}, {0, 0, 0});
    EXPECT_FALSE(prim.intersect(still, hit));
    WorldRay nan = makeRay({2, 1, 9}, {0, std::numeric_limits<float>::quiet_NaN(), -1});
    EXPECT_FALSE(prim.intersect(nan, hit));
}

TEST_F(PrimitiveUnitPiece, ShadingNormalIsNotBentWhenSurfaceNormalIsUpOrOpposite) {
    WorldRay ray = makeRay({2, 1, 9}, {0, 0, -1});
    TileHit hit;
    ASSERT_TRUE(prim.intersect(ray, hit));
    expectNear(prim.shadingNormal(hit), Point3(0, 0, 1), 1e-6f);

    MosaiqPrimitive flipped;
    ASSERT_TRUE(initPiece(flipped, Point3(0, 0, -3)));
    expectNear(flipped.shadingNormal(hit), Point3(0, 0, 1), 1e-6f);
}

TEST_F(PrimitiveUnitPiece, ShadingNormalTurnsWithTheSurfaceNormal) {
    WorldRay ray = makeRay({2, 1, 9}, {0, 0, -1});
    TileHit hit;
    ASSERT_TRUE(prim.intersect(ray, hit));
    // The floor's normal is up, so it turns exactly onto the surface normal.
    for (const Point3 n : {Point3(1, 0, 1), Point3(0, -1, 0), Point3(0.3f, 0.2f, -0.9f)}) {
        MosaiqPrimitive bent;
        ASSERT_TRUE(initPiece(bent, n));
        expectNear(bent.shadingNormal(hit), Normalize(n), 1e-5f);
    }
    // Corner normals blended by the shading point (0.2, 0.1, 0.5): weights
    // 0.2, 0.2, 0.1, 0.5 for corners 0..3.
    const Point3 dirs[4] = {{0, 0, 1}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    MosaiqPrimitive blended;
    ASSERT_TRUE(initPiece(blended, dirs));
    expectNear(blended.shadingNormal(hit), Normalize(Point3(0.2f, 0.1f, 0.7f)), 1e-5f);
}

// Corner normals given per face corner: the shading normal blends them by
// the hit's barycentrics and turns the result about up x N.
TEST(PrimitiveShading, BlendsPatternNormalsAndRotatesThem) {
    std::vector<Triangle> tris;
    addFloor(tris, 0, 0, 10, 10, 5);
    const std::vector<Triangle> normals = {{Point3(0, 0, 1), Point3(1, 0, 0), Point3(0, 1, 0)},
                                           {Point3(0, 0, 1), Point3(0, 0, 1), Point3(0, 0, 1)}};
    auto tile = makeTile(tris, Point3(10, 10, 10), 1, 1, normals);

    Point3 tc[4], up[4];
    for (int i = 0; i < 4; ++i) {
        tc[i] = kUnit[i] * 10.0f;
        up[i] = Point3(0, 0, 1);
    }
    MosaiqPrimitive prim;
    prim.tile = tile.get();
    ASSERT_TRUE(prim.init(kUnit, tc, up, Point3(0, 0, 1), 0));
    WorldRay ray = makeRay({0.3f, 0.1f, 0.9f}, {0, 0, -1});
    TileHit hit;
    ASSERT_TRUE(prim.intersect(ray, hit));
    ASSERT_EQ(hit.faceIndex, 0);
    // Tile point (3, 1): corner weights 0.7, 0.2 (beta), 0.1 (gamma).
    const Point3 pattern = Normalize(Point3(0.2f, 0.1f, 0.7f));
    expectNear(prim.shadingNormal(hit), pattern, 1e-5f);

    // Rodrigues: rotate about k = up x N by the angle from up to N.
    const Point3 n = Normalize(Point3(0.4f, -0.5f, 0.6f));
    Point3 dirs[4] = {n, n, n, n};
    ASSERT_TRUE(prim.init(kUnit, tc, dirs, Point3(0, 0, 2), 0));
    const Point3 k = Normalize(CrossProd(Point3(0, 0, 1), n));
    const float c = n.z, s = Length(CrossProd(Point3(0, 0, 1), n));
    const Point3 expected =
        pattern * c + CrossProd(k, pattern) * s + k * (DotProd(k, pattern) * (1 - c));
    expectNear(prim.shadingNormal(hit), expected, 1e-5f);
}

// ---------------------------------------------------------------------------

TEST(PrimitiveInit, MatricesCarryCornersAndRoundTrip) {
    const Point3 tc[4] = {{-3, -4, 0}, {17, -2, 0}, {2, 15, 0}, {4, 3, 10}};
    const Matrix3 map = skewMap();
    Point3 w[4], dirs[4];
    for (int i = 0; i < 4; ++i) {
        w[i] = tc[i] * map;
        dirs[i] = Point3(0, 0, 1);
    }
    MosaiqPrimitive prim;
    ASSERT_TRUE(prim.init(w, tc, dirs, Point3(0, 0, 5), 9));
    EXPECT_EQ(prim.seed, 9);
    expectNear(prim.upVector, Point3(0, 0, 1), 0);

    for (int i = 0; i < 4; ++i) {
        expectNear(w[i] * prim.worldToTile, tc[i], 1e-4f);
        expectNear(tc[i] * prim.tileToWorld, w[i], 1e-4f);
        expectNear(w[i] * prim.shadingTM, kUnit[i], 1e-5f);
    }
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> coord(-20.0f, 20.0f);
    for (int i = 0; i < 100; ++i) {
        const Point3 p(coord(rng), coord(rng), coord(rng));
        expectNear(p * prim.worldToTile * prim.tileToWorld, p, 1e-4f);
        // Normals stay perpendicular to the tangents they were perpendicular to.
        const Point3 tangent(coord(rng), coord(rng), coord(rng));
        const Point3 normal = CrossProd(tangent, Point3(coord(rng), coord(rng), coord(rng)));
        const Point3 worldTangent = prim.tileToWorld.VectorTransform(tangent);
        const Point3 worldNormal = prim.normalTM.VectorTransform(normal);
        EXPECT_NEAR(DotProd(Normalize(worldTangent), Normalize(worldNormal)), 0.0f, 1e-5f);
    }
    // Side planes point outwards: every corner lies inside the other three.
    for (int face = 0; face < 4; ++face) {
        const auto& plane = prim.sidePlanes[face];
        EXPECT_NEAR(Length(plane.normal), 1.0f, 1e-6f);
        EXPECT_LT(DotProd(w[face] - plane.point, plane.normal), 0.0f) << face;
    }
}

TEST(PrimitiveInit, DropsInvertedAndDegeneratePieces) {
    const Point3 dirs[4] = {{0, 0, 1}, {0, 0, 1}, {0, 0, 1}, {0, 0, 1}};
    MosaiqPrimitive prim;
    // The other winding: a valid mapping, but the side normals point inwards.
    const Point3 swapped[4] = {kUnit[0], kUnit[2], kUnit[1], kUnit[3]};
    EXPECT_FALSE(prim.init(swapped, swapped, dirs, dirs[0], 0));
    EXPECT_EQ(prim.corners[1], kUnit[2]);  // fields are still written

    const Point3 flatWorld[4] = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0}};
    EXPECT_FALSE(prim.init(flatWorld, kUnit, dirs, dirs[0], 0));
    EXPECT_FALSE(prim.init(kUnit, flatWorld, dirs, dirs[0], 0));

    // Tiny but sound pieces pass; the frames' determinants must reach 1e-30.
    Point3 small[4], tiny[4];
    for (int i = 0; i < 4; ++i) {
        small[i] = kUnit[i] * 1e-9f;  // det 1e-27
        tiny[i] = kUnit[i] * 1e-11f;  // det 1e-33
    }
    EXPECT_TRUE(prim.init(small, kUnit, dirs, dirs[0], 0));
    EXPECT_TRUE(prim.init(kUnit, small, dirs, dirs[0], 0));
    EXPECT_FALSE(prim.init(tiny, kUnit, dirs, dirs[0], 0));
    EXPECT_FALSE(prim.init(kUnit, tiny, dirs, dirs[0], 0));
}

TEST(PrimitiveBoxes, BoundingBoxAndSplits) {
    MosaiqPrimitive prim;
    const Point3 dirs[4] = {{0, 0, 1}, {0, 0, 1}, {0, 0, 1}, {0, 0, 1}};
    ASSERT_TRUE(prim.init(kUnit, kUnit, dirs, dirs[0], 0));
    const Box3 full = prim.boundingBox();
    EXPECT_EQ(full.pmin, Point3(0, 0, 0));
    EXPECT_EQ(full.pmax, Point3(1, 1, 1));

    const Point3 emptyMin(1e20f, 1e20f, 1e20f), emptyMax(-1e20f, -1e20f, -1e20f);
    Box3 lower, upper;
    // No corner strictly below: an empty lower box (corners on the plane count as upper).
    for (float position : {0.0f, -2.0f}) {
        prim.splitBox(0, position, lower, upper);
        EXPECT_EQ(lower.pmin, emptyMin);
        EXPECT_EQ(lower.pmax, emptyMax);
        EXPECT_EQ(upper.pmin, full.pmin);
        EXPECT_EQ(upper.pmax, full.pmax);
    }
    prim.splitBox(2, 1.5f, lower, upper);
    EXPECT_EQ(lower.pmin, full.pmin);
    EXPECT_EQ(lower.pmax, full.pmax);
    EXPECT_EQ(upper.pmin, emptyMin);

    // At x = 0.25 the edges from corner 1 cross at (0.25, 0, 0),
    // (0.25, 0.75, 0) and (0.25, 0, 0.75), which bound the upper part.
    prim.splitBox(0, 0.25f, lower, upper);
    expectNear(lower.pmin, Point3(0, 0, 0), 0);
    expectNear(lower.pmax, Point3(0.25f, 1, 1), 1e-7f);
    expectNear(upper.pmin, Point3(0.25f, 0, 0), 1e-7f);
    expectNear(upper.pmax, Point3(1, 0.75f, 0.75f), 1e-7f);
}

// ---------------------------------------------------------------------------
// Random rays against the procedural piece and against the explicit mesh of
// what the piece shows: every cell's segment copy of the tile's faces, in
// world space, kept where it lies inside the piece and its cell.

struct D3 {
    double x, y, z;
};
D3 toD(const Point3& p) { return {p.x, p.y, p.z}; }
D3 operator+(D3 a, D3 b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
D3 operator-(D3 a, D3 b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
D3 operator*(D3 a, double s) { return {a.x * s, a.y * s, a.z * s}; }
double dot(D3 a, D3 b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
D3 cross(D3 a, D3 b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
D3 transform(D3 p, const Matrix3& m) {
    return toD(m[0]) * p.x + toD(m[1]) * p.y + toD(m[2]) * p.z + toD(m[3]);
}

struct Reference {
    bool hit = false;
    double t = 0;
    int face = -1;
};

Reference explicitMeshHit(const PatternTile& tile, const Matrix3& tileToWorld, const Point3 tc[4],
                          int32_t seed, D3 origin, D3 direction) {
    const D3 t0 = toD(tc[0]);
    const D3 e1 = toD(tc[1]) - t0, e2 = toD(tc[2]) - t0, e3 = toD(tc[3]) - t0;
    const double volume = dot(e1, cross(e2, e3));
    auto insidePiece = [&](D3 p) {
        const D3 d = p - t0;
        const double a = dot(d, cross(e2, e3)) / volume;
        const double b = dot(e1, cross(d, e3)) / volume;
        const double c = dot(e1, cross(e2, d)) / volume;
        return a >= 0 && b >= 0 && c >= 0 && a + b + c <= 1;
    };
    const Point3 size = tile.segmentSize;
    Box3 bounds;
    for (int i = 0; i < 4; ++i) bounds += tc[i];
    const int cu0 = int(std::floor(bounds.pmin.x / size.x)) - 1;
    const int cu1 = int(std::floor(bounds.pmax.x / size.x)) + 1;
    const int cv0 = int(std::floor(bounds.pmin.y / size.y)) - 1;
    const int cv1 = int(std::floor(bounds.pmax.y / size.y)) + 1;
    Reference best;
    for (int cu = cu0; cu <= cu1; ++cu) {
        for (int cv = cv0; cv <= cv1; ++cv) {
            const SegmentPick pick = segmentPick(cu + seed, cv);
            const int su = int(pick.u) % tile.segmentCountU, sv = int(pick.v) % tile.segmentCountV;
            const D3 shift{double(cu - su) * size.x, double(cv - sv) * size.y, 0};
            for (const PatternFace& face : tile.faces) {
                const D3 a = toD(*face.vertex[0]) + shift, b = toD(*face.vertex[1]) + shift,
                         c = toD(*face.vertex[2]) + shift;
                const D3 wa = transform(a, tileToWorld), wb = transform(b, tileToWorld),
                         wc = transform(c, tileToWorld);
                // Moller-Trumbore, both sides.
                const D3 f1 = wb - wa, f2 = wc - wa, pv = cross(direction, f2);
                const double det = dot(f1, pv);
                if (det == 0) continue;
                const D3 tv = origin - wa;
                const double u = dot(tv, pv) / det;
                const D3 qv = cross(tv, f1);
                const double v = dot(direction, qv) / det;
                const double t = dot(f2, qv) / det;
                if (u < 0 || v < 0 || u + v > 1 || t < 0) continue;
                const D3 p = a + (b - a) * u + (c - a) * v;
                if (p.x < cu * size.x || p.x > (cu + 1) * size.x || p.y < cv * size.y ||
                    p.y > (cv + 1) * size.y || !insidePiece(p))
                    continue;
                if (!best.hit || t < best.t) best = {true, t, face.faceIndex};
            }
        }
    }
    return best;
}

void compareWithExplicitMesh(int segU, int segV, int32_t seed) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    std::vector<Triangle> tris;
    for (int i = 0; i < 150; ++i) {
        const Point3 a(unit(rng) * 10, unit(rng) * 10, unit(rng) * 10);
        auto near = [&] {
            Point3 p = a + Point3(unit(rng) - 0.5f, unit(rng) - 0.5f, unit(rng) - 0.5f) * 4.0f;
            for (int k = 0; k < 3; ++k) p[k] = std::clamp(p[k], 0.0f, 10.0f);
            return p;
        };
        tris.push_back({a, near(), near()});
    }
    auto tile = makeTile(tris, Point3(10, 10, 10), segU, segV);

    const Point3 tc[4] = {{-3, -4, 0}, {17, -2, 0}, {2, 15, 0}, {4, 3, 10}};
    const Matrix3 map = skewMap();
    Point3 w[4], dirs[4];
    for (int i = 0; i < 4; ++i) {
        w[i] = tc[i] * map;
        dirs[i] = Point3(0, 0, 1);
    }
    MosaiqPrimitive prim;
    prim.tile = tile.get();
    ASSERT_TRUE(prim.init(w, tc, dirs, Point3(0, 0, 1), seed));

    constexpr int kRays = 600;
    int hits = 0, mismatches = 0;
    for (int i = 0; i < kRays; ++i) {
        // Aim at a point inside the piece from a random direction.
        float b[4] = {unit(rng), unit(rng), unit(rng), unit(rng)};
        const float sum = b[0] + b[1] + b[2] + b[3];
        const Point3 target = (w[0] * b[0] + w[1] * b[1] + w[2] * b[2] + w[3] * b[3]) / sum;
        const Point3 direction =
            Normalize(Point3(unit(rng) - 0.5f, unit(rng) - 0.5f, unit(rng) - 0.5f));
        const Point3 origin = target - direction * 20.0f;

        WorldRay ray = makeRay(origin, direction);
        TileHit hit;
        const bool found = prim.intersect(ray, hit);
        const Reference ref = explicitMeshHit(*tile, map, tc, seed, toD(origin), toD(direction));
        hits += found;
        const bool agree =
            found == ref.hit &&
            (!found || (hit.faceIndex == ref.face && std::fabs(ray.bestDistance - ref.t) < 1e-3));
        if (!agree && ++mismatches <= 5) {
            ADD_FAILURE() << "ray " << i << ": piece " << found << " face " << hit.faceIndex
                          << " t " << ray.bestDistance << ", mesh " << ref.hit << " face "
                          << ref.face << " t " << ref.t;
        }
    }
    EXPECT_GT(hits, kRays / 5);
    EXPECT_LE(mismatches, kRays / 200);
}

TEST(PrimitiveIntersect, MatchesExplicitMeshWithOneSegment) { compareWithExplicitMesh(1, 1, 0); }

TEST(PrimitiveIntersect, MatchesExplicitMeshWithRandomSegments) {
    compareWithExplicitMesh(2, 2, 42);
    compareWithExplicitMesh(3, 1, -5);
}

TEST(PrimitiveNormals, GeometricNormalIsUnitAndPerpendicularToTheWorldFace) {
    const Triangle face = {Point3(1, 1, 1), Point3(8, 2, 3), Point3(3, 7, 4)};
    auto tile = makeTile({face}, Point3(10, 10, 10), 1, 1);
    const Point3 tc[4] = {{0, 0, 0}, {30, 0, 0}, {0, 30, 0}, {0, 0, 10}};
    const Matrix3 map = skewMap();
    Point3 w[4], dirs[4];
    for (int i = 0; i < 4; ++i) {
        w[i] = tc[i] * map;
        dirs[i] = Point3(0, 0, 1);
    }
    MosaiqPrimitive prim;
    prim.tile = tile.get();
    ASSERT_TRUE(prim.init(w, tc, dirs, Point3(0, 0, 1), 0));

    const Point3 target = ((face[0] + face[1] + face[2]) / 3.0f) * map;
    WorldRay ray = makeRay(target + Point3(0.3f, -0.2f, 1.0f) * 2.0f, Point3(-0.3f, 0.2f, -1.0f));
    TileHit hit;
    ASSERT_TRUE(prim.intersect(ray, hit));
    ASSERT_EQ(hit.faceIndex, 0);

    const Point3 g = prim.geometricNormal(hit);
    EXPECT_NEAR(Length(g), 1.0f, 1e-6f);
    const Point3 e1 = map.VectorTransform(face[1] - face[0]);
    const Point3 e2 = map.VectorTransform(face[2] - face[0]);
    EXPECT_NEAR(DotProd(g, Normalize(e1)), 0.0f, 1e-5f);
    EXPECT_NEAR(DotProd(g, Normalize(e2)), 0.0f, 1e-5f);
    EXPECT_NEAR(DotProd(g, Normalize(CrossProd(e1, e2))), 1.0f, 1e-5f);
    // Flat pattern normals, surface normal = up: the shading normal is the face's.
    expectNear(prim.shadingNormal(hit), g, 1e-5f);
}

// ---------------------------------------------------------------------------

TEST(PrimitiveIntersect, AllocatesNothing) {
    std::vector<Triangle> tris;
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    for (int i = 0; i < 2000; ++i) {
        const Point3 a(unit(rng) * 10, unit(rng) * 10, unit(rng) * 10);
        tris.push_back({a, a + Point3(unit(rng), unit(rng), 0), a + Point3(0, unit(rng), 1)});
    }
    auto tile = makeTile(tris, Point3(10, 10, 10), 2, 3);
    const Point3 tc[4] = {{-3, -4, 0}, {17, -2, 0}, {2, 15, 0}, {4, 3, 10}};
    const Matrix3 map = skewMap();
    Point3 w[4], dirs[4];
    for (int i = 0; i < 4; ++i) {
        w[i] = tc[i] * map;
        dirs[i] = Normalize(Point3(unit(rng), unit(rng), 1));
    }
    MosaiqPrimitive prim;
    prim.tile = tile.get();
    ASSERT_TRUE(prim.init(w, tc, dirs, Point3(0, 0, 1), 3));
    std::vector<WorldRay> rays;
    for (int i = 0; i < 5000; ++i) {
        const Point3 target = (w[0] + w[1] + w[2] + w[3]) / 4.0f;
        const Point3 direction =
            Normalize(Point3(unit(rng) - 0.5f, unit(rng) - 0.5f, unit(rng) - 0.5f));
        rays.push_back(makeRay(target - direction * (10.0f * unit(rng)), direction));
    }
    SegmentRandomTable::fill();

    int hits = 0;
    float checksum = 0;
    gAllocations = 0;
    tCountAllocations = true;
    for (WorldRay& ray : rays) {
        TileHit hit;
        if (prim.intersect(ray, hit)) {
            ++hits;
            checksum += prim.shadingNormal(hit).z + prim.geometricNormal(hit).z;
        }
    }
    tCountAllocations = false;
    EXPECT_EQ(gAllocations.load(), 0);
    EXPECT_GT(hits, 1000);
    EXPECT_TRUE(std::isfinite(checksum));
}

}  // namespace
}  // namespace mq
