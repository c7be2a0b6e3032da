// The tile's octree: parallel build, triangle-box overlap by polygon
// clipping (Sutherland and Hodgman, "Reentrant polygon clipping", CACM 1974),
// neighbour links and the rope walk (Havran, Bittner and Zara, "Ray tracing
// with rope trees", SCCG 1998) with the per-face test.
#include "engine/octree.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <limits>
#include <string>
#include <system_error>
#include <thread>

namespace mq {

namespace {

constexpr int kMaxDepth = 16;
constexpr int kMaxClipVertices = 20;
constexpr float kInfinity = std::numeric_limits<float>::infinity();

// A straight ray crosses at most 2^16 cells per axis in a tree of depth 16;
// the cap only stops walks that rounding or bad input sends in circles.
constexpr int kMaxWalkSteps = 4 << kMaxDepth;

// The sibling across the X, Y and Z centre planes, by octant.
constexpr int kSiblingX[8] = {1, 0, 3, 2, 5, 4, 7, 6};
constexpr int kSiblingY[8] = {2, 3, 0, 1, 6, 7, 4, 5};
constexpr int kSiblingZ[8] = {4, 5, 6, 7, 0, 1, 2, 3};

// A face's bounding box; empty (inverted) for a face with a non-finite
// corner, which overlaps nothing: it could never be hit, and in every box it
// would only make the tree deeper.
struct FaceBounds {
    Point3 lo, hi;
};

FaceBounds boundsOf(const PatternFace& face) {
    const Point3& a = *face.vertex[0];
    const Point3& b = *face.vertex[1];
    const Point3& c = *face.vertex[2];
    if (!isFinite(a) || !isFinite(b) || !isFinite(c))
        return {Point3(kInfinity, kInfinity, kInfinity),
                Point3(-kInfinity, -kInfinity, -kInfinity)};
    return {
        Point3(std::min({a.x, b.x, c.x}), std::min({a.y, b.y, c.y}), std::min({a.z, b.z, c.z})),
        Point3(std::max({a.x, b.x, c.x}), std::max({a.y, b.y, c.y}), std::max({a.z, b.z, c.z}))};
}

// One child of a node under construction; run inline or on its own thread.
struct BuildJob {
    Box3 box;
    const std::vector<const PatternFace*>* parentFaces = nullptr;
    const FaceBounds* parentBounds = nullptr;  // one per parent face
    int octant = 0;
    int parentDepth = 0;
    PatternOctreeNode** slot = nullptr;  // the parent's children[octant]
    bool threaded = false;
    OctreeBuild* build = nullptr;
    std::exception_ptr error;  // handed back to the parent after the join
};

// A polygon vertex, indexed by axis without Point3's branches.
struct ClipVertex {
    float c[3];
};

// One Sutherland-Hodgman pass: keeps the part of the polygon on the inside
// of the plane p[axis] = bound (above it when keepAbove). Points exactly on
// the plane count as inside, so a face touching a box (lying in one of its
// planes, or meeting it at an edge or corner) overlaps it. Returns the new
// vertex count, or -1 if it would pass the buffer's size.
int clipPass(const ClipVertex* in, int n, ClipVertex* out, int axis, float bound, bool keepAbove) {
    int m = 0;
    for (int i = 0; i < n; ++i) {
        const ClipVertex& a = in[i];
        const ClipVertex& b = in[i + 1 == n ? 0 : i + 1];
        const float da = keepAbove ? a.c[axis] - bound : bound - a.c[axis];
        const float db = keepAbove ? b.c[axis] - bound : bound - b.c[axis];
        const bool aInside = da >= 0.0f, bInside = db >= 0.0f;
        if (aInside) {
            if (m == kMaxClipVertices) return -1;
            out[m++] = a;
        }
        if (aInside != bInside) {
            if (m == kMaxClipVertices) return -1;
            const float t = da / (da - db);
            ClipVertex& p = out[m++];
            for (int k = 0; k < 3; ++k) p.c[k] = a.c[k] + (b.c[k] - a.c[k]) * t;
            p.c[axis] = bound;  // exactly on the plane, whatever the rounding
        }
    }
    return m;
}

// The overlap test with the face's bounds already known.
bool overlapWithin(const PatternFace& face, const FaceBounds& bounds, const Box3& box) {
    const Point3& lo = bounds.lo;
    const Point3& hi = bounds.hi;
    if (hi.x < box.pmin.x || lo.x > box.pmax.x || hi.y < box.pmin.y || lo.y > box.pmax.y ||
        hi.z < box.pmin.z || lo.z > box.pmax.z)
        return false;
    if (box.Contains(lo) && box.Contains(hi)) return true;

    // Clip the triangle to the box, one plane at a time.
    ClipVertex bufA[kMaxClipVertices], bufB[kMaxClipVertices];
    for (int v = 0; v < 3; ++v) {
        const Point3& p = *face.vertex[v];
        bufA[v] = {{p.x, p.y, p.z}};
    }
    const float planes[6] = {box.pmin.x, box.pmax.x, box.pmin.y,
                             box.pmax.y, box.pmin.z, box.pmax.z};
    ClipVertex* in = bufA;
    ClipVertex* out = bufB;
    int n = 3;
    for (int plane = 0; plane < 6; ++plane) {
        n = clipPass(in, n, out, plane / 2, planes[plane], (plane & 1) == 0);
        // Too many vertices only arises from rounding on a face that
        // touches the box: count it as overlapping, which is safe.
        if (n < 0) return true;
        if (n == 0) return false;
        std::swap(in, out);
    }
    return true;
}

void runJob(BuildJob& job) noexcept {
    // The counter only throttles spawning, so relaxed order is enough; a
    // parent may read it before this thread has counted itself.
    if (job.threaded) job.build->runningThreads.fetch_add(1, std::memory_order_relaxed);
    try {
        const std::vector<const PatternFace*>& parent = *job.parentFaces;
        std::vector<uint8_t> overlaps(parent.size());
        size_t count = 0;
        for (size_t i = 0; i < parent.size(); ++i) {
            overlaps[i] = overlapWithin(*parent[i], job.parentBounds[i], job.box) ? 1 : 0;
            count += overlaps[i];
        }
        // Exactly the overlapping faces, in the parent's order.
        std::vector<const PatternFace*> faces;
        faces.reserve(count);
        for (size_t i = 0; i < parent.size(); ++i) {
            if (overlaps[i]) faces.push_back(parent[i]);
        }
        *job.slot = new PatternOctreeNode(job.box, std::move(faces), job.octant,
                                          job.parentDepth + 1, *job.build);
    } catch (...) {
        job.error = std::current_exception();
    }
    if (job.threaded) job.build->runningThreads.fetch_sub(1, std::memory_order_relaxed);
}

PatternOctreeNode* mutableLocateToDepth(PatternOctreeNode* node, const Point3& p, int maxDepth) {
    while (node->depth < maxDepth && !node->isLeaf()) {
        const int i =
            (p.x > node->centre.x) | (p.y > node->centre.y) << 1 | (p.z > node->centre.z) << 2;
        node = node->children[i];
    }
    return node;
}

// What a node takes: itself and, in a leaf, its face list and face blocks.
int64_t nodeBytes(int64_t leafFaces) {
    return int64_t(sizeof(PatternOctreeNode)) + leafFaces * int64_t(sizeof(const PatternFace*)) +
           (leafFaces + 3) / 4 * int64_t(sizeof(LeafFaceBlock));
}

std::string megabytes(int64_t bytes) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f MB", double(bytes) / double(1 << 20));
    return text;
}

// Count a new node against the build's budget.
void chargeBudget(OctreeBuild& build, int64_t leafFaces) {
    const int64_t nodes = build.nodes.fetch_add(1, std::memory_order_relaxed) + 1;
    const int64_t bytes = build.bytes.fetch_add(nodeBytes(leafFaces), std::memory_order_relaxed) +
                          nodeBytes(leafFaces);
    if (bytes <= build.memoryBudget) return;
    throw OctreeTooLarge(
        "the pattern's octree passed its memory budget of " + megabytes(build.memoryBudget) +
        " after " + std::to_string(nodes) + " nodes (" + megabytes(bytes) + ") over " +
        std::to_string(build.faceCount) +
        " faces: faces piled up in one place split it down to its depth limit. Raise the "
        "budget with " +
        kOctreeMemoryVariable + "=<mebibytes> if the pattern is meant so");
}

void collectStats(const PatternOctreeNode* node, OctreeStats& stats) {
    ++stats.nodes;
    stats.bytes += nodeBytes(node->isLeaf() ? node->faceCount : 0);
    stats.depth = std::max(stats.depth, static_cast<int>(node->depth));
    if (node->isLeaf()) {
        ++stats.leaves;
        stats.largestLeaf = std::max(stats.largestLeaf, static_cast<int>(node->faceCount));
        return;
    }
    for (const PatternOctreeNode* child : node->children) collectStats(child, stats);
}

}  // namespace

int64_t octreeMemoryBudget() {
    if (const char* text = std::getenv(kOctreeMemoryVariable)) {
        char* end = nullptr;
        const long long mb = std::strtoll(text, &end, 10);
        // Past 2^40 MB the byte count would overflow.
        if (end != text && *end == '\0' && mb > 0 && mb < (1LL << 40)) return int64_t(mb) << 20;
    }
    return kDefaultOctreeMemoryMB << 20;
}

int defaultBuildThreadLimit() {
    return std::max(2, 2 * static_cast<int>(std::thread::hardware_concurrency()));
}

PatternOctreeNode::PatternOctreeNode(const Box3& box_, std::vector<const PatternFace*> faces_,
                                     int octant_, int depth_, OctreeBuild& build)
    : box(box_), centre((box_.pmin + box_.pmax) / 2.0f), depth(depth_), octant(octant_) {
    const int count = static_cast<int>(faces_.size());
    // More than ten faces per level of depth, and never below depth 16.
    const bool leaf = !(depth * 10 < count && depth < kMaxDepth);
    chargeBudget(build, leaf ? count : 0);
    if (leaf) {
        faces = std::move(faces_);
        faceCount = count;
        packBlocks();
        return;
    }

    // Each face's bounds once for all eight children.
    std::vector<FaceBounds> bounds(faces_.size());
    for (size_t i = 0; i < faces_.size(); ++i) bounds[i] = boundsOf(*faces_[i]);

    const Point3 half = (box.pmax - box.pmin) / 2.0f;
    BuildJob jobs[8];
    std::thread threads[8];
    for (int i = 0; i < 8; ++i) {
        BuildJob& job = jobs[i];
        const Point3 childMin =
            box.pmin + half * Point3(float(i & 1), float((i >> 1) & 1), float((i >> 2) & 1));
        job.box = Box3(childMin, childMin + half);
        job.parentFaces = &faces_;
        job.parentBounds = bounds.data();
        job.octant = i;
        job.parentDepth = depth;
        job.slot = &children[i];
        job.build = &build;
        // A soft limit: started threads count themselves only once running.
        if (build.runningThreads.load(std::memory_order_relaxed) < build.threadLimit) {
            job.threaded = true;
            try {
                threads[i] = std::thread(runJob, std::ref(job));
            } catch (const std::system_error&) {
                job.threaded = false;  // no thread to be had: build it here
            }
        }
        if (!job.threaded) runJob(job);
    }
    for (std::thread& t : threads) {
        if (t.joinable()) t.join();
    }

    for (BuildJob& job : jobs) {
        if (!job.error) continue;
        for (PatternOctreeNode*& child : children) {
            delete child;
            child = nullptr;
        }
        std::rethrow_exception(job.error);
    }
    for (PatternOctreeNode* child : children) child->parent = this;
    // faces_ (the list handed to this node) is freed on return.
}

void PatternOctreeNode::packBlocks() {
    blocks.assign((faces.size() + 3) / 4, LeafFaceBlock{});
    for (size_t i = 0; i < faces.size(); ++i) {
        const PatternFace& f = *faces[i];
        LeafFaceBlock& b = blocks[i / 4];
        const int lane = int(i % 4);
        b.normalX[lane] = f.faceNormal.x;
        b.normalY[lane] = f.faceNormal.y;
        b.normalZ[lane] = f.faceNormal.z;
        b.planeDistance[lane] = f.planeDistance;
        b.originU[lane] = f.originU;
        b.originV[lane] = f.originV;
        b.edgeU1[lane] = f.edgeU1;
        b.edgeV1[lane] = f.edgeV1;
        b.edgeU2[lane] = f.edgeU2;
        b.edgeV2[lane] = f.edgeV2;
        b.axisU[lane] = f.axisU;
        b.axisV[lane] = f.axisV;
        b.faceIndex[lane] = f.faceIndex;
    }
}

PatternOctreeNode::~PatternOctreeNode() {
    for (PatternOctreeNode* child : children) delete child;
}

void linkNeighbours(PatternOctreeNode* node) {
    if (!node) return;
    if (const PatternOctreeNode* parent = node->parent) {
        const Point3& lo = node->box.pmin;
        const Point3& hi = node->box.pmax;
        const Point3& c = node->centre;
        // The centres of the box's six faces.
        const Point3 probes[6] = {{lo.x, c.y, c.z}, {hi.x, c.y, c.z}, {c.x, lo.y, c.z},
                                  {c.x, hi.y, c.z}, {c.x, c.y, lo.z}, {c.x, c.y, hi.z}};
        for (int s = 0; s < 6; ++s) {
            PatternOctreeNode* across = parent->neighbour[s];
            node->neighbour[s] =
                across ? mutableLocateToDepth(across, probes[s], node->depth) : nullptr;
        }
        const int o = node->octant;
        node->neighbour[(o & 1) ? kSideNegX : kSidePosX] = parent->children[kSiblingX[o]];
        node->neighbour[(o & 2) ? kSideNegY : kSidePosY] = parent->children[kSiblingY[o]];
        node->neighbour[(o & 4) ? kSideNegZ : kSidePosZ] = parent->children[kSiblingZ[o]];
    } else {
        std::fill(std::begin(node->neighbour), std::end(node->neighbour), nullptr);
    }
    // Top-down: the children read the links just made.
    if (!node->isLeaf()) {
        for (PatternOctreeNode* child : node->children) linkNeighbours(child);
    }
}

const PatternOctreeNode* locate(const PatternOctreeNode* node, const Point3& p) {
    while (!node->isLeaf()) {
        // Strict: a point on a centre plane goes to the lower child.
        const int i =
            (p.x > node->centre.x) | (p.y > node->centre.y) << 1 | (p.z > node->centre.z) << 2;
        node = node->children[i];
    }
    return node;
}

const PatternOctreeNode* locateToDepth(const PatternOctreeNode* node, const Point3& p,
                                       int maxDepth) {
    return mutableLocateToDepth(const_cast<PatternOctreeNode*>(node), p, maxDepth);
}

bool triangleBoxOverlap(const PatternFace& face, const Box3& box) {
    return overlapWithin(face, boundsOf(face), box);
}

BoxExit boxExit(const Point3& origin, const Point3& direction, const Box3& box) {
    BoxExit exit;
    for (int axis = 0; axis < 3; ++axis) {
        const float d = direction[axis];
        float t;
        int side;
        if (d > 0.0f) {
            t = (box.pmax[axis] - origin[axis]) / d;
            side = 2 * axis + 1;
        } else if (d < 0.0f) {
            t = (box.pmin[axis] - origin[axis]) / d;
            side = 2 * axis;
        } else {
            continue;
        }
        // Strictly smaller: on an edge or corner the earlier axis wins.
        if (t < exit.t) {
            exit.t = t;
            exit.side = side;
        }
    }
    return exit;
}

bool clipRayToBox(const Point3& origin, const Point3& direction, const Box3& box, float& tStart,
                  float& tEnd) {
    if (box.Contains(origin)) {
        tEnd = std::min(tEnd, boxExit(origin, direction, box).t);
        return tStart < tEnd;
    }
    for (int axis = 0; axis < 3; ++axis) {
        const float d = direction[axis];
        const float o = origin[axis];
        if (d == 0.0f) {
            if (o < box.pmin[axis] || o > box.pmax[axis]) return false;
            continue;
        }
        const float tNear = ((d > 0.0f ? box.pmin[axis] : box.pmax[axis]) - o) / d;
        const float tFar = ((d > 0.0f ? box.pmax[axis] : box.pmin[axis]) - o) / d;
        if (tNear > tStart) tStart = tNear;
        if (tFar < tEnd) tEnd = tFar;
    }
    // Touching the box at a single parameter is not entering it.
    return tStart < tEnd;
}

namespace {

Float4 splat(float v) { return Float4{v, v, v, v}; }

// Per lane, p's component on axis (0 x, 1 y, otherwise z).
Float4 onAxis(const Int4& axis, const Float4& x, const Float4& y, const Float4& z) {
    const Int4 isX = axis == 0, isY = axis == 1;
    return (Float4)(((Int4)x & isX) | ((Int4)y & isY) | ((Int4)z & ~(isX | isY)));
}

}  // namespace

bool intersectLeaf(const PatternOctreeNode& leaf, TileRay& ray, TileHit& hit) {
    bool found = false;
    const Float4 dx = splat(ray.direction.x), dy = splat(ray.direction.y),
                 dz = splat(ray.direction.z);
    const Float4 ox = splat(ray.origin.x), oy = splat(ray.origin.y), oz = splat(ray.origin.z);
    const Float4 tStart = splat(ray.tStart);
    const Box3& box = leaf.box;
    // Four faces at a time, each lane with the operations of the one-face
    // test in the same order, so every lane's result is that test's bit for
    // bit. Only the range's end depends on the faces before: lanes are
    // screened against the end as the block starts (it only shrinks) and
    // settled one by one, in order, below.
    for (const LeafFaceBlock& b : leaf.blocks) {
        // Both sides alike; a degenerate face (or an empty lane) has a zero
        // normal and fails here.
        const Float4 denom = dx * b.normalX + dy * b.normalY + dz * b.normalZ;
        const Float4 t =
            (b.planeDistance - (ox * b.normalX + oy * b.normalY + oz * b.normalZ)) / denom;
        Int4 ok = (denom != 0.0f) & (tStart <= t) & (t <= splat(ray.tEnd));

        // Hits outside the leaf belong to the leaf they lie in.
        const Float4 px = dx * t + ox, py = dy * t + oy, pz = dz * t + oz;
        ok &= (px >= box.pmin.x) & (px <= box.pmax.x) & (py >= box.pmin.y) & (py <= box.pmax.y) &
              (pz >= box.pmin.z) & (pz <= box.pmax.z);

        const Float4 du = onAxis(b.axisU, px, py, pz) - b.originU;
        const Float4 dv = onAxis(b.axisV, px, py, pz) - b.originV;
        const Float4 beta = b.edgeV2 * du - b.edgeU2 * dv;
        const Float4 gamma = b.edgeU1 * dv - b.edgeV1 * du;
        // No epsilon. Written as a test for inside so that a NaN weight (a
        // sliver whose scaled edges overflowed) is a miss, not a hit.
        ok &= (beta >= 0.0f) & (gamma >= 0.0f) & (beta + gamma <= 1.0f);

        if (!(ok[0] | ok[1] | ok[2] | ok[3])) continue;
        // Every face is tested: a later face at the same distance replaces an
        // earlier one, because tEnd shrinks to the hit and the range is inclusive.
        for (int lane = 0; lane < 4; ++lane) {
            if (!ok[lane] || !(t[lane] <= ray.tEnd)) continue;
            const int64_t key = faceKeyOf(ray.ownerKey, b.faceIndex[lane]);
            if (key == ray.skipKey) continue;  // the face the ray starts on
            ray.tEnd = t[lane];
            hit.faceKey = key;
            hit.faceIndex = b.faceIndex[lane];
            hit.beta = beta[lane];
            hit.gamma = gamma[lane];
            found = true;
        }
    }
    return found;
}

bool traverse(TileRay& ray, const PatternOctreeNode* root, TileHit& hit) {
    if (!root || !isFinite(ray.origin) || !isFinite(ray.direction)) return false;
    // A zero direction has no exit from any box; an empty or NaN range has nothing to hit.
    if (ray.direction.x == 0.0f && ray.direction.y == 0.0f && ray.direction.z == 0.0f) return false;
    if (!(ray.tStart <= ray.tEnd)) return false;

    const PatternOctreeNode* node = root;
    for (int step = 0; step < kMaxWalkSteps; ++step) {
        const PatternOctreeNode* leaf = locate(node, ray.origin + ray.direction * ray.tStart);
        if (intersectLeaf(*leaf, ray, hit)) return true;
        // On to the node across the side the ray leaves by; it may be larger
        // than a leaf, and the next locate descends from it.
        const BoxExit exit = boxExit(ray.origin, ray.direction, leaf->box);
        if (exit.side < 0) return false;
        ray.tStart = exit.t;
        node = leaf->neighbour[exit.side];
        if (!node || ray.tStart > ray.tEnd) return false;
    }
    return false;
}

OctreeStats octreeStats(const PatternOctreeNode* root) {
    OctreeStats stats;
    if (root) collectStats(root, stats);
    return stats;
}

}  // namespace mq
