// The random segment walk: tile space is split into cells of one segment
// size in X and Y; each cell shows one segment of the crop box, picked from
// a fixed random table by the cell's coordinates and a seed.
#pragma once

#include "engine/ray.h"
#include "engine/tile.h"
#include "host/check.h"

#include <cstdint>

namespace mq {

// U and V planes of 1000 x 1000 draws of the host generator (8,000,000
// bytes of static storage, so filling it cannot fail). Filled once, then read
// by every render thread without locks.
class SegmentRandomTable {
public:
    static constexpr int kSize = 1000;

    // The process-wide table, filled on first use if fill() has not run yet.
    static const SegmentRandomTable& instance();
    // Fill the process-wide table. Idempotent and thread-safe; the plug-in
    // calls it at load so no render thread ever pays for it.
    static void fill();

    // row and column in [0, kSize).
    uint32_t u(int row, int column) const {
        MQ_DCHECK(row >= 0 && row < kSize && column >= 0 && column < kSize);
        return u_[row * kSize + column];
    }
    uint32_t v(int row, int column) const {
        MQ_DCHECK(row >= 0 && row < kSize && column >= 0 && column < kSize);
        return v_[row * kSize + column];
    }

private:
    SegmentRandomTable() = default;
    static SegmentRandomTable table_;

    uint32_t u_[kSize * kSize];
    uint32_t v_[kSize * kSize];
};

// floor(x / size), except exact non-positive multiples land one cell lower
// (x = 0 gives -1): kept so that saved scenes render the same. Quotients
// beyond the int32 range saturate; NaN gives 0.
int32_t cellIndex(float x, float size);

struct SegmentPick {
    uint32_t u = 0, v = 0;
};
// Table entry of cell (a, b); a = 0 and a = 1000 fall on different rows.
SegmentPick segmentPick(int32_t a, int32_t b);

// Walk the ray from cell to cell through the tile over [ray.tStart,
// ray.tEnd]. True on a hit: hit is filled and ray.tEnd is the hit distance.
// On a miss ray and hit are left as they were. Never allocates; safe to call
// from any number of threads once the tile is built.
bool walkSegments(const PatternTile& tile, TileRay& ray, TileHit& hit);

}  // namespace mq
