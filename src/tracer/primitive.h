// Geometry a plug-in generates at render time: boxes, the primitives a
// dynamic primitive expands into, and the dynamic primitive itself.
#pragma once

#include "host/math.h"
#include "tracer/ray_context.h"

#include <cstdint>

namespace mq::tracer {

// An axis-aligned world box; empty (min above max) when new.
struct StaticBox {
    Point3 pmin{1e30f, 1e30f, 1e30f};
    Point3 pmax{-1e30f, -1e30f, -1e30f};

    bool isEmpty() const { return pmin.x > pmax.x || pmin.y > pmax.y || pmin.z > pmax.z; }
    StaticBox& operator+=(const Point3& p);
    StaticBox& operator+=(const StaticBox& b);
    // The two halves of this box cut at `position` on `axis` (0, 1, 2).
    void split(int axis, float position, StaticBox& lower, StaticBox& upper) const;
};

// Entry points of one primitive. `data` is the pointer given with the
// primitive, handed back unchanged. Both run on render threads concurrently,
// must not allocate or throw, and must look only at [rc.tMin, rc.bestDistance).
//   intersect: on a nearer hit write rc.bestDistance and return true; leave it
//              otherwise. The owner records whatever it needs for
//              DynamicPrimitive::intersectionData, keyed by the ray context.
//   occluded:  true when anything blocks the segment; may be null, and then
//              intersect is used.
using IntersectFn = bool (*)(const void* data, RayContext& rc);
using OccludedFn = bool (*)(const void* data, RayContext& rc);

struct PrimitiveEntry {
    StaticBox bounds;  // must contain every hit the primitive reports
    IntersectFn intersect = nullptr;
    OccludedFn occluded = nullptr;
    const void* data = nullptr;  // not owned; valid until collapse
    uint32_t id = 0;             // handed back as IntersectionData::primitiveId
};

// Where a dynamic primitive puts its primitives during expand.
class PrimitiveSink {
public:
    virtual ~PrimitiveSink() = default;
    virtual void insert(const PrimitiveEntry& entry) = 0;
};

// Geometry that exists only while a frame renders. Registered with the ray
// server in the render instance's geometry hook; the tracer then expands it
// once per render thread on the main thread before any ray is traced, and
// collapses it for every thread after the frame. Every thread's expansion must
// insert the same primitives in the same order (only `data` may differ, for
// per-thread state).
class DynamicPrimitive {
public:
    virtual ~DynamicPrimitive() = default;
    virtual void expand(int threadIndex, PrimitiveSink& sink) = 0;
    // The thread's primitives are no longer used; free per-thread data.
    virtual void collapse(int threadIndex) {}
    // Union of all the primitives' bounds.
    virtual StaticBox boundingBox() const = 0;
    // Split of the bounding box at a plane; the standard box split by default.
    virtual void splitBox(int axis, float position, StaticBox& lower, StaticBox& upper) const {
        boundingBox().split(axis, position, lower, upper);
    }
    // Fill `isect` for the hit a primitive of this object just reported for rc
    // (rc.bestDistance is the hit distance, primitiveId the primitive's id).
    // False when the owner has no record of it: the tracer then treats the
    // ray as a miss of this object. Render threads; never allocates.
    virtual bool intersectionData(const RayContext& rc, uint32_t primitiveId,
                                  IntersectionData& isect) const = 0;
};

}  // namespace mq::tracer
