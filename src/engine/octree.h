// The tile's octree: built in parallel, linked with neighbour references
// ("ropes") across node faces so a ray walks leaf to leaf without a stack.
#pragma once

#include "engine/ray.h"
#include "engine/tile.h"
#include "host/math.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <vector>

namespace mq {

// Exit sides, in neighbour order.
enum BoxSide : int { kSideNegX = 0, kSidePosX, kSideNegY, kSidePosY, kSideNegZ, kSidePosZ };

// The tile build's thread limit: twice the processor count, at least 2.
int defaultBuildThreadLimit();

// Four lanes of single-precision floats or 32-bit integers (GCC and Clang
// vector extensions: plain IEEE operations per lane, on any target).
typedef float Float4 __attribute__((vector_size(16)));
typedef int32_t Int4 __attribute__((vector_size(16)));

// What the ray test reads of four of a leaf's faces, one field per vector,
// stored in the leaf itself so its faces sit together in memory. Lanes past
// the leaf's last face have a zero normal, which the test skips.
struct LeafFaceBlock {
    Float4 normalX, normalY, normalZ, planeDistance;
    Float4 originU, originV, edgeU1, edgeV1, edgeU2, edgeV2;
    Int4 axisU, axisV;
    Int4 faceIndex;
};

// The bytes a tile's octree may take unless the caller says otherwise:
// MOSAIQ_OCTREE_MEMORY_MB (mebibytes) when set to a positive number, else
// kDefaultOctreeMemoryMB. Real patterns need a few hundred megabytes at most;
// the budget stops faces piled up in one place from splitting the tree down
// to its depth limit, which would take all the memory there is.
inline constexpr int64_t kDefaultOctreeMemoryMB = 4096;
inline constexpr const char* kOctreeMemoryVariable = "MOSAIQ_OCTREE_MEMORY_MB";
int64_t octreeMemoryBudget();

// What every node of one tree build shares.
struct OctreeBuild {
    // Worker threads running; a new one is started only while below threadLimit
    // (0: build on the calling thread only). The tree is the same whatever the limit.
    std::atomic<int> runningThreads{0};
    int threadLimit = 0;
    // What the nodes built so far take; the build fails once it passes the
    // budget, which happens for a given tree whatever the thread count.
    std::atomic<int64_t> nodes{0};
    std::atomic<int64_t> bytes{0};
    int64_t memoryBudget = kDefaultOctreeMemoryMB << 20;
    int32_t faceCount = 0;  // of the whole tile, for the report
};

// The build passed its memory budget; what() gives the numbers and the way
// to raise the budget.
class OctreeTooLarge : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class PatternOctreeNode {
public:
    // Builds the whole subtree over faces (which the node takes over). Throws
    // std::bad_alloc or OctreeTooLarge, after joining its threads and freeing
    // what it built.
    PatternOctreeNode(const Box3& box, std::vector<const PatternFace*> faces, int octant, int depth,
                      OctreeBuild& build);
    ~PatternOctreeNode();

    bool isLeaf() const { return children[0] == nullptr; }
    // Fill blocks from faces.
    void packBlocks();

    Box3 box;
    Point3 centre;
    int32_t depth = 0;
    int32_t octant = 0;
    int32_t faceCount = 0;
    std::vector<const PatternFace*> faces;  // a leaf's faces; empty in an inner node
    std::vector<LeafFaceBlock> blocks;      // the same faces, in the same order, four a block
    PatternOctreeNode* children[8] = {};
    PatternOctreeNode* parent = nullptr;
    PatternOctreeNode* neighbour[6] = {};  // -X, +X, -Y, +Y, -Z, +Z
};

// Fill the neighbour links of node and its whole subtree (top-down).
void linkNeighbours(PatternOctreeNode* node);
// The leaf under node that contains p; points on a centre plane go low.
const PatternOctreeNode* locate(const PatternOctreeNode* node, const Point3& p);
// As locate, stopping at a node whose depth is not below maxDepth.
const PatternOctreeNode* locateToDepth(const PatternOctreeNode* node, const Point3& p,
                                       int maxDepth);
// Whether a triangle overlaps a box (by clipping it to the box).
bool triangleBoxOverlap(const PatternFace& face, const Box3& box);

// Side through which a ray leaves box, and the parameter where it does;
// side -1 when the direction is zero.
struct BoxExit {
    int side = -1;
    float t = 1e30f;
};
BoxExit boxExit(const Point3& origin, const Point3& direction, const Box3& box);
// Narrow [tStart, tEnd] to the part of the ray inside box. True when the ray
// enters the box (tStart < tEnd afterwards).
bool clipRayToBox(const Point3& origin, const Point3& direction, const Box3& box, float& tStart,
                  float& tEnd);

// Test every face of a leaf; true when any face is hit within the ray's
// range. Shrinks ray.tEnd and fills hit for each nearer (or equal) hit.
bool intersectLeaf(const PatternOctreeNode& leaf, TileRay& ray, TileHit& hit);
// The rope walk from the root over [ray.tStart, ray.tEnd]. The ray must
// already be clipped to the root's box. ray.tStart advances leaf by leaf; on
// a hit ray.tEnd is the hit's distance. Never allocates; safe to call from
// any number of threads on one tree. A null root, a zero or non-finite ray
// misses.
bool traverse(TileRay& ray, const PatternOctreeNode* root, TileHit& hit);

// Counts for inspection.
struct OctreeStats {
    int depth = 0;
    int nodes = 0;
    int leaves = 0;
    int largestLeaf = 0;
    int64_t bytes = 0;  // counted as the build's memory budget counts them
};
OctreeStats octreeStats(const PatternOctreeNode* root);

}  // namespace mq
