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

// Bake count pieces (all showing tile) into out, in world space. Every piece
// gives, for each segment cell its tile-space box touches, the triangles of
// the segment the walk picks for that cell, clipped to the cell and to the
// piece's tetrahedron. Unlike the walk, which gives up after three empty
// cells, every cell is kept.
//
// The mesh is not welded across pieces or cells; within one piece and cell,
// corners of the tile that share vertex, normal and UV share one vertex.
// Vertices, map channel 1 (the pattern's UVs, when the tile has them) and
// the specified normals use the same index per corner. Normals are the
// pattern's shading normals carried as the renderer carries them at that
// point. Output order is fixed (pieces in order, then cells, then the
// segment's triangles), whatever the thread count.
//
// Counts first: when the result would pass limits.maxTriangles (or what one
// mesh can index), returns false before allocating anything, with error
// saying so and stats.triangles holding the count that would have been
// written. Other failures return false with stats.triangles 0. out is only
// replaced on success. May throw std::bad_alloc; uses up to
// std::thread::hardware_concurrency() threads, joined before it returns.
bool bakePieces(const MosaiqPrimitive* pieces, int32_t count, const PatternTile& tile,
                const BakeLimits& limits, Mesh& out, BakeStats& stats, std::string& error);

}  // namespace mq
