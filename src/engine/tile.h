// The captured pattern in tile space: the crop box mapped to the box from
// (0, 0, 0) to the crop size, with per-face intersection data and an octree.
#pragma once

#include "engine/pattern_source.h"
#include "host/math.h"
#include "host/mesh.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace mq {

class PatternOctreeNode;

// What a tile's octree build may take of the machine.
struct OctreeLimits {
    // Worker threads: < 0 takes twice the processor count, 0 builds on the
    // calling thread only. The tree is the same whatever the limit.
    int threadLimit = -1;
    // Bytes the tree may take: < 0 takes octreeMemoryBudget().
    int64_t memoryBudget = -1;
};

// One pattern triangle with what the ray test needs precomputed.
struct PatternFace {
    const Point3* vertex[3] = {nullptr, nullptr, nullptr};  // into PatternTile::vertices
    const Point3* normal[3] = {nullptr, nullptr, nullptr};  // into PatternTile::normals
    Point3 faceNormal;  // unit (B - A) x (C - A); zero for a degenerate face
    Point3 centre;      // (A + B + C) / 3
    uint32_t materialId = 0;
    int32_t faceIndex = 0;
    // Projection onto two axes and the inverse-determinant-scaled edges.
    int32_t axisU = 0, axisV = 1;
    float originU = 0, originV = 0;
    float edgeU1 = 0, edgeV1 = 0, edgeU2 = 0, edgeV2 = 0;
    float planeDistance = 0;  // centre . faceNormal
};

// Fills the precomputed fields of a face from its three corners. A
// degenerate face keeps its raw (zero) cross product as faceNormal and the
// other fields unset.
void precomputeFace(PatternFace& face);

class PatternTile {
public:
    PatternTile();
    ~PatternTile();
    PatternTile(const PatternTile&) = delete;
    PatternTile& operator=(const PatternTile&) = delete;

    // Carry pattern into tile space through crop and build the tile. True at
    // once when already built (nothing is read then). False, with why, when
    // the octree would pass its memory budget; the tile is left unbuilt.
    // Main thread only; throws only std::bad_alloc.
    bool capture(PatternMesh& pattern, const CropBox& crop, std::string& why);
    // Free everything and clear built; the tile can then be captured again.
    void release();
    // The common second half of both capture paths. toTile carries the
    // mesh's object space into crop space centred on the origin. Replaces
    // whatever the tile held; does not set built (capture does). The mesh
    // gets its normals specified and checked.
    // Faces with a vertex index out of range keep their slot (faceCount is
    // the mesh's face count) but have all three corners on vertex 0 (on a
    // fixed origin point when there are no vertices), so they are degenerate
    // and never hit; out-of-range normal and map indices read a fixed up
    // normal and a zero UVW. Throws std::bad_alloc or OctreeTooLarge,
    // leaving the tile released.
    void build(Mesh& mesh, const Matrix3& toTile, const Point3& cropSize, int segU, int segV,
               const OctreeLimits& limits = {});

    bool built = false;
    int32_t segmentCountU = 1;
    int32_t segmentCountV = 1;
    std::vector<Point3> vertices;
    std::vector<Point3> normals;
    std::vector<PatternFace> faces;
    int32_t faceCount = 0;
    int32_t vertexCount = 0;
    // Per map channel 0..99: the channel's UVW and, per face, the corners' entries.
    std::array<std::vector<Point3>, MAX_MESHMAPS> mapVertices;
    std::array<std::vector<std::array<const Point3*, 3>>, MAX_MESHMAPS> mapFaces;
    Point3 cropSize;
    Point3 segmentSize;
    std::unique_ptr<PatternOctreeNode> tree;
};

// Faces of the tile that lie in one face of the crop box (their three
// corners within a millionth of the box's size of it), per face of the box
// in the order -X, +X, -Y, +Y, -Z, +Z. A ray meets such a face exactly where
// two pieces of the surface meet, and rounding decides which piece, if any,
// sees the hit: on curved surfaces they show holes along the surface's
// triangles. A slightly larger crop box moves them off the boundary.
std::array<int32_t, 6> facesOnCropFaces(const PatternTile& tile);

// Words for the box's faces in that order ("left", "right", "front",
// "back", "bottom", "top"), and a sentence for the user about the faces in
// the box's bottom and top and what they cause; empty when there are none.
// Callers add the cure in their own terms (a taller crop box).
const char* cropFaceName(int side);
std::string cropFaceWarning(const std::array<int32_t, 6>& counts);

// Take the mesh of source at t and capture it into tile; true at once when
// tile is built. False, with why naming the node or file, when there is no
// pattern to take or it cannot be captured. A file pattern merges into the
// current host interface's scene for the moment it takes. Main thread only.
bool capturePattern(PatternTile& tile, const PatternSource& source, const CropBox& crop,
                    TimeValue t, std::string& why);

}  // namespace mq
