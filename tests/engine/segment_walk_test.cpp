// The random segment walk: cell indices, the table and its lookup rule, the
// slab, the cell-to-cell walk and its guards.
#include "engine/segment_walk.h"

#include "engine/octree.h"
#include "engine/tile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <memory>
#include <random>
#include <vector>

namespace mq {
namespace {

using Triangle = std::array<Point3, 3>;

// A tile whose faces are given directly in tile space.
std::unique_ptr<PatternTile> makeTile(const std::vector<Triangle>& tris, const Point3& crop,
                                      int segU, int segV) {
    Mesh mesh;
    mesh.setNumVerts(int(tris.size()) * 3);
    mesh.setNumFaces(int(tris.size()));
    for (size_t f = 0; f < tris.size(); ++f) {
        for (int c = 0; c < 3; ++c) {
            mesh.setVert(int(f * 3 + c), tris[f][c]);
            mesh.faces[f].v[c] = uint32_t(f * 3 + c);
        }
    }
    auto tile = std::make_unique<PatternTile>();
    // The build centres the crop box on cropSize / 2; undo that so mesh
    // coordinates are tile coordinates.
    tile->build(mesh, TransMatrix(crop * -0.5f), crop, segU, segV);
    return tile;
}

// Two triangles covering [x0, x1] x [y0, y1] at height z; the first holds
// the points below the diagonal (y - y0 < x - x0 in a square).
void addFloor(std::vector<Triangle>& tris, float x0, float y0, float x1, float y1, float z) {
    tris.push_back({Point3(x0, y0, z), Point3(x1, y0, z), Point3(x1, y1, z)});
    tris.push_back({Point3(x0, y0, z), Point3(x1, y1, z), Point3(x0, y1, z)});
}

// The host generator's table computed from the LCG formula alone.
struct ReferenceTable {
    std::vector<uint32_t> u, v;
    ReferenceTable() : u(1000 * 1000), v(1000 * 1000) {
        uint32_t state = 0;
        auto draw = [&state] {
            state = state * 214013u + 2531011u;
            return (state >> 16) & 0x7fffu;
        };
        draw();
        for (int i = 0; i < 1000 * 1000; ++i) {
            u[i] = draw();
            v[i] = draw();
        }
    }
};
const ReferenceTable& reference() {
    static const ReferenceTable table;
    return table;
}

TileRay makeRay(const Point3& origin, const Point3& direction, float tStart = 0.0f,
                float tEnd = 1e30f, int32_t seed = 0) {
    TileRay ray;
    ray.origin = origin;
    ray.direction = direction;
    ray.tStart = tStart;
    ray.tEnd = tEnd;
    ray.seed = seed;
    return ray;
}

// ---------------------------------------------------------------------------

TEST(CellIndex, PositiveValuesFloor) {
    EXPECT_EQ(cellIndex(0.5f, 10.0f), 0);
    EXPECT_EQ(cellIndex(9.99f, 10.0f), 0);
    EXPECT_EQ(cellIndex(10.0f, 10.0f), 1);
    EXPECT_EQ(cellIndex(25.0f, 10.0f), 2);
}

TEST(CellIndex, NonPositiveMultiplesLandOneCellLow) {
    EXPECT_EQ(cellIndex(0.0f, 10.0f), -1);
    EXPECT_EQ(cellIndex(-0.0f, 10.0f), -1);
    EXPECT_EQ(cellIndex(-10.0f, 10.0f), -2);
    EXPECT_EQ(cellIndex(-20.0f, 10.0f), -3);
    EXPECT_EQ(cellIndex(-12.0f, 4.0f), -4);
    // Between multiples it is the floor.
    EXPECT_EQ(cellIndex(-5.0f, 10.0f), -1);
    EXPECT_EQ(cellIndex(-0.001f, 10.0f), -1);
    EXPECT_EQ(cellIndex(-15.0f, 10.0f), -2);
}

TEST(CellIndex, OutOfRangeSaturates) {
    EXPECT_EQ(cellIndex(1e30f, 1.0f), std::numeric_limits<int32_t>::max());
    EXPECT_EQ(cellIndex(-1e30f, 1.0f), std::numeric_limits<int32_t>::min());
    EXPECT_EQ(cellIndex(std::numeric_limits<float>::quiet_NaN(), 1.0f), 0);
}

TEST(SegmentTable, FirstEntriesAreTheFixedGenerators) {
    const SegmentRandomTable& table = SegmentRandomTable::instance();
    // srand(0), one draw discarded, then U and V alternate.
    EXPECT_EQ(table.u(0, 0), 7719u);
    EXPECT_EQ(table.v(0, 0), 21238u);
    EXPECT_EQ(table.u(0, 1), 2437u);
    EXPECT_EQ(table.v(0, 1), 8855u);
    EXPECT_EQ(table.u(0, 2), 11797u);
    EXPECT_EQ(table.v(0, 3), 10450u);
}

TEST(SegmentTable, WholeTableMatchesTheLcg) {
    const SegmentRandomTable& table = SegmentRandomTable::instance();
    const ReferenceTable& ref = reference();
    int mismatches = 0;
    for (int row = 0; row < 1000; ++row) {
        for (int col = 0; col < 1000; ++col) {
            mismatches += table.u(row, col) != ref.u[row * 1000 + col];
            mismatches += table.v(row, col) != ref.v[row * 1000 + col];
        }
    }
    EXPECT_EQ(mismatches, 0);
}

TEST(SegmentTable, FillIsIdempotent) {
    const SegmentRandomTable* before = &SegmentRandomTable::instance();
    const uint32_t u = before->u(999, 999), v = before->v(999, 999);
    SegmentRandomTable::fill();
    SegmentRandomTable::fill();
    EXPECT_EQ(&SegmentRandomTable::instance(), before);
    EXPECT_EQ(SegmentRandomTable::instance().u(999, 999), u);
    EXPECT_EQ(SegmentRandomTable::instance().v(999, 999), v);
}

TEST(SegmentPick, RowsOfCellCoordinates) {
    const ReferenceTable& ref = reference();
    // (cell coordinate, table row): 0 and 1000 fall on different rows,
    // 1 and 1001 on the same one.
    const std::pair<int32_t, int> rows[] = {
        {0, 999},
        {1, 1},
        {999, 999},
        {1000, 0},
        {1001, 1},
        {2500, 500},
        {-1, 998},
        {-999, 0},
        {-1000, 999},
        {-1001, 998},
        {std::numeric_limits<int32_t>::min(), 351},
        {std::numeric_limits<int32_t>::max(), 647},
    };
    for (const auto& [a, row] : rows) {
        for (const auto& [b, column] : rows) {
            const SegmentPick pick = segmentPick(a, b);
            EXPECT_EQ(pick.u, ref.u[row * 1000 + column]) << "a=" << a << " b=" << b;
            EXPECT_EQ(pick.v, ref.v[row * 1000 + column]) << "a=" << a << " b=" << b;
        }
    }
}

// ---------------------------------------------------------------------------
// A tile of 3 x 2 segments of 4 x 4 x 4 whose floor in segment (i, j) is a
// pair of faces 2 (i + 3 j) and 2 (i + 3 j) + 1 at its own height, so the
// face a vertical ray hits tells which segment its cell shows.

class SegmentFloors : public ::testing::Test {
protected:
    static constexpr int kSegU = 3, kSegV = 2;
    static float heightOf(int i, int j) { return 1.0f + 0.25f * float(i + kSegU * j); }

    static void SetUpTestSuite() {
        std::vector<Triangle> tris;
        for (int j = 0; j < kSegV; ++j) {
            for (int i = 0; i < kSegU; ++i) {
                addFloor(tris, 4.0f * i, 4.0f * j, 4.0f * (i + 1), 4.0f * (j + 1), heightOf(i, j));
            }
        }
        tile_ = makeTile(tris, Point3(12, 8, 4), kSegU, kSegV).release();
    }
    static void TearDownTestSuite() { delete tile_; }

    // The segment a vertical ray through cell (cu, cv) lands on, or (-1, -1).
    static std::pair<int, int> segmentSeen(int cu, int cv, int32_t seed) {
        TileRay ray = makeRay(Point3(4.0f * cu + 1.3f, 4.0f * cv + 0.6f, 10.0f), Point3(0, 0, -1),
                              0.0f, 1e30f, seed);
        TileHit hit;
        if (!walkSegments(*tile_, ray, hit)) return {-1, -1};
        const int segment = hit.faceIndex / 2;
        const int i = segment % kSegU, j = segment / kSegU;
        EXPECT_EQ(hit.faceIndex % 2, 0);
        EXPECT_FLOAT_EQ(ray.tEnd, 10.0f - heightOf(i, j));
        return {i, j};
    }

    static PatternTile* tile_;
};
PatternTile* SegmentFloors::tile_ = nullptr;

TEST_F(SegmentFloors, EachCellShowsTheSegmentOfItsTableEntry) {
    const ReferenceTable& ref = reference();
    const std::pair<int, int> cells[] = {{0, 999},     {1, 1},    {999, 999}, {1000, 0},
                                         {1001, 1},    {-1, 998}, {-999, 0},  {-1000, 999},
                                         {-1001, 998}, {123, 123}};
    for (const auto& [cu, rowU] : cells) {
        for (const auto& [cv, rowV] : cells) {
            const int entry = rowU * 1000 + rowV;
            const std::pair<int, int> expected{int(ref.u[entry] % kSegU),
                                               int(ref.v[entry] % kSegV)};
            EXPECT_EQ(segmentSeen(cu, cv, 0), expected) << "cell " << cu << ", " << cv;
        }
    }
}

TEST_F(SegmentFloors, SameCellAndSeedAlwaysSameSegment) {
    for (int cu = -3; cu <= 3; ++cu) {
        for (int cv = -3; cv <= 3; ++cv) {
            EXPECT_EQ(segmentSeen(cu, cv, 17), segmentSeen(cu, cv, 17));
        }
    }
}

// Cells before the slab entry lie above (or below) every segment box: a walk
// started there would end after three missed boxes.
TEST_F(SegmentFloors, WalkStartsInTheCellWhereTheRayEntersTheSlab) {
    const auto expected = segmentSeen(5, 0, 0);
    for (const float z : {100.0f, -100.0f}) {
        TileRay ray = makeRay(Point3(1.3f, 0.6f, z), Point3(0.2f, 0, z > 0 ? -1.0f : 1.0f));
        TileHit hit;
        ASSERT_TRUE(walkSegments(*tile_, ray, hit)) << z;
        const int segment = hit.faceIndex / 2;
        EXPECT_EQ(std::make_pair(segment % kSegU, segment / kSegU), expected) << z;
    }
}

TEST_F(SegmentFloors, SeedShiftsTheLookupInUOnly) {
    int differFromVShift = 0;
    for (int32_t seed : {0, 5, -7}) {
        for (int k : {1, 3, 998, 1000}) {
            for (int cu = -2; cu <= 2; ++cu) {
                for (int cv = -2; cv <= 2; ++cv) {
                    const auto withSeed = segmentSeen(cu, cv, seed + k);
                    EXPECT_EQ(withSeed, segmentSeen(cu + k, cv, seed))
                        << "seed " << seed << " k " << k << " cell " << cu << ", " << cv;
                    differFromVShift += withSeed != segmentSeen(cu, cv + k, seed);
                }
            }
        }
    }
    EXPECT_GT(differFromVShift, 0);
}

// ---------------------------------------------------------------------------

class SegmentWalkFloor : public ::testing::Test {
protected:
    void SetUp() override {
        std::vector<Triangle> tris;
        addFloor(tris, 0, 0, 10, 10, 5);
        tile = makeTile(tris, Point3(10, 10, 10), 1, 1);
    }
    bool walk(TileRay ray, float* t = nullptr) {
        TileHit hit;
        const bool found = walkSegments(*tile, ray, hit);
        if (t) *t = ray.tEnd;
        return found;
    }
    std::unique_ptr<PatternTile> tile;
};

TEST_F(SegmentWalkFloor, RaysOutsideTheSlabPointingAwayMiss) {
    EXPECT_FALSE(walk(makeRay({5, 5, 12}, {0, 0, 1})));
    EXPECT_FALSE(walk(makeRay({5, 5, -2}, {0.1f, 0, -1})));
    // Inside the slab at the origin, but above it at tStart.
    EXPECT_FALSE(walk(makeRay({5, 5, 2}, {0, 0, 1}, 9.0f)));
    // Parallel to the slab, outside it.
    EXPECT_FALSE(walk(makeRay({5, 5, 12}, {1, 0.5f, 0})));
    EXPECT_FALSE(walk(makeRay({5, 5, -0.001f}, {-1, 0, 0})));
}

TEST_F(SegmentWalkFloor, RaysEnteringTheSlabHit) {
    float t = 0;
    ASSERT_TRUE(walk(makeRay({5, 5, 12}, {0, 0, -1}), &t));
    EXPECT_EQ(t, 7.0f);
    ASSERT_TRUE(walk(makeRay({5, 5, -3}, {0, 0, 1}), &t));
    EXPECT_EQ(t, 8.0f);
    ASSERT_TRUE(walk(makeRay({5, 5, 2}, {0, 0, 1}), &t));
    EXPECT_EQ(t, 3.0f);
    // The floor repeats in every cell, negative ones included.
    ASSERT_TRUE(walk(makeRay({-37.5f, 1234.25f, 12}, {0, 0, -2}), &t));
    EXPECT_EQ(t, 3.5f);
    // The range still limits the hit.
    EXPECT_FALSE(walk(makeRay({5, 5, 12}, {0, 0, -1}, 0.0f, 6.99f)));
}

TEST_F(SegmentWalkFloor, MissLeavesRayAndHitUntouched) {
    TileRay ray = makeRay({5, 5, 12}, {0, 0, -1}, 0.0f, 6.5f);
    TileHit hit;
    hit.faceIndex = 77;
    ASSERT_FALSE(walkSegments(*tile, ray, hit));
    EXPECT_EQ(ray.tEnd, 6.5f);
    EXPECT_EQ(hit.faceIndex, 77);
}

TEST_F(SegmentWalkFloor, GuardedRaysTerminateWithoutHit) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    // Zero direction: there is no exit from any box.
    EXPECT_FALSE(walk(makeRay({5, 5, 5}, {0, 0, 0})));
    EXPECT_FALSE(walk(makeRay({nan, 5, 5}, {0, 0, -1})));
    EXPECT_FALSE(walk(makeRay({5, 5, 5}, {inf, 0, -1})));
    EXPECT_FALSE(walk(makeRay({5, 5, 12}, {0, 0, -1}, nan)));
    EXPECT_FALSE(walk(makeRay({5, 5, 12}, {0, 0, -1}, 0.0f, nan)));
    // Inside the slab, parallel to it, below the floor, unbounded: never
    // leaves through the top or bottom, so only the cell limit ends it.
    EXPECT_FALSE(walk(makeRay({5, 5, 2}, {1, 0.25f, 0}, 0.0f, inf)));
}

TEST(SegmentWalk, UnusableSegmentCountsMiss) {
    std::vector<Triangle> tris;
    addFloor(tris, 0, 0, 10, 10, 5);
    auto tile = makeTile(tris, Point3(10, 10, 10), 1, 1);
    tile->segmentCountU = 0;
    TileRay ray = makeRay({5, 5, 12}, {0, 0, -1});
    TileHit hit;
    EXPECT_FALSE(walkSegments(*tile, ray, hit));
}

// With one segment every cell shows the whole crop box: within one cell the
// walk is the plain octree traversal of the crop box, and moving the ray by
// whole cells changes nothing.
TEST(SegmentWalk, SingleSegmentIsPlainTraversalInEveryCell) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> coord(0.0f, 10.0f);
    std::vector<Triangle> tris;
    for (int i = 0; i < 400; ++i) {
        const Point3 a(coord(rng), coord(rng), coord(rng));
        auto near = [&] {
            return Point3(std::clamp(a.x + coord(rng) * 0.3f - 1.5f, 0.0f, 10.0f),
                          std::clamp(a.y + coord(rng) * 0.3f - 1.5f, 0.0f, 10.0f),
                          std::clamp(a.z + coord(rng) * 0.3f - 1.5f, 0.0f, 10.0f));
        };
        tris.push_back({a, near(), near()});
    }
    const Point3 crop(10, 10, 10);
    auto tile = makeTile(tris, crop, 1, 1);

    // Origins on a 1/64 grid keep the whole-cell moves exact.
    std::uniform_int_distribution<int> grid(64, 9 * 64);
    std::uniform_real_distribution<float> slope(-0.05f, 0.05f);
    int hits = 0;
    for (int i = 0; i < 500; ++i) {
        const TileRay ray = makeRay(Point3(grid(rng) / 64.0f, grid(rng) / 64.0f, 12.0f),
                                    Point3(slope(rng), slope(rng), -1.0f));
        TileRay plain = ray;
        TileHit plainHit;
        bool plainFound = clipRayToBox(plain.origin, plain.direction, Box3(Point3(), crop),
                                       plain.tStart, plain.tEnd) &&
                          traverse(plain, tile->tree.get(), plainHit);
        hits += plainFound;
        for (const Point3 move : {Point3(0, 0, 0), Point3(30, -20, 0), Point3(-10, 9990, 0)}) {
            TileRay walked = ray;
            walked.origin += move;
            TileHit walkHit;
            ASSERT_EQ(walkSegments(*tile, walked, walkHit), plainFound) << "ray " << i;
            if (!plainFound) continue;
            EXPECT_EQ(walkHit.faceIndex, plainHit.faceIndex);
            EXPECT_EQ(walkHit.faceKey, plainHit.faceKey);
            EXPECT_EQ(walked.tEnd, plain.tEnd);
            EXPECT_EQ(walkHit.beta, plainHit.beta);
            EXPECT_EQ(walkHit.gamma, plainHit.gamma);
        }
    }
    EXPECT_GT(hits, 100);
}

// Segments of 5 x 10 (two in U); a wall at y = 5 covers only segment 1. A
// ray along the cell diagonals passes exactly through cell corners, so every
// other cell it steps into is only touched, never entered: a missed box.
TEST(SegmentWalk, ThreeMissedBoxesEndTheWalk) {
    std::vector<Triangle> tris;
    tris.push_back({Point3(5, 5, 0), Point3(10, 5, 0), Point3(10, 5, 10)});
    tris.push_back({Point3(5, 5, 0), Point3(10, 5, 10), Point3(5, 5, 10)});
    auto tile = makeTile(tris, Point3(10, 10, 10), 2, 1);

    // A seed whose diagonal cells (0,0), (1,1), (2,2) show the empty segment
    // and (3,3) the wall.
    auto segU = [](int cell, int32_t seed) { return segmentPick(cell + seed, cell).u % 2; };
    int32_t seed = 0;
    while (
        !(segU(0, seed) == 0 && segU(1, seed) == 0 && segU(2, seed) == 0 && segU(3, seed) == 1)) {
        ++seed;
        ASSERT_LT(seed, 100000);
    }

    TileHit hit;
    // Through the corners: misses (1,0), (2,1), (3,2) and stops before (3,3).
    TileRay corner = makeRay({2.5f, 5, 5}, {5, 10, 0}, 0.0f, 100.0f, seed);
    EXPECT_FALSE(walkSegments(*tile, corner, hit));

    // Beside the corners every box is entered, and the wall shows in (3,3).
    TileRay beside = makeRay({2.6f, 5, 5}, {5, 10, 0}, 0.0f, 100.0f, seed);
    ASSERT_TRUE(walkSegments(*tile, beside, hit));
    EXPECT_FLOAT_EQ(beside.tEnd, 3.0f);

    // Started in (3,3), the corner ray finds the wall there.
    TileRay late = makeRay({2.5f + 15, 5 + 30, 5}, {5, 10, 0}, 0.0f, 100.0f, seed);
    ASSERT_TRUE(walkSegments(*tile, late, hit));
    EXPECT_EQ(late.tEnd, 0.0f);
}

}  // namespace
}  // namespace mq
