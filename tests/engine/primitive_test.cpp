// The tetrahedral piece: its matrices, boxes, world clip, intersection,
// normals, and that intersecting allocates nothing.
#include "engine/primitive.h"

#include "engine/segment_walk.h"
#include "support/test_util.h"
#include "support/tile_test_util.h"

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <new>

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

using test::addFloor;
using test::expectNear;
using test::makeTile;
using test::Triangle;

const Point3 kUnit[4] = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
const Point3 kUp(0, 0, 1);
const Point3 kUps[4] = {kUp, kUp, kUp, kUp};
// Tile corners of a piece reaching over several cells.
const Point3 kWideCorners[4] = {{-3, -4, 0}, {17, -2, 0}, {2, 15, 0}, {4, 3, 10}};

WorldRay makeRay(const Point3& origin, const Point3& direction) {
    WorldRay ray;
    for (int k = 0; k < 3; ++k) ray.origin[k] = origin[k];
    ray.direction = direction;
    return ray;
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
        ASSERT_TRUE(initPiece(prim, kUps));
        ASSERT_TRUE(prim.worldToTile.IsIdentity());
    }
    bool initPiece(MosaiqPrimitive& piece, const Point3 dirs[4]) {
        Point3 corners[4];
        for (int i = 0; i < 4; ++i) corners[i] = kUnit[i] * 10.0f;
        piece.tile = tile.get();
        return piece.init(corners, corners, dirs, kUp, 0);
    }
    static uint32_t ownerKeyOf(const MosaiqPrimitive& piece) {
        return uint32_t(reinterpret_cast<uintptr_t>(&piece));
    }

    std::unique_ptr<PatternTile> tile;
    MosaiqPrimitive prim;
};

TEST_F(PrimitiveUnitPiece, RangeEndsSidePlanesAndBadDirections) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const struct {
        const char* what;
        Point3 origin, direction;
        float tMin = 0.0f, tMax = 1e30f;
        double best = 1e30;
        double distance = -1;  // of the hit; -1 for a miss
        int face = -1;
    } cases[] = {
        {"hit exactly at tMin", {2, 1, 9}, {0, 0, -1}, 4.0f, 1e30f, 1e30, 4.0, 0},
        {"tMin just past the hit", {2, 1, 9}, {0, 0, -1}, std::nextafter(4.0f, 5.0f)},
        {"hit exactly at tMax", {2, 1, 9}, {0, 0, -1}, 0.0f, 4.0f, 1e30, 4.0, 0},
        {"tMax just short of the hit", {2, 1, 9}, {0, 0, -1}, 0.0f, std::nextafter(4.0f, 0.0f)},
        {"hit at the best distance", {2, 1, 9}, {0, 0, -1}, 0.0f, 1e30f, 4.0, 4.0, 0},
        {"hit beyond the best distance", {2, 1, 9}, {0, 0, -1}, 0.0f, 1e30f, 3.9},
        // The wall is in tile space ahead of these rays, but only within
        // the piece for the lower one.
        {"wall beyond the piece", {0.5f, 3, 4}, {1, 0, 0}},
        {"wall inside the piece", {0.5f, 3, 1}, {1, 0, 0}, 0.0f, 1e30f, 1e30, 4.5, 2},
        // Parallel to side face 0 (x + y + z = 10): outside it the floor
        // point crossed, (4, 3, 5), lies outside the piece; inside it is hit.
        {"parallel, outside", {1, 3, 8}, {1, 0, -1}},
        {"parallel, inside", {0.5f, 1, 7}, {1, 0, -1}, 0.0f, 1e30f, 1e30, 2.0, 0},
        // Exactly on side face 3 (z = 0) the wall's bottom edge is hit; just below, nothing.
        {"on a side plane", {1, 2, 0}, {1, 0, 0}, 0.0f, 1e30f, 1e30, 4.0, 2},
        {"just below a side plane", {1, 2, -1e-6f}, {1, 0, 0}},
        {"zero direction", {2, 1, 5}, {0, 0, 0}},
        {"NaN direction", {2, 1, 9}, {0, nan, -1}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        WorldRay ray = makeRay(c.origin, c.direction);
        ray.tMin = c.tMin;
        ray.tMax = c.tMax;
        ray.bestDistance = c.best;
        TileHit hit;
        hit.faceIndex = 42;
        ASSERT_EQ(prim.intersect(ray, hit), c.distance >= 0);
        if (c.distance < 0) {  // a miss leaves ray and record untouched
            EXPECT_TRUE(ray.bestDistance == c.best && !ray.hitPrimitive && ray.hitKey == -1);
            EXPECT_EQ(hit.faceIndex, 42);
            continue;
        }
        EXPECT_EQ(ray.bestDistance, c.distance);
        EXPECT_EQ(ray.hitPrimitive, &prim);
        EXPECT_EQ(hit.faceIndex, c.face);
        EXPECT_EQ(hit.faceKey, faceKeyOf(ownerKeyOf(prim), c.face));
        EXPECT_EQ(ray.hitKey, hit.faceKey);
    }
}

TEST_F(PrimitiveUnitPiece, RayLeavingAFacePassesThroughIt) {
    // Starts exactly on the floor, heading down.
    const Point3 onFloor(2, 1, 5);
    WorldRay plain = makeRay(onFloor, {0, 0, -1});
    TileHit hit;
    ASSERT_TRUE(prim.intersect(plain, hit));
    EXPECT_EQ(plain.bestDistance, 0.0);

    WorldRay leaving = makeRay(onFloor, {0, 0, -1});
    leaving.skipKey = plain.hitKey;
    EXPECT_FALSE(prim.intersect(leaving, hit));

    // The key names the face as seen through one piece only.
    MosaiqPrimitive other = prim;
    WorldRay throughOther = makeRay(onFloor, {0, 0, -1});
    throughOther.skipKey = plain.hitKey;
    ASSERT_TRUE(other.intersect(throughOther, hit));
    EXPECT_EQ(throughOther.hitKey, faceKeyOf(ownerKeyOf(other), 0));
}

TEST_F(PrimitiveUnitPiece, HitPointAndShadingNormalWhichIgnoresUpAndDownAndBlendsCorners) {
    WorldRay ray = makeRay({2, 1, 9}, {0, 0, -1});
    TileHit hit;
    ASSERT_TRUE(prim.intersect(ray, hit));
    // Face 0 runs (0,0) (10,0) (10,10): the point (2, 1) weighs corners 1
    // and 2 by 0.1 each. The shading point is in the piece's unit frame.
    EXPECT_NEAR(hit.beta, 0.1f, 1e-6f);
    EXPECT_NEAR(hit.gamma, 0.1f, 1e-6f);
    expectNear(hit.shadingPoint, Point3(0.2f, 0.1f, 0.5f), 1e-6f);
    // Surface normal up or straight down: not bent.
    expectNear(prim.shadingNormal(hit), kUp, 1e-6f);
    const Point3 down[4] = {{0, 0, -3}, {0, 0, -3}, {0, 0, -3}, {0, 0, -3}};
    MosaiqPrimitive flipped;
    ASSERT_TRUE(initPiece(flipped, down));
    expectNear(flipped.shadingNormal(hit), kUp, 1e-6f);
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
                                           {kUp, kUp, kUp}};
    auto tile = makeTile(tris, Point3(10, 10, 10), 1, 1, normals);
    Point3 tc[4];
    for (int i = 0; i < 4; ++i) tc[i] = kUnit[i] * 10.0f;
    MosaiqPrimitive prim;
    prim.tile = tile.get();
    ASSERT_TRUE(prim.init(kUnit, tc, kUps, kUp, 0));
    WorldRay ray = makeRay({0.3f, 0.1f, 0.9f}, {0, 0, -1});
    TileHit hit;
    ASSERT_TRUE(prim.intersect(ray, hit));
    ASSERT_EQ(hit.faceIndex, 0);
    // Tile point (3, 1): corner weights 0.7, 0.2 (beta), 0.1 (gamma).
    const Point3 pattern = Normalize(Point3(0.2f, 0.1f, 0.7f));
    expectNear(prim.shadingNormal(hit), pattern, 1e-5f);

    // Rodrigues: rotate about k = up x N by the angle from up to N.
    const Point3 n = Normalize(Point3(0.4f, -0.5f, 0.6f));
    const Point3 dirs[4] = {n, n, n, n};
    ASSERT_TRUE(prim.init(kUnit, tc, dirs, Point3(0, 0, 2), 0));
    const Point3 k = Normalize(CrossProd(kUp, n));
    const float c = n.z, s = Length(CrossProd(kUp, n));
    const Point3 expected =
        pattern * c + CrossProd(k, pattern) * s + k * (DotProd(k, pattern) * (1 - c));
    expectNear(prim.shadingNormal(hit), expected, 1e-5f);
}

// ---------------------------------------------------------------------------

TEST(PrimitiveInit, MatricesCarryCornersAndRoundTrip) {
    const Matrix3 map = skewMap();
    Point3 w[4];
    for (int i = 0; i < 4; ++i) w[i] = kWideCorners[i] * map;
    MosaiqPrimitive prim;
    ASSERT_TRUE(prim.init(w, kWideCorners, kUps, Point3(0, 0, 5), 9));
    for (int i = 0; i < 4; ++i) {
        expectNear(w[i] * prim.worldToTile, kWideCorners[i], 1e-4f);
        expectNear(kWideCorners[i] * prim.tileToWorld, w[i], 1e-4f);
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
    MosaiqPrimitive prim;
    // The other winding: a valid mapping, but the side normals point inwards.
    const Point3 swapped[4] = {kUnit[0], kUnit[2], kUnit[1], kUnit[3]};
    EXPECT_FALSE(prim.init(swapped, swapped, kUps, kUp, 0));
    EXPECT_EQ(prim.corners[1], kUnit[2]);  // fields are still written

    const Point3 flatWorld[4] = {{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {1, 1, 0}};
    EXPECT_FALSE(prim.init(flatWorld, kUnit, kUps, kUp, 0));
    EXPECT_FALSE(prim.init(kUnit, flatWorld, kUps, kUp, 0));

    // Tiny but sound pieces pass; the frames' determinants must reach 1e-30.
    Point3 small[4], tiny[4];
    for (int i = 0; i < 4; ++i) {
        small[i] = kUnit[i] * 1e-9f;  // det 1e-27
        tiny[i] = kUnit[i] * 1e-11f;  // det 1e-33
    }
    EXPECT_TRUE(prim.init(small, kUnit, kUps, kUp, 0));
    EXPECT_TRUE(prim.init(kUnit, small, kUps, kUp, 0));
    EXPECT_FALSE(prim.init(tiny, kUnit, kUps, kUp, 0));
    EXPECT_FALSE(prim.init(kUnit, tiny, kUps, kUp, 0));
}

TEST(PrimitiveBoxes, BoundingBoxAndSplits) {
    MosaiqPrimitive prim;
    ASSERT_TRUE(prim.init(kUnit, kUnit, kUps, kUp, 0));
    const Box3 full = prim.boundingBox();
    EXPECT_EQ(full.pmin, Point3(0, 0, 0));
    EXPECT_EQ(full.pmax, Point3(1, 1, 1));

    const Point3 emptyMin(1e20f, 1e20f, 1e20f), emptyMax(-1e20f, -1e20f, -1e20f);
    Box3 lower, upper;
    // No corner strictly below: an empty lower box (corners on the plane count as upper).
    for (float position : {0.0f, -2.0f}) {
        prim.splitBox(0, position, lower, upper);
        EXPECT_TRUE(lower.pmin == emptyMin && lower.pmax == emptyMax);
        EXPECT_TRUE(upper.pmin == full.pmin && upper.pmax == full.pmax);
    }
    prim.splitBox(2, 1.5f, lower, upper);
    EXPECT_TRUE(lower.pmin == full.pmin && lower.pmax == full.pmax);
    EXPECT_EQ(upper.pmin, emptyMin);

    // At x = 0.25 the edges from corner 1 cross at (0.25, 0, 0),
    // (0.25, 0.75, 0) and (0.25, 0, 0.75), which bound the upper part.
    prim.splitBox(0, 0.25f, lower, upper);
    EXPECT_EQ(lower.pmin, Point3(0, 0, 0));
    expectNear(lower.pmax, Point3(0.25f, 1, 1), 1e-7f);
    expectNear(upper.pmin, Point3(0.25f, 0, 0), 1e-7f);
    expectNear(upper.pmax, Point3(1, 0.75f, 0.75f), 1e-7f);
}

// Random rays through a skewed piece over several cells and segments: the
// normals at every hit are unit and, with flat pattern normals and the
// surface normal up, both the world face's; and intersecting and shading
// allocate nothing. (That the hits are the explicit mesh's is BakeOracle's.)
TEST(PrimitiveIntersect, NormalsAreTheWorldFacesAndNothingIsAllocated) {
    const Matrix3 map = skewMap();
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> unit(0.0f, 1.0f);
    auto tile = makeTile(test::randomSoup(rng, 150, 4.0f), Point3(10, 10, 10), 3, 2);
    Point3 w[4];
    for (int i = 0; i < 4; ++i) w[i] = kWideCorners[i] * map;
    MosaiqPrimitive prim;
    prim.tile = tile.get();
    ASSERT_TRUE(prim.init(w, kWideCorners, kUps, kUp, -5));
    SegmentRandomTable::fill();
    constexpr int kRays = 600;
    int hits = 0;
    for (int i = 0; i < kRays; ++i) {
        // Aim at a point inside the piece from a random direction.
        float b[4] = {unit(rng), unit(rng), unit(rng), unit(rng)};
        const float sum = b[0] + b[1] + b[2] + b[3];
        const Point3 target = (w[0] * b[0] + w[1] * b[1] + w[2] * b[2] + w[3] * b[3]) / sum;
        const Point3 direction =
            Normalize(Point3(unit(rng) - 0.5f, unit(rng) - 0.5f, unit(rng) - 0.5f));
        WorldRay ray = makeRay(target - direction * 20.0f, direction);
        TileHit hit;
        gAllocations = 0;
        tCountAllocations = true;
        const bool found = prim.intersect(ray, hit);
        const Point3 g = found ? prim.geometricNormal(hit) : Point3();
        const Point3 shading = found ? prim.shadingNormal(hit) : Point3();
        tCountAllocations = false;
        ASSERT_EQ(gAllocations.load(), 0) << "ray " << i;
        if (!found) continue;
        ++hits;
        const PatternFace& face = tile->faces[hit.faceIndex];
        const Point3 e1 = map.VectorTransform(*face.vertex[1] - *face.vertex[0]);
        const Point3 e2 = map.VectorTransform(*face.vertex[2] - *face.vertex[0]);
        EXPECT_NEAR(Length(g), 1.0f, 1e-5f);
        EXPECT_NEAR(DotProd(g, Normalize(CrossProd(e1, e2))), 1.0f, 1e-5f) << "ray " << i;
        expectNear(shading, g, 1e-5f);
    }
    EXPECT_GT(hits, kRays / 5);
}

}  // namespace
}  // namespace mq
