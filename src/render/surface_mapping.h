// The per-frame surface mapping: every surface face in the Poli_ID range
// becomes a prism over the face (world space) and over its UVs (tile space),
// cut into up to three tetrahedral MosaiqPrimitive pieces.
#pragma once

#include "engine/primitive.h"
#include "engine/tile.h"
#include "host/math.h"
#include "host/mesh.h"
#include "host/node.h"

#include <cstdint>
#include <string>
#include <vector>

namespace mq {

// The Mosaiq parameters the mapping reads, all at time 0 (none animates).
struct SurfaceMappingSettings {
    // The surface node, evaluated at the frame's time; 0, or a node that is
    // gone, is none.
    Node::Handle surface = 0;
    int32_t poliIdFrom = 1, poliIdTo = 1;  // as the user sees them: 1-based, inclusive
    float height = 100.0f;                 // percent of twice the tile's z size
    float shift = 0.0f;                    // world units, against the normals
    int32_t mapChannel = 1;
    bool realWorldScale = false;
    float tilingU = 1.0f, tilingV = 1.0f;  // as stored, before any reciprocal
};

// The mesh of the "Surface" node at t, in world space. False when there is no
// node, it evaluates to no object, the object can't become a triangle mesh,
// or the mesh has no faces; why, when given, then says which, naming the
// node. A mirroring object-to-world transform would turn
// every face inside out: corners 1 and 2 of each face are swapped, with the
// map faces and explicit normal faces in step, so faces keep facing out and
// corner 0 (which gives the face's island) stays. Explicit normals are
// carried to world space by the inverse transpose; computed ones are left to
// be recomputed from the world mesh.
bool surfaceWorldMesh(Node::Handle surface, TimeValue t, Mesh& mesh, std::string* why = nullptr);

// What one frame's mapping made, for inspection.
struct SurfaceMappingStats {
    int32_t facesInRange = 0;
    int32_t piecesBuilt = 0;    // = primitiveCount
    int32_t piecesDropped = 0;  // rejected by the piece's initialiser
    int32_t islands = 0;        // distinct UV islands over the whole surface
    // Over the corners of the faces in range; 0 and 0 when there are none.
    float stretchMin = 0.0f, stretchMax = 0.0f;
};

// Builds the pieces of one frame. Main thread only; never throws on bad
// input (returns false), only on a failed allocation.
class SurfaceMapping {
public:
    // The whole frame: the surface mesh at t.
    // primitives is resized once to three per face in range (its capacity is
    // kept across frames) and filled in place; the first primitiveCount are
    // the usable pieces, each referring to tile, which must outlive them.
    // False when the surface or its analysis fails (primitiveCount is 0
    // then); a range without faces is true with primitiveCount 0.
    bool build(const SurfaceMappingSettings& settings, const PatternTile& tile, TimeValue t,
               std::vector<MosaiqPrimitive>& primitives);
    // The same from a world-space mesh, which gets its normals specified and
    // checked.
    bool buildFromMesh(Mesh& worldMesh, const PatternTile& tile,
                       const SurfaceMappingSettings& settings,
                       std::vector<MosaiqPrimitive>& primitives);

    int32_t primitiveCount = 0;
    // Why the frame has no pieces, for the user; empty when it has some.
    std::string problem;
    // Tiling U and V, or their reciprocals under Real_World_Scale.
    float tilingU = 1.0f, tilingV = 1.0f;
    SurfaceMappingStats stats;
};

}  // namespace mq
