#include "render/bake.h"

namespace mq {

bool bakePieces(const MosaiqPrimitive* pieces, int32_t count, const PatternTile& tile,
                const BakeLimits& limits, Mesh& out, BakeStats& stats, std::string& error) {
    (void)pieces;
    (void)count;
    (void)tile;
    (void)limits;
    (void)out;
    (void)stats;
    error = "baking is not available yet";
    return false;
}

}  // namespace mq
