// Per-ray state the tracer hands to primitives and shading: the ray context,
// the record of a hit, and the shade data that answers texture lookups.
//
// All of it lives on the render thread's stack or in per-thread scratch; none
// of these calls may allocate or throw.
#pragma once

#include "host/math.h"

#include <cstdint>

namespace mq::tracer {

class ShadeData;
class DynamicPrimitive;
class RenderInstance;

// What the tracer knows about a surface hit, filled for triangle meshes by
// the tracer and for dynamic primitives by DynamicPrimitive::intersectionData.
struct IntersectionData {
    double t = 0.0;                        // distance along the ray's (unnormalised) direction
    double point[3] = {0, 0, 0};           // world-space hit point, origin + direction * t
    Point3 geometricNormal;                // unit, world space, facing either way
    Point3 shadingNormal;                  // unit, world space
    Point3 bary;                           // barycentric weights of corners 1 and 2 (u, v, 0)
    int32_t faceIndex = -1;                // triangle or pattern face; -1 when unknown
    uint32_t primitiveId = 0;              // the id given to the primitive on insertion
    Point3 faceBase[3];                    // first corner and the two edge vectors, world space
    int64_t skipTag = -1;                  // handed to the next ray leaving this surface
    const ShadeData* shadeData = nullptr;  // texture lookups for this hit; never null once filled
};

// One ray as it travels through the tracer. The tracer owns it and keeps it
// alive across traversal and shading, so a primitive can find what it wrote
// for this ray afterwards by (threadIndex, rayLevel, raySequence).
struct RayContext {
    int32_t threadIndex = 0;  // 0 .. RenderCore::threadCount() - 1, stable for the ray
    int32_t rayLevel = 0;  // 0 for camera rays, +1 per bounce; shadow rays share their parent's + 1
    uint32_t raySequence = 0;  // per-thread counter, never 0, new for every ray traced
    double origin[3] = {0, 0, 0};
    Point3 direction;  // unit length
    float tMin = 0.0f;
    float tMax = 1e30f;
    // Distance of the nearest hit so far; an intersect entry point that finds
    // a nearer hit in [tMin, bestDistance) writes it here.
    double bestDistance = 1e30;
    int64_t skipTag = -1;  // from the surface the ray leaves; -1 for none
    bool shadowRay = false;
    // The hit being shaded; null during traversal and for misses.
    const IntersectionData* hit = nullptr;
};

// Texture coordinates and related lookups for a hit. Implemented by the
// tracer for meshes and by plug-ins for their own geometry. Called on render
// threads concurrently: implementations must be thread-safe and must not
// allocate.
class ShadeData {
public:
    virtual ~ShadeData() = default;
    // UVW of map channel `channel` (0..99) at rc.hit; zero when the channel is absent.
    virtual Point3 uvw(const RayContext& rc, int channel) const = 0;
    // dP/du, dP/dv, dP/dw of the channel at rc.hit; zero by default.
    virtual void uvwBases(const RayContext& rc, int channel, Point3 bases[3]) const {
        bases[0] = bases[1] = bases[2] = Point3();
    }
    // The object's local up axis in world space, unit length.
    virtual Point3 objectAxis(const RayContext& rc) const { return {0, 0, 1}; }
};

}  // namespace mq::tracer
