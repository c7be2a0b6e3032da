// Baking: the explicit triangles the pieces of one frame show, for export
// and as the oracle the procedural pieces are tested against.
#pragma once

#include "engine/primitive.h"
#include "engine/tile.h"
#include "host/mesh.h"
#include "host/pattern_tools.h"

#include <cstdint>
#include <string>

namespace mq {

// Bake count pieces (all referring to tile) into out, in world space, with
// normals and the pattern's UVs. False with a reason in error, and out
// untouched, when the result would pass limits.maxTriangles.
bool bakePieces(const MosaiqPrimitive* pieces, int32_t count, const PatternTile& tile,
                const BakeLimits& limits, Mesh& out, BakeStats& stats, std::string& error);

}  // namespace mq
