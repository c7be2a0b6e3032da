// The random segment walk: cell indices, the table and its lookup rule, the
// slab, the cell-to-cell walk and its guards.
#include "engine/segment_walk.h"

#include "engine/octree.h"
#include "support/tile_test_util.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace mq {
namespace {

using test::addFloor;
using test::makeTile;
using test::Triangle;

constexpr int32_t kMinInt = std::numeric_limits<int32_t>::min();
constexpr int32_t kMaxInt = std::numeric_limits<int32_t>::max();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();

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

TEST(CellIndex, FloorsExceptThatNonPositiveMultiplesLandOneCellLow) {
    const std::tuple<float, float, int32_t> cases[] = {
        {0.5f, 10, 0},       {9.99f, 10, 0},       {10, 10, 1},       {25, 10, 2},
        {0, 10, -1},         {-0.0f, 10, -1},      {-10, 10, -2},     {-20, 10, -3},
        {-12, 4, -4},        {-5, 10, -1},         {-0.001f, 10, -1}, {-15, 10, -2},
        {1e30f, 1, kMaxInt}, {-1e30f, 1, kMinInt}, {kNaN, 1, 0},  // out of range saturates
    };
    for (const auto& [value, size, cell] : cases)
        EXPECT_EQ(cellIndex(value, size), cell) << value << " / " << size;
}

TEST(SegmentTable, IsTheLcgFromSeedZeroFilledOnce) {
    const SegmentRandomTable& table = SegmentRandomTable::instance();
    // srand(0), one draw discarded, then U and V alternate.
    EXPECT_EQ(table.u(0, 0), 7719u);
    EXPECT_EQ(table.v(0, 0), 21238u);
    EXPECT_EQ(table.u(0, 1), 2437u);
    EXPECT_EQ(table.v(0, 3), 10450u);
    const ReferenceTable& ref = reference();
    int mismatches = 0;
    for (int row = 0; row < 1000; ++row) {
        for (int col = 0; col < 1000; ++col) {
            mismatches += table.u(row, col) != ref.u[row * 1000 + col];
            mismatches += table.v(row, col) != ref.v[row * 1000 + col];
        }
    }
    EXPECT_EQ(mismatches, 0);

    SegmentRandomTable::fill();
    EXPECT_EQ(&SegmentRandomTable::instance(), &table);
    EXPECT_EQ(table.u(999, 999), ref.u.back());
}

// (cell coordinate, table row): 0 and 1000 fall on different rows, 1 and
// 1001 on the same one.
const std::pair<int32_t, int> kRows[] = {
    {0, 999},  {1, 1},       {999, 999},   {1000, 0},      {1001, 1},      {2500, 500}, {-1, 998},
    {-999, 0}, {-1000, 999}, {-1001, 998}, {kMinInt, 351}, {kMaxInt, 647}, {123, 123},
};

TEST(SegmentPick, RowsOfCellCoordinates) {
    const ReferenceTable& ref = reference();
    for (const auto& [a, row] : kRows) {
        for (const auto& [b, column] : kRows) {
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
        for (int j = 0; j < kSegV; ++j)
            for (int i = 0; i < kSegU; ++i)
                addFloor(tris, 4.0f * i, 4.0f * j, 4.0f * (i + 1), 4.0f * (j + 1), heightOf(i, j));
        tile_ = makeTile(tris, Point3(12, 8, 4), kSegU, kSegV).release();
    }
    static void TearDownTestSuite() { delete tile_; }

    // The segment a ray lands on, or (-1, -1).
    static std::pair<int, int> segmentHit(TileRay ray) {
        TileHit hit;
        if (!walkSegments(*tile_, ray, hit)) return {-1, -1};
        const int i = hit.faceIndex / 2 % kSegU, j = hit.faceIndex / 2 / kSegU;
        EXPECT_EQ(hit.faceIndex % 2, 0);
        if (ray.direction == Point3(0, 0, -1)) {  // vertical: the floor height tells
            EXPECT_FLOAT_EQ(ray.tEnd, ray.origin.z - heightOf(i, j));
        }
        return {i, j};
    }
    // The segment a vertical ray through cell (cu, cv) lands on.
    static std::pair<int, int> segmentSeen(int cu, int cv, int32_t seed) {
        return segmentHit(makeRay(Point3(4.0f * cu + 1.3f, 4.0f * cv + 0.6f, 10.0f),
                                  Point3(0, 0, -1), 0.0f, 1e30f, seed));
    }

    static PatternTile* tile_;
};
PatternTile* SegmentFloors::tile_ = nullptr;

TEST_F(SegmentFloors, EachCellShowsTheSegmentOfItsTableEntry) {
    const ReferenceTable& ref = reference();
    for (const auto& [cu, rowU] : kRows) {
        for (const auto& [cv, rowV] : kRows) {
            // The extreme rows are too far out for a float ray.
            if (std::max(cu, cv) > 10000 || std::min(cu, cv) < -10000) continue;
            const int entry = rowU * 1000 + rowV;
            const std::pair<int, int> expected{int(ref.u[entry] % kSegU),
                                               int(ref.v[entry] % kSegV)};
            EXPECT_EQ(segmentSeen(cu, cv, 0), expected) << "cell " << cu << ", " << cv;
        }
    }
}

// Cells before the slab entry lie above (or below) every segment box: a walk
// started there would end after three missed boxes.
TEST_F(SegmentFloors, WalkStartsInTheCellWhereTheRayEntersTheSlab) {
    for (const float z : {100.0f, -100.0f}) {
        EXPECT_EQ(segmentHit(makeRay(Point3(1.3f, 0.6f, z), Point3(0.2f, 0, z > 0 ? -1.0f : 1.0f))),
                  segmentSeen(5, 0, 0))
            << z;
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

TEST(SegmentWalk, SlabEntryRangeAndGuards) {
    std::vector<Triangle> tris;
    addFloor(tris, 0, 0, 10, 10, 5);
    auto tile = makeTile(tris, Point3(10, 10, 10), 1, 1);
    const struct {
        const char* what;
        TileRay ray;
        float t = -1;  // where the floor is hit; -1 for a miss
    } cases[] = {
        {"above, pointing away", makeRay({5, 5, 12}, {0, 0, 1})},
        {"below, pointing away", makeRay({5, 5, -2}, {0.1f, 0, -1})},
        {"inside, but above the slab at tStart", makeRay({5, 5, 2}, {0, 0, 1}, 9.0f)},
        {"parallel above the slab", makeRay({5, 5, 12}, {1, 0.5f, 0})},
        {"parallel below the slab", makeRay({5, 5, -0.001f}, {-1, 0, 0})},
        {"down from above", makeRay({5, 5, 12}, {0, 0, -1}), 7},
        {"up from below", makeRay({5, 5, -3}, {0, 0, 1}), 8},
        {"up from inside", makeRay({5, 5, 2}, {0, 0, 1}), 3},
        {"in a far negative cell", makeRay({-37.5f, 1234.25f, 12}, {0, 0, -2}), 3.5f},
        {"range ends short of the floor", makeRay({5, 5, 12}, {0, 0, -1}, 0.0f, 6.99f)},
        {"zero direction", makeRay({5, 5, 5}, {0, 0, 0})},
        {"NaN origin", makeRay({kNaN, 5, 5}, {0, 0, -1})},
        {"infinite direction", makeRay({5, 5, 5}, {kInf, 0, -1})},
        {"NaN tStart", makeRay({5, 5, 12}, {0, 0, -1}, kNaN)},
        {"NaN tEnd", makeRay({5, 5, 12}, {0, 0, -1}, 0.0f, kNaN)},
        // Never leaves through the top or bottom: only the cell limit ends it.
        {"unbounded, parallel inside the slab", makeRay({5, 5, 2}, {1, 0.25f, 0}, 0.0f, kInf)},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        TileRay ray = c.ray;
        TileHit hit;
        hit.faceIndex = 77;
        ASSERT_EQ(walkSegments(*tile, ray, hit), c.t >= 0);
        if (c.t >= 0) {
            EXPECT_EQ(ray.tEnd, c.t);
        } else {  // a miss leaves ray and hit untouched
            EXPECT_TRUE(ray.tEnd == c.ray.tEnd || std::isnan(c.ray.tEnd));
            EXPECT_EQ(hit.faceIndex, 77);
        }
    }
    tile->segmentCountU = 0;  // unusable
    TileRay down = makeRay({5, 5, 12}, {0, 0, -1});
    TileHit hit;
    EXPECT_FALSE(walkSegments(*tile, down, hit));
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
