#include "engine/segment_walk.h"

#include "engine/octree.h"
#include "host/math.h"

#include <atomic>
#include <cmath>
#include <limits>
#include <mutex>

namespace mq {

SegmentRandomTable SegmentRandomTable::table_;

namespace {

std::once_flag gFillOnce;
// Set after the fill, so instance() costs one load once the table exists.
std::atomic<bool> gFilled{false};

// Guard: a ray that stays inside the slab with an unbounded range never
// leaves through the top or bottom and would walk cells forever. No ray clipped
// to a piece comes near this many cells.
constexpr int kMaxCells = 1 << 20;

// Signed arithmetic on cell coordinates wraps as two's complement instead of
// overflowing (only reachable with absurd coordinates).
int32_t wrapAdd(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}
int32_t wrapSub(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

// Truncation toward zero that saturates instead of being undefined.
int32_t truncSaturate(float q) {
    if (q >= 2147483648.0f) return std::numeric_limits<int32_t>::max();
    if (q >= -2147483648.0f) return static_cast<int32_t>(q);
    if (q < 0.0f) return std::numeric_limits<int32_t>::min();
    return 0;  // NaN
}

// Table row (or column) of a cell coordinate. a = 0 maps to 999, not 0:
// kept so that saved scenes render the same.
int tableIndex(int32_t a) {
    return a >= 1 ? a % SegmentRandomTable::kSize : a % SegmentRandomTable::kSize + 999;
}

}  // namespace

void SegmentRandomTable::fill() {
    std::call_once(gFillOnce, [] {
        RandGenerator rng;
        rng.srand(0);
        rng.rand();  // the first draw is discarded
        // Draws alternate between the two planes, row by row.
        for (int i = 0; i < kSize * kSize; ++i) {
            table_.u_[i] = static_cast<uint32_t>(rng.Rand0X(32767));
            table_.v_[i] = static_cast<uint32_t>(rng.Rand0X(32767));
        }
        gFilled.store(true, std::memory_order_release);
    });
}

const SegmentRandomTable& SegmentRandomTable::instance() {
    if (!gFilled.load(std::memory_order_acquire)) fill();
    return table_;
}

int32_t cellIndex(float x, float size) {
    const float q = x / size;
    return truncSaturate(x > 0.0f ? q : q - 1.0f);
}

SegmentPick segmentPick(int32_t a, int32_t b) {
    const SegmentRandomTable& table = SegmentRandomTable::instance();
    const int row = tableIndex(a), column = tableIndex(b);
    return {table.u(row, column), table.v(row, column)};
}

bool walkSegments(const PatternTile& tile, TileRay& ray, TileHit& hit) {
    // Guards: a zero direction has no exit from any box (and can hit nothing);
    // non-finite input would only produce NaN cells; segment counts below 1
    // have no segments to pick.
    if (ray.direction.x == 0.0f && ray.direction.y == 0.0f && ray.direction.z == 0.0f) return false;
    if (!isFinite(ray.origin) || !isFinite(ray.direction) || !std::isfinite(ray.tStart) ||
        std::isnan(ray.tEnd))
        return false;
    if (tile.segmentCountU < 1 || tile.segmentCountV < 1) return false;

    const Point3& size = tile.segmentSize;
    const Point3 origin = ray.origin;
    const Point3& direction = ray.direction;

    // Where the ray enters the slab 0 <= z <= size.z; tStart itself stays.
    Point3 p = origin + direction * ray.tStart;
    if (p.z < 0.0f) {
        if (direction.z <= 0.0f) return false;
        const float t = (-0.0f - origin.z) / direction.z;
        p = origin + direction * t;
    } else if (p.z > size.z) {
        if (direction.z >= 0.0f) return false;
        const float t = (size.z - origin.z) / direction.z;
        p = origin + direction * t;
    }

    int32_t cellU = cellIndex(p.x, size.x);
    int32_t cellV = cellIndex(p.y, size.y);
    const SegmentRandomTable& table = SegmentRandomTable::instance();
    int misses = 0;  // never reset: three missed boxes end the walk

    for (int cells = 0; cells < kMaxCells; ++cells) {
        // Only U is offset by the seed.
        const int row = tableIndex(wrapAdd(cellU, ray.seed)), column = tableIndex(cellV);
        const int32_t segU = static_cast<int32_t>(table.u(row, column)) % tile.segmentCountU;
        const int32_t segV = static_cast<int32_t>(table.v(row, column)) % tile.segmentCountV;
        const Box3 box(size * Point3(float(segU), float(segV), 0.0f),
                       size * Point3(float(segU + 1), float(segV + 1), 1.0f));

        // The same line in every cell, moved onto the cell's segment.
        const Point3 cellOrigin = origin + Point3(float(wrapSub(segU, cellU)) * size.x,
                                                  float(wrapSub(segV, cellV)) * size.y, 0.0f);
        TileRay shifted = ray;
        shifted.origin = cellOrigin;
        if (clipRayToBox(cellOrigin, direction, box, shifted.tStart, shifted.tEnd)) {
            TileHit cellHit = hit;
            if (traverse(shifted, tile.tree.get(), cellHit)) {
                ray.tEnd = shifted.tEnd;
                hit = cellHit;
                return true;
            }
        } else if (++misses == 3) {
            return false;
        }

        // Step to the cell the ray leaves into; leaving the slab ends the walk.
        switch (boxExit(cellOrigin, direction, box).side) {
            case kSideNegX:
                cellU = wrapSub(cellU, 1);
                break;
            case kSidePosX:
                cellU = wrapAdd(cellU, 1);
                break;
            case kSideNegY:
                cellV = wrapSub(cellV, 1);
                break;
            case kSidePosY:
                cellV = wrapAdd(cellV, 1);
                break;
            default:
                return false;
        }
    }
    return false;
}

}  // namespace mq
