// The per-frame Embree scene: mesh and user geometries, and the callbacks
// through which Embree reaches dynamic primitives.
#include "tracer/embree_scene.h"

#include "tracer/renderer.h"

#include <limits>

namespace mq::tracer {

namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();

// The per-ray data Embree hands back to the user geometry callbacks.
struct TraceContext {
    RTCIntersectContext base;
    RayContext* rc;
};

void userBounds(const RTCBoundsFunctionArguments* args) {
    const auto* dyn = static_cast<const DynamicGeom*>(args->geometryUserPtr);
    const StaticBox& b = dyn->entry(0, args->primID).bounds;
    args->bounds_o->lower_x = b.pmin.x;
    args->bounds_o->lower_y = b.pmin.y;
    args->bounds_o->lower_z = b.pmin.z;
    args->bounds_o->upper_x = b.pmax.x;
    args->bounds_o->upper_y = b.pmax.y;
    args->bounds_o->upper_z = b.pmax.z;
}

void userIntersect(const RTCIntersectFunctionNArguments* args) {
    const auto* dyn = static_cast<const DynamicGeom*>(args->geometryUserPtr);
    RayContext& rc = *reinterpret_cast<TraceContext*>(args->context)->rc;
    const PrimitiveEntry& e = dyn->entry(rc.threadIndex, args->primID);
    RTCRayN* ray = RTCRayHitN_RayN(args->rayhit, args->N);
    RTCHitN* hit = RTCRayHitN_HitN(args->rayhit, args->N);
    for (unsigned i = 0; i < args->N; ++i) {
        if (args->valid[i] == 0) continue;
        const float tnear = RTCRayN_tnear(ray, args->N, i);
        float& tfar = RTCRayN_tfar(ray, args->N, i);
        rc.tMin = tnear;
        rc.bestDistance = tfar;
        if (!e.intersect(e.data, rc)) continue;
        const float t = float(rc.bestDistance);
        // Only a nearer hit inside the ray's range replaces the current one.
        if (!(t < tfar && t >= tnear)) continue;
        tfar = t;
        RTCHitN_Ng_x(hit, args->N, i) = -RTCRayN_dir_x(ray, args->N, i);
        RTCHitN_Ng_y(hit, args->N, i) = -RTCRayN_dir_y(ray, args->N, i);
        RTCHitN_Ng_z(hit, args->N, i) = -RTCRayN_dir_z(ray, args->N, i);
        RTCHitN_u(hit, args->N, i) = 0.0f;
        RTCHitN_v(hit, args->N, i) = 0.0f;
        RTCHitN_primID(hit, args->N, i) = args->primID;
        RTCHitN_geomID(hit, args->N, i) = args->geomID;
        RTCHitN_instID(hit, args->N, i, 0) = args->context->instID[0];
    }
}

void userOccluded(const RTCOccludedFunctionNArguments* args) {
    const auto* dyn = static_cast<const DynamicGeom*>(args->geometryUserPtr);
    RayContext& rc = *reinterpret_cast<TraceContext*>(args->context)->rc;
    const PrimitiveEntry& e = dyn->entry(rc.threadIndex, args->primID);
    for (unsigned i = 0; i < args->N; ++i) {
        if (args->valid[i] == 0) continue;
        float& tfar = RTCRayN_tfar(args->ray, args->N, i);
        rc.tMin = RTCRayN_tnear(args->ray, args->N, i);
        rc.bestDistance = tfar;
        const bool blocked = e.occluded ? e.occluded(e.data, rc) : e.intersect(e.data, rc);
        if (blocked) tfar = -kInf;
    }
}

// Keeps the first error for the call that caused it to throw. Called from
// inside Embree, so nothing may leave it.
void embreeError(void* userPtr, RTCError code, const char* str) noexcept {
    auto* first = static_cast<std::string*>(userPtr);
    MQ_BOUNDARY_BEGIN
    if (first->empty())
        *first = "Embree error " + std::to_string(int(code)) + ": " + (str ? str : "");
    MQ_BOUNDARY_END(reportError)
}

GeometryHandle newGeometry(const EmbreeDevice& device, RTCGeometryType type,
                           const std::string& node) {
    GeometryHandle g(rtcNewGeometry(device.get(), type));
    if (!g) throw RenderError("Embree geometry for \"" + node + "\": " + device.error());
    return g;
}

// Under ThreadSanitizer Embree builds on the calling thread: Debian's Embree
// and TBB carry no instrumentation, so the hand-off of our data to their
// build tasks (the bounds callback reads the expansions) would be invisible
// and reported as races. The render threads are ours and stay checked.
#if defined(__SANITIZE_THREAD__)
constexpr const char* kDeviceConfig = "threads=1";
#else
constexpr const char* kDeviceConfig = nullptr;
#endif

}  // namespace

EmbreeDevice::EmbreeDevice() : device_(rtcNewDevice(kDeviceConfig)) {
    if (!device_) throw RenderError("cannot create the Embree device");
    rtcSetDeviceErrorFunction(device_.get(), embreeError, &error_);
}

MeshGeom::MeshGeom(Mesh mesh, const Matrix3& objectToWorld) : mesh_(std::move(mesh)) {
    world_.resize(mesh_.verts.size());
    for (size_t i = 0; i < world_.size(); ++i) world_[i] = mesh_.verts[i] * objectToWorld;
    // Normals go through the inverse transpose; a mirroring transform flips winding.
    Matrix3 normalTM = Transpose3(Inverse(objectToWorld));
    normalTM.NoTrans();
    flip_ = objectToWorld.Determinant() < 0.0f;
    mesh_.SpecifyNormals();
    MeshNormalSpec* nspec = mesh_.GetSpecifiedNormals();
    nspec->SetParent(&mesh_);
    nspec->CheckNormals();
    normals_.resize(nspec->GetNumNormals());
    for (int i = 0; i < nspec->GetNumNormals(); ++i) {
        normals_[i] = Normalize(VectorTransform(normalTM, nspec->Normal(i)));
    }
}

void MeshGeom::fill(int face, float u, float v, IntersectionData& isect) const {
    MQ_DCHECK(face >= 0 && size_t(face) < mesh_.faces.size());
    const Face& f = mesh_.faces[face];
    const Point3& p0 = world_[f.v[0]];
    const Point3 e1 = world_[f.v[1]] - p0, e2 = world_[f.v[2]] - p0;
    Point3 ng = Normalize(CrossProd(e1, e2));
    if (flip_) ng = -ng;
    isect.geometricNormal = ng;
    const MeshNormalSpec* nspec = mesh_.GetSpecifiedNormals();
    Point3 ns = ng;
    if (nspec && face < nspec->GetNumFaces()) {
        const Point3 n = normals_[nspec->GetNormalIndex(face, 0)] * (1.0f - u - v) +
                         normals_[nspec->GetNormalIndex(face, 1)] * u +
                         normals_[nspec->GetNormalIndex(face, 2)] * v;
        if (LengthSquared(n) > 0.0f) ns = Normalize(n);
    }
    isect.shadingNormal = ns;
    isect.bary = {u, v, 0.0f};
    isect.faceIndex = face;
    isect.faceBase[0] = p0;
    isect.faceBase[1] = e1;
    isect.faceBase[2] = e2;
    isect.shadeData = this;
}

Point3 MeshGeom::uvw(const RayContext& rc, int channel) const {
    if (!rc.hit || channel < 0 || channel >= MAX_MESHMAPS || !mesh_.mapSupport(channel)) {
        return {};
    }
    const int face = rc.hit->faceIndex;
    const MeshMap& map = mesh_.Map(channel);
    if (face < 0 || size_t(face) >= map.faces.size()) return {};
    const TVFace& tv = map.faces[face];
    const float u = rc.hit->bary.x, v = rc.hit->bary.y;
    return map.verts[tv.t[0]] * (1.0f - u - v) + map.verts[tv.t[1]] * u + map.verts[tv.t[2]] * v;
}

FrameScene::FrameScene(const EmbreeDevice& device)
    : device_(device), scene_(rtcNewScene(device.get())) {
    if (!scene_) throw RenderError("cannot create the Embree scene: " + device.error());
    rtcSetSceneBuildQuality(scene_.get(), RTC_BUILD_QUALITY_HIGH);
}

void FrameScene::addMesh(Mesh mesh, const Matrix3& objectToWorld, int objectId, int material,
                         const std::string& node) {
    meshes_.push_back(std::make_unique<MeshGeom>(std::move(mesh), objectToWorld));
    const MeshGeom& geom = *meshes_.back();
    const auto& verts = geom.worldVerts();
    const auto& faces = geom.mesh().faces;

    // World-space vertices and the faces' corner indices, copied into Embree's buffers.
    GeometryHandle g = newGeometry(device_, RTC_GEOMETRY_TYPE_TRIANGLE, node);
    auto* vb = static_cast<float*>(rtcSetNewGeometryBuffer(
        g.get(), RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, 3 * sizeof(float), verts.size()));
    auto* ib = static_cast<unsigned*>(rtcSetNewGeometryBuffer(
        g.get(), RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, 3 * sizeof(unsigned), faces.size()));
    if (!vb || !ib) throw RenderError("Embree geometry for \"" + node + "\": " + device_.error());
    for (size_t i = 0; i < verts.size(); ++i) {
        vb[3 * i] = verts[i].x;
        vb[3 * i + 1] = verts[i].y;
        vb[3 * i + 2] = verts[i].z;
    }
    for (size_t i = 0; i < faces.size(); ++i) {
        for (int k = 0; k < 3; ++k) ib[3 * i + k] = faces[i].v[k];
    }
    rtcCommitGeometry(g.get());
    attach(std::move(g), {&geom, nullptr, objectId, material}, node);
}

void FrameScene::addDynamic(DynamicGeom& dyn, int objectId, int material, const std::string& node) {
    MQ_ASSERT(!dyn.perThread.empty() && !dyn.perThread[0].empty(),
              "a dynamic primitive is added to the scene only once expanded");
    GeometryHandle g = newGeometry(device_, RTC_GEOMETRY_TYPE_USER, node);
    rtcSetGeometryUserPrimitiveCount(g.get(), unsigned(dyn.perThread[0].size()));
    rtcSetGeometryUserData(g.get(), &dyn);
    rtcSetGeometryBoundsFunction(g.get(), userBounds, nullptr);
    rtcSetGeometryIntersectFunction(g.get(), userIntersect);
    rtcSetGeometryOccludedFunction(g.get(), userOccluded);
    rtcCommitGeometry(g.get());
    attach(std::move(g), {nullptr, &dyn, objectId, material}, node);
}

void FrameScene::attach(GeometryHandle geometry, const GeomRecord& record,
                        const std::string& node) {
    // The scene takes its own reference; ours goes when `geometry` does.
    const unsigned id = rtcAttachGeometry(scene_.get(), geometry.get());
    if (id == RTC_INVALID_GEOMETRY_ID) {
        throw RenderError("Embree geometry for \"" + node + "\": " + device_.error());
    }
    if (records_.size() <= id) records_.resize(id + 1);
    records_[id] = record;
}

void FrameScene::commit() {
    rtcCommitScene(scene_.get());
    if (!device_.error().empty()) throw RenderError(device_.error());
}

Box3 FrameScene::bounds() const {
    RTCBounds b;
    rtcGetSceneBounds(scene_.get(), &b);
    return b.lower_x <= b.upper_x
               ? Box3({b.lower_x, b.lower_y, b.lower_z}, {b.upper_x, b.upper_y, b.upper_z})
               : Box3();
}

bool FrameScene::intersect(RayContext& rc, SceneHit& hit) const {
    TraceContext ctx;
    rtcInitIntersectContext(&ctx.base);
    ctx.rc = &rc;
    RTCRayHit rh{};
    rh.ray.org_x = float(rc.origin[0]);
    rh.ray.org_y = float(rc.origin[1]);
    rh.ray.org_z = float(rc.origin[2]);
    rh.ray.dir_x = rc.direction.x;
    rh.ray.dir_y = rc.direction.y;
    rh.ray.dir_z = rc.direction.z;
    rh.ray.tnear = rc.tMin;
    rh.ray.tfar = rc.tMax;
    rh.ray.mask = 0xffffffffu;
    rh.hit.geomID = RTC_INVALID_GEOMETRY_ID;
    rh.hit.instID[0] = RTC_INVALID_GEOMETRY_ID;
    rc.bestDistance = rc.tMax;
    rtcIntersect1(scene_.get(), &ctx.base, &rh);
    if (rh.hit.geomID == RTC_INVALID_GEOMETRY_ID) return false;
    // Embree reports only ids it gave out, and each of those has its record.
    MQ_DCHECK(rh.hit.geomID < records_.size());
    MQ_DCHECK(records_[rh.hit.geomID].mesh || records_[rh.hit.geomID].dynamic);
    hit.record = &records_[rh.hit.geomID];
    hit.primID = rh.hit.primID;
    hit.u = rh.hit.u;
    hit.v = rh.hit.v;
    hit.t = rh.ray.tfar;
    rc.bestDistance = rh.ray.tfar;
    return true;
}

bool FrameScene::occluded(RayContext& rc) const {
    TraceContext ctx;
    rtcInitIntersectContext(&ctx.base);
    ctx.rc = &rc;
    RTCRay r{};
    r.org_x = float(rc.origin[0]);
    r.org_y = float(rc.origin[1]);
    r.org_z = float(rc.origin[2]);
    r.dir_x = rc.direction.x;
    r.dir_y = rc.direction.y;
    r.dir_z = rc.direction.z;
    r.tnear = rc.tMin;
    r.tfar = rc.tMax;
    r.mask = 0xffffffffu;
    rc.bestDistance = rc.tMax;
    rtcOccluded1(scene_.get(), &ctx.base, &r);
    // Embree marks a blocked ray by setting tfar to -infinity.
    return r.tfar == -kInf;
}

}  // namespace mq::tracer
