// The per-frame Embree scene of the embedded renderer (internal): owners for
// Embree's reference-counted handles, the geometry records a hit resolves
// through, and the scene a frame's rays are traced against.
//
// Everything here is built on the main thread. Once FrameScene::commit has
// returned, a scene is read-only and any number of render threads may trace
// it at once.
#pragma once

#include "host/check.h"
#include "host/math.h"
#include "host/mesh.h"
#include "tracer/primitive.h"
#include "tracer/ray_context.h"

#include <embree3/rtcore.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace mq::tracer {

class RenderInstance;

// Owns one reference to an Embree object and releases it on destruction.
// Move-only; a null handle owns nothing.
template <class Handle, void (*Release)(Handle)>
class EmbreeHandle {
public:
    EmbreeHandle() = default;
    explicit EmbreeHandle(Handle handle) noexcept : handle_(handle) {}
    EmbreeHandle(EmbreeHandle&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    EmbreeHandle& operator=(EmbreeHandle&& other) noexcept {
        if (this != &other) {
            reset();
            handle_ = std::exchange(other.handle_, nullptr);
        }
        return *this;
    }
    EmbreeHandle(const EmbreeHandle&) = delete;
    EmbreeHandle& operator=(const EmbreeHandle&) = delete;
    ~EmbreeHandle() { reset(); }

    void reset() noexcept {
        if (handle_) Release(std::exchange(handle_, nullptr));
    }
    Handle get() const noexcept { return handle_; }
    explicit operator bool() const noexcept { return handle_ != nullptr; }

private:
    Handle handle_ = nullptr;
};

using DeviceHandle = EmbreeHandle<RTCDevice, rtcReleaseDevice>;
using SceneHandle = EmbreeHandle<RTCScene, rtcReleaseScene>;
using GeometryHandle = EmbreeHandle<RTCGeometry, rtcReleaseGeometry>;

// The Embree device of one render and the first error it reported. Not
// movable: Embree keeps a pointer to the error text. Main thread only.
class EmbreeDevice {
public:
    // Throws RenderError when Embree cannot create a device.
    EmbreeDevice();
    EmbreeDevice(const EmbreeDevice&) = delete;
    EmbreeDevice& operator=(const EmbreeDevice&) = delete;

    RTCDevice get() const { return device_.get(); }
    // Embree's first error since the last clearError; empty when none.
    const std::string& error() const { return error_; }
    void clearError() { error_.clear(); }

private:
    std::string error_;  // before device_: the device reports into it until released
    DeviceHandle device_;
};

// A host mesh placed in the world, kept for normals and UVW lookups.
class MeshGeom final : public ShadeData {
public:
    MeshGeom(Mesh mesh, const Matrix3& objectToWorld);

    const std::vector<Point3>& worldVerts() const { return world_; }
    const Mesh& mesh() const { return mesh_; }

    // Fills isect for a hit on triangle `face` at barycentrics (u, v): normals,
    // face frame and this mesh as the shade data; t and point are the caller's.
    // Render threads; never allocates.
    void fill(int face, float u, float v, IntersectionData& isect) const;

    Point3 uvw(const RayContext& rc, int channel) const override;

private:
    Mesh mesh_;
    std::vector<Point3> world_;
    std::vector<Point3> normals_;  // world space, unit
    bool flip_ = false;            // objectToWorld mirrors, so the winding flips
};

// A registered dynamic primitive and its per-thread expansions. perThread has
// one list per render thread, all the same length, filled before the frame's
// scene is built and left unchanged until it is released.
struct DynamicGeom {
    DynamicPrimitive* prim = nullptr;  // not owned
    RenderInstance* owner = nullptr;   // not owned
    int renderId = -1;
    std::vector<std::vector<PrimitiveEntry>> perThread;

    // Primitive primID of render thread `thread`'s expansion. Render threads.
    const PrimitiveEntry& entry(int thread, unsigned primID) const {
        MQ_DCHECK(thread >= 0 && size_t(thread) < perThread.size());
        MQ_DCHECK(primID < perThread[thread].size());
        return perThread[thread][primID];
    }
};

// What an Embree geometry id stands for: exactly one of mesh and dynamic is set.
struct GeomRecord {
    const MeshGeom* mesh = nullptr;
    DynamicGeom* dynamic = nullptr;
    int objectId = 0;  // 1-based
    int material = 0;
};

// The nearest hit of a ray as Embree reports it.
struct SceneHit {
    const GeomRecord* record = nullptr;
    unsigned primID = 0;  // triangle, or index into the dynamic geometry's primitives
    float u = 0.0f, v = 0.0f;
    float t = 0.0f;
};

// One frame's Embree scene: a triangle geometry per mesh and a user geometry
// per dynamic primitive, and the records of both. The device must outlive
// it, and so must every DynamicGeom added.
class FrameScene {
public:
    explicit FrameScene(const EmbreeDevice& device);
    FrameScene(const FrameScene&) = delete;
    FrameScene& operator=(const FrameScene&) = delete;

    // A mesh placed by objectToWorld. Throws RenderError naming `node` when
    // Embree refuses it.
    void addMesh(Mesh mesh, const Matrix3& objectToWorld, int objectId, int material,
                 const std::string& node);
    // A user geometry over dyn.perThread[0]'s primitives, which must be
    // non-empty and have an intersect entry point each. Throws RenderError
    // naming `node` when Embree refuses it.
    void addDynamic(DynamicGeom& dyn, int objectId, int material, const std::string& node);
    // Builds the acceleration structure. Throws RenderError with Embree's
    // first error of the frame.
    void commit();

    // World bounds of everything added; empty for an empty scene. After commit.
    Box3 bounds() const;

    // Nearest hit of rc in [rc.tMin, rc.tMax]; rc.bestDistance ends at the
    // hit's distance. False for a miss. rc.threadIndex picks the dynamic
    // primitives' expansion and must be below their thread count. Render
    // threads, after commit; never throws or allocates.
    bool intersect(RayContext& rc, SceneHit& hit) const;
    // Whether anything blocks rc in [rc.tMin, rc.tMax]. Same rules as intersect.
    bool occluded(RayContext& rc) const;

private:
    void attach(GeometryHandle geometry, const GeomRecord& record, const std::string& node);

    const EmbreeDevice& device_;
    std::vector<std::unique_ptr<MeshGeom>> meshes_;
    std::vector<GeomRecord> records_;  // by Embree geometry id
    SceneHandle scene_;
};

}  // namespace mq::tracer
