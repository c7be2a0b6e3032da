// The renderer: protocol driving, Embree scene, path tracer, tiles.
#include "tracer/renderer.h"

#include "host/node.h"
#include "host/object.h"
#include "tracer/protocol.h"
#include "tracer/sampling.h"
#include "tracer/shading.h"

#include <embree3/rtcore.h>
#include <tbb/blocked_range2d.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <map>
#include <thread>

namespace mq::tracer {

void StaticBox::split(int axis, float position, StaticBox& lower, StaticBox& upper) const {
    lower = upper = *this;
    lower.pmax[axis] = position;
    upper.pmin[axis] = position;
}

StaticBox& StaticBox::operator+=(const Point3& p) {
    for (int a = 0; a < 3; ++a) {
        pmin[a] = std::min(pmin[a], p[a]);
        pmax[a] = std::max(pmax[a], p[a]);
    }
    return *this;
}

StaticBox& StaticBox::operator+=(const StaticBox& b) {
    if (b.isEmpty()) return *this;
    *this += b.pmin;
    return *this += b.pmax;
}

Image::Image(int w, int h)
    : width(w),
      height(h),
      rgba(size_t(w) * h * 4, 0.0f),
      normal(size_t(w) * h * 3, 0.0f),
      depth(size_t(w) * h, 0.0f),
      objectId(size_t(w) * h, 0.0f),
      uv(size_t(w) * h * 3, 0.0f) {}

RenderSettings RenderSettings::fromJson(const nlohmann::json& render) {
    RenderSettings s;
    if (render.is_null()) return s;
    if (!render.is_object()) throw RenderError("/render: expected an object");
    auto integer = [&](const char* key, int def, int lo, int hi) {
        if (!render.contains(key)) return def;
        const auto& v = render[key];
        if (!v.is_number_integer() || v.get<int64_t>() < lo || v.get<int64_t>() > hi) {
            throw RenderError(std::string("/render/") + key + ": expected an integer in [" +
                              std::to_string(lo) + ", " + std::to_string(hi) + "], found " +
                              v.dump());
        }
        return v.get<int>();
    };
    s.width = integer("width", s.width, 1, 65536);
    s.height = integer("height", s.height, 1, 65536);
    s.samplesPerPixel = integer("spp", s.samplesPerPixel, 1, 1 << 20);
    s.seed = uint32_t(integer("seed", int(s.seed), 0, std::numeric_limits<int>::max()));
    s.maxDepth = integer("maxDepth", s.maxDepth, 1, 1024);
    s.threads = integer("threads", s.threads, 0, 4096);
    return s;
}

namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr int kTileSize = 16;

// Shade data for a hit with no texture coordinates at all.
class NoShadeData final : public ShadeData {
public:
    Point3 uvw(const RayContext&, int) const override { return {}; }
};
const NoShadeData kNoShadeData;

// A host mesh placed in the world, kept for normals and UVW lookups.
class MeshGeom final : public ShadeData {
public:
    MeshGeom(Mesh m, const Matrix3& objectToWorld) : mesh_(std::move(m)) {
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

    const std::vector<Point3>& worldVerts() const { return world_; }
    const Mesh& mesh() const { return mesh_; }

    void fill(int face, float u, float v, IntersectionData& isect) const {
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

    Point3 uvw(const RayContext& rc, int channel) const override {
        if (!rc.hit || channel < 0 || channel >= MAX_MESHMAPS || !mesh_.mapSupport(channel)) {
            return {};
        }
        const int face = rc.hit->faceIndex;
        const MeshMap& map = mesh_.Map(channel);
        if (face < 0 || size_t(face) >= map.faces.size()) return {};
        const TVFace& tv = map.faces[face];
        const float u = rc.hit->bary.x, v = rc.hit->bary.y;
        return map.verts[tv.t[0]] * (1.0f - u - v) + map.verts[tv.t[1]] * u +
               map.verts[tv.t[2]] * v;
    }

private:
    Mesh mesh_;
    std::vector<Point3> world_;
    std::vector<Point3> normals_;
    bool flip_ = false;
};

// A registered dynamic primitive and its per-thread expansions.
struct DynamicGeom {
    DynamicPrimitive* prim = nullptr;
    RenderInstance* owner = nullptr;
    int renderId = -1;
    std::vector<std::vector<PrimitiveEntry>> perThread;
};

struct GeomRecord {
    const MeshGeom* mesh = nullptr;
    DynamicGeom* dynamic = nullptr;
    int objectId = 0;  // 1-based
    int material = 0;
};

// The per-ray data Embree hands back to the user geometry callbacks.
struct TraceContext {
    RTCIntersectContext base;
    RayContext* rc;
};

class VectorSink final : public PrimitiveSink {
public:
    explicit VectorSink(std::vector<PrimitiveEntry>& out) : out_(out) {}
    void insert(const PrimitiveEntry& e) override { out_.push_back(e); }

private:
    std::vector<PrimitiveEntry>& out_;
};

void userBounds(const RTCBoundsFunctionArguments* args) {
    const auto* dyn = static_cast<const DynamicGeom*>(args->geometryUserPtr);
    const StaticBox& b = dyn->perThread[0][args->primID].bounds;
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
    const PrimitiveEntry& e = dyn->perThread[rc.threadIndex][args->primID];
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
    const PrimitiveEntry& e = dyn->perThread[rc.threadIndex][args->primID];
    for (unsigned i = 0; i < args->N; ++i) {
        if (args->valid[i] == 0) continue;
        float& tfar = RTCRayN_tfar(args->ray, args->N, i);
        rc.tMin = RTCRayN_tnear(args->ray, args->N, i);
        rc.bestDistance = tfar;
        const bool blocked = e.occluded ? e.occluded(e.data, rc) : e.intersect(e.data, rc);
        if (blocked) tfar = -kInf;
    }
}

void embreeError(void* userPtr, RTCError code, const char* str) {
    auto* last = static_cast<std::string*>(userPtr);
    if (last->empty())
        *last = "Embree error " + std::to_string(int(code)) + ": " + (str ? str : "");
}

// Per render thread, on its own cache line.
struct alignas(64) ThreadState {
    uint32_t sequence = 0;
    uint32_t nextSequence() {
        if (++sequence == 0) sequence = 1;
        return sequence;
    }
};

}  // namespace

struct Renderer::Impl : RenderCore, RayServer {
    Scene& scene;
    RenderSettings settings;
    int threads = 1;
    WarningFn warn;
    ProgressFn progress;

    RTCDevice device = nullptr;
    std::string embreeErrorText;

    struct ObjectEntry {
        RenderObject* object;
        bool ok = true;
    };
    struct InstanceEntry {
        Node* node;
        RenderObject* object;
        RenderInstance* instance = nullptr;
        int objectId;
        int material;
    };
    struct MeshNode {
        Node* node;
        int objectId;
        int material;
    };
    bool begun = false;
    std::vector<ObjectEntry> objects;
    std::vector<InstanceEntry> instances;
    std::vector<MeshNode> meshNodes;
    std::unique_ptr<AssetCache> assets;  // the images materials and lights point into
    std::vector<Material> materials;
    std::vector<Light> lights;
    std::map<std::string, int> materialIndex;
    std::map<const RenderInstance*, const InstanceEntry*> instanceOf;
    int nextRenderId = 1;
    TimeValue time = 0;

    // Frame state.
    std::vector<std::unique_ptr<MeshGeom>> meshes;
    std::vector<std::unique_ptr<DynamicGeom>> dynamics;
    std::vector<GeomRecord> records;  // by Embree geometry id
    RTCScene rtc = nullptr;
    Camera camera;
    std::vector<ThreadState> threadStates;

    Impl(Scene& s, RenderSettings st) : scene(s), settings(std::move(st)) {}

    // RenderCore
    int threadCount() const override { return threads; }
    RayServer& rayServer() override { return *this; }
    TimeValue currentTime() const override { return time; }

    // RayServer
    int newRenderId() override { return nextRenderId++; }
    void storeDynamicPrimitive(DynamicPrimitive* prim, RenderInstance* owner,
                               int renderId) override {
        if (!prim) return;
        auto d = std::make_unique<DynamicGeom>();
        d->prim = prim;
        d->owner = owner;
        d->renderId = renderId;
        dynamics.push_back(std::move(d));
    }

    void warning(const std::string& s) override {
        if (warn) warn(s);
    }

    // Runs a call into a render object; an exception leaves the node out.
    template <class F>
    bool guarded(const std::string& what, F&& f) {
        try {
            f();
            return true;
        } catch (const std::exception& e) {
            warning(what + " failed: " + e.what());
        } catch (...) {
            warning(what + " failed");
        }
        return false;
    }

    int materialFor(const Node* node) {
        auto it = materialIndex.find(node->material());
        return it == materialIndex.end() ? 0 : it->second;
    }

    void begin();
    void end();
    Image frame(int frame);
    void buildScene();
    void releaseFrame();
    void renderTiles(Image& img);
    void renderPixel(int x, int y, int frame, int threadIndex, Image& img);
    bool trace(RayContext& rc, ThreadState& ts, IntersectionData& isect, const GeomRecord*& rec);
    bool occluded(RayContext& rc, ThreadState& ts);
};

void Renderer::Impl::begin() {
    threads = settings.threads > 0 ? settings.threads
                                   : int(std::max(1u, std::thread::hardware_concurrency()));
    threadStates.assign(threads, ThreadState{});
    device = rtcNewDevice(nullptr);
    if (!device) throw RenderError("cannot create the Embree device");
    rtcSetDeviceErrorFunction(device, embreeError, &embreeErrorText);
    begun = true;  // from here on end() undoes what begin() did

    // Scene data and the images it names, before any render object is
    // touched: bad input fails here. Material 0 is the default for nodes
    // without one.
    assets = std::make_unique<AssetCache>(settings.assetFolder);
    materials = {Material{}};
    if (scene.materials.is_object()) {
        for (const auto& [name, j] : scene.materials.items()) {
            materialIndex[name] = int(materials.size());
            materials.push_back(parseMaterial(j, name, *assets, warn));
        }
    }
    lights = parseLights(scene.lights, *assets);

    // Renderable nodes: render objects get instances, the rest become meshes.
    int objectId = 0;
    for (Node* node : scene.allNodes()) {
        if (!node->Renderable()) continue;
        ++objectId;
        Object* obj = node->EvalWorldState(0).obj;
        if (!obj) continue;
        auto* ro = static_cast<RenderObject*>(obj->GetInterface(kRenderObjectInterfaceId));
        if (!ro) {
            meshNodes.push_back({node, objectId, materialFor(node)});
            continue;
        }
        auto known = std::find_if(objects.begin(), objects.end(),
                                  [&](const ObjectEntry& o) { return o.object == ro; });
        if (known == objects.end()) {
            ObjectEntry entry{ro};
            entry.ok = guarded("render object of " + node->GetName(), [&] {
                if (!ro->init(*this)) throw RenderError("init declined");
                ro->renderBegin(0, *this);
            });
            objects.push_back(entry);
            known = objects.end() - 1;
        }
        if (!known->ok) continue;
        InstanceEntry inst{node, ro, nullptr, objectId, materialFor(node)};
        guarded("render instance of " + node->GetName(), [&] {
            inst.instance = ro->newRenderInstance(node, *this, newRenderId());
            if (inst.instance) inst.instance->renderBegin(0, *this);
        });
        if (inst.instance) instances.push_back(inst);
    }
    for (const auto& inst : instances) instanceOf[inst.instance] = &inst;
}

void Renderer::Impl::end() {
    if (!begun) return;
    for (auto& inst : instances) {
        guarded("render end of " + inst.node->GetName(), [&] {
            inst.instance->renderEnd(*this);
            inst.object->deleteRenderInstance(inst.instance);
        });
    }
    instances.clear();
    instanceOf.clear();
    for (auto& o : objects) {
        if (o.ok) guarded("render object end", [&] { o.object->renderEnd(*this); });
    }
    objects.clear();
    meshNodes.clear();
    materials.clear();
    materialIndex.clear();
    lights.clear();
    assets.reset();
    if (device) rtcReleaseDevice(device);
    device = nullptr;
    begun = false;
}

void Renderer::Impl::buildScene() {
    rtc = rtcNewScene(device);
    rtcSetSceneBuildQuality(rtc, RTC_BUILD_QUALITY_HIGH);
    records.clear();

    // Plain nodes: one triangle geometry each, in world space.
    for (const MeshNode& mn : meshNodes) {
        std::optional<Mesh> mesh = meshOfObject(mn.node->EvalWorldState(time).obj, time);
        if (!mesh || mesh->faces.empty()) continue;
        if (const auto problems = mesh->validate(); !problems.empty()) {
            warning("node " + mn.node->GetName() + " left out: " + problems.front());
            continue;
        }
        auto geom = std::make_unique<MeshGeom>(std::move(*mesh), mn.node->GetObjectTM(time));
        const auto& verts = geom->worldVerts();
        const auto& faces = geom->mesh().faces;
        RTCGeometry g = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_TRIANGLE);
        auto* vb = static_cast<float*>(rtcSetNewGeometryBuffer(
            g, RTC_BUFFER_TYPE_VERTEX, 0, RTC_FORMAT_FLOAT3, 3 * sizeof(float), verts.size()));
        auto* ib = static_cast<unsigned*>(rtcSetNewGeometryBuffer(
            g, RTC_BUFFER_TYPE_INDEX, 0, RTC_FORMAT_UINT3, 3 * sizeof(unsigned), faces.size()));
        if (!vb || !ib) {
            rtcReleaseGeometry(g);
            throw RenderError("Embree geometry for " + mn.node->GetName() + ": " + embreeErrorText);
        }
        for (size_t i = 0; i < verts.size(); ++i) {
            vb[3 * i] = verts[i].x;
            vb[3 * i + 1] = verts[i].y;
            vb[3 * i + 2] = verts[i].z;
        }
        for (size_t i = 0; i < faces.size(); ++i) {
            for (int k = 0; k < 3; ++k) ib[3 * i + k] = faces[i].v[k];
        }
        rtcCommitGeometry(g);
        const unsigned id = rtcAttachGeometry(rtc, g);
        rtcReleaseGeometry(g);
        if (records.size() <= id) records.resize(id + 1);
        records[id] = {geom.get(), nullptr, mn.objectId, mn.material};
        meshes.push_back(std::move(geom));
    }

    // Dynamic primitives: expanded for every render thread, one user geometry each.
    for (auto& dyn : dynamics) {
        const auto owner = instanceOf.find(dyn->owner);
        const std::string name =
            owner != instanceOf.end() ? owner->second->node->GetName() : std::string("?");
        dyn->perThread.assign(threads, {});
        const bool ok = guarded("expansion of " + name, [&] {
            for (int t = 0; t < threads; ++t) {
                VectorSink sink(dyn->perThread[t]);
                dyn->prim->expand(t, sink);
            }
        });
        bool same = ok;
        for (int t = 1; same && t < threads; ++t) {
            same = dyn->perThread[t].size() == dyn->perThread[0].size();
        }
        for (const auto& e : dyn->perThread[0]) same = same && e.intersect != nullptr;
        if (!same) {
            if (ok)
                warning(name +
                        " left out: its expansions differ between threads or lack entry points");
            continue;
        }
        if (dyn->perThread[0].empty()) continue;
        RTCGeometry g = rtcNewGeometry(device, RTC_GEOMETRY_TYPE_USER);
        rtcSetGeometryUserPrimitiveCount(g, unsigned(dyn->perThread[0].size()));
        rtcSetGeometryUserData(g, dyn.get());
        rtcSetGeometryBoundsFunction(g, userBounds, nullptr);
        rtcSetGeometryIntersectFunction(g, userIntersect);
        rtcSetGeometryOccludedFunction(g, userOccluded);
        rtcCommitGeometry(g);
        const unsigned id = rtcAttachGeometry(rtc, g);
        rtcReleaseGeometry(g);
        if (records.size() <= id) records.resize(id + 1);
        const int objectId = owner != instanceOf.end() ? owner->second->objectId : 0;
        const int material = owner != instanceOf.end() ? owner->second->material : 0;
        records[id] = {nullptr, dyn.get(), objectId, material};
    }

    rtcCommitScene(rtc);
    if (!embreeErrorText.empty()) throw RenderError(embreeErrorText);
}

void Renderer::Impl::releaseFrame() {
    if (rtc) rtcReleaseScene(rtc);
    rtc = nullptr;
    for (auto& dyn : dynamics) {
        for (int t = 0; t < int(dyn->perThread.size()); ++t) {
            guarded("collapse", [&] { dyn->prim->collapse(t); });
        }
    }
    dynamics.clear();
    meshes.clear();
    records.clear();
}

Image Renderer::Impl::frame(int frameIndex) {
    time = TimeValue(frameIndex) * kTicksPerFrame;
    embreeErrorText.clear();
    for (auto& o : objects) {
        if (o.ok)
            o.ok = guarded("render object frame begin", [&] { o.object->frameBegin(time, *this); });
    }
    for (auto& inst : instances) {
        guarded("frame begin of " + inst.node->GetName(), [&] {
            inst.instance->frameBegin(time, *this);
            inst.instance->compileGeometry(*this);
        });
    }

    Image img(settings.width, settings.height);
    try {
        buildScene();
        RTCBounds b;
        rtcGetSceneBounds(rtc, &b);
        const Box3 bounds = b.lower_x <= b.upper_x ? Box3({b.lower_x, b.lower_y, b.lower_z},
                                                          {b.upper_x, b.upper_y, b.upper_z})
                                                   : Box3();
        camera = makeCamera(scene.camera, bounds, settings.width, settings.height);
        renderTiles(img);
    } catch (...) {
        releaseFrame();
        for (auto& inst : instances) guarded("frame end", [&] { inst.instance->frameEnd(*this); });
        for (auto& o : objects) {
            if (o.ok) guarded("frame end", [&] { o.object->frameEnd(*this); });
        }
        throw;
    }
    releaseFrame();
    for (auto& inst : instances) {
        guarded("frame end of " + inst.node->GetName(), [&] { inst.instance->frameEnd(*this); });
    }
    for (auto& o : objects) {
        if (o.ok) guarded("render object frame end", [&] { o.object->frameEnd(*this); });
    }
    return img;
}

void Renderer::Impl::renderTiles(Image& img) {
    CropRegion crop{0, settings.width, 0, settings.height};
    if (settings.crop) {
        crop = *settings.crop;
        crop.x0 = std::clamp(crop.x0, 0, settings.width);
        crop.x1 = std::clamp(crop.x1, crop.x0, settings.width);
        crop.y0 = std::clamp(crop.y0, 0, settings.height);
        crop.y1 = std::clamp(crop.y1, crop.y0, settings.height);
    }
    // Tiles on a fixed grid, so a crop cuts the same tiles as the full image.
    const int tx0 = crop.x0 / kTileSize, tx1 = (crop.x1 + kTileSize - 1) / kTileSize;
    const int ty0 = crop.y0 / kTileSize, ty1 = (crop.y1 + kTileSize - 1) / kTileSize;
    const int total = std::max(0, (tx1 - tx0) * (ty1 - ty0));
    std::atomic<int> done{0};
    const int frameIndex = int(time / kTicksPerFrame);
    tbb::task_arena arena(threads);
    arena.execute([&] {
        tbb::parallel_for(
            tbb::blocked_range2d<int>(ty0, ty1, 1, tx0, tx1, 1),
            [&](const tbb::blocked_range2d<int>& r) {
                const int ti =
                    std::clamp(tbb::this_task_arena::current_thread_index(), 0, threads - 1);
                for (int ty = r.rows().begin(); ty < r.rows().end(); ++ty) {
                    for (int tx = r.cols().begin(); tx < r.cols().end(); ++tx) {
                        const int y1 = std::min(crop.y1, (ty + 1) * kTileSize);
                        const int x1 = std::min(crop.x1, (tx + 1) * kTileSize);
                        for (int y = std::max(crop.y0, ty * kTileSize); y < y1; ++y) {
                            for (int x = std::max(crop.x0, tx * kTileSize); x < x1; ++x) {
                                renderPixel(x, y, frameIndex, ti, img);
                            }
                        }
                        const int n = ++done;
                        if (progress) progress(n, total);
                    }
                }
            },
            tbb::simple_partitioner());
    });
}

bool Renderer::Impl::trace(RayContext& rc, ThreadState& ts, IntersectionData& isect,
                           const GeomRecord*& rec) {
    rc.raySequence = ts.nextSequence();
    rc.hit = nullptr;
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
    rtcIntersect1(rtc, &ctx.base, &rh);
    if (rh.hit.geomID == RTC_INVALID_GEOMETRY_ID || rh.hit.geomID >= records.size()) return false;
    rec = &records[rh.hit.geomID];
    rc.bestDistance = rh.ray.tfar;
    isect = IntersectionData{};
    if (rec->mesh) {
        rec->mesh->fill(int(rh.hit.primID), rh.hit.u, rh.hit.v, isect);
        isect.primitiveId = rh.hit.primID;
    } else {
        const PrimitiveEntry& e = rec->dynamic->perThread[rc.threadIndex][rh.hit.primID];
        isect.primitiveId = e.id;
        isect.t = rh.ray.tfar;
        for (int a = 0; a < 3; ++a)
            isect.point[a] = rc.origin[a] + double(rc.direction[a]) * isect.t;
        if (!rec->dynamic->prim->intersectionData(rc, e.id, isect)) return false;
        if (!isect.shadeData) isect.shadeData = &kNoShadeData;
    }
    isect.t = rh.ray.tfar;
    for (int a = 0; a < 3; ++a) isect.point[a] = rc.origin[a] + double(rc.direction[a]) * isect.t;
    return true;
}

bool Renderer::Impl::occluded(RayContext& rc, ThreadState& ts) {
    rc.raySequence = ts.nextSequence();
    rc.hit = nullptr;
    rc.shadowRay = true;
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
    rtcOccluded1(rtc, &ctx.base, &r);
    rc.shadowRay = false;
    return r.tfar == -kInf;
}

namespace {

float maxComponent(const Point3& p) { return std::max(p.x, std::max(p.y, p.z)); }

// A point just off the surface on the side of direction d, so the next ray
// does not hit the surface it leaves.
void offsetOrigin(const IntersectionData& isect, const Point3& ng, const Point3& d, double out[3]) {
    const double scale =
        1e-4 * (1.0 + std::max({std::fabs(isect.point[0]), std::fabs(isect.point[1]),
                                std::fabs(isect.point[2])}));
    const double s = DotProd(ng, d) >= 0.0f ? scale : -scale;
    for (int a = 0; a < 3; ++a) out[a] = isect.point[a] + double(ng[a]) * s;
}

}  // namespace

void Renderer::Impl::renderPixel(int x, int y, int frameIndex, int threadIndex, Image& img) {
    ThreadState& ts = threadStates[threadIndex];
    const size_t pix = size_t(y) * img.width + x;
    Point3 sum;
    float coverage = 0.0f;
    const float lightSelectPdf = lights.empty() ? 0.0f : 1.0f / float(lights.size());

    for (int s = 0; s < settings.samplesPerPixel; ++s) {
        Rng rng(
            sampleHash(uint32_t(x), uint32_t(y), uint32_t(s), uint32_t(frameIndex), settings.seed));
        RayContext rc;
        rc.threadIndex = threadIndex;
        const float sx = (float(x) + rng.uniform()) / float(img.width);
        const float sy = (float(y) + rng.uniform()) / float(img.height);
        rc.direction = camera.direction(sx, sy);
        for (int a = 0; a < 3; ++a) rc.origin[a] = camera.position[a];
        rc.tMax = kInf;

        Point3 radiance, beta{1, 1, 1};
        float prevBsdfPdf = 0.0f;  // 0: the ray came from the camera
        Point3 prevPoint;
        for (int depth = 0;; ++depth) {
            IntersectionData isect;
            const GeomRecord* rec = nullptr;
            const bool hit = trace(rc, ts, isect, rec);
            const float tHit = hit ? float(isect.t) : kInf;
            if (depth == 0 && hit) coverage += 1.0f;

            // Emitters the ray reaches: sphere lights in front of the hit, or
            // the distant lights on a miss.
            bool absorbed = false;
            const Point3 orig{float(rc.origin[0]), float(rc.origin[1]), float(rc.origin[2])};
            for (const Light& l : lights) {
                float pdfL = 0.0f;
                if (l.kind == Light::Kind::Sphere) {
                    const float t = hitSphereLight(l, orig, rc.direction);
                    if (t <= 0.0f || t >= tHit) continue;
                    pdfL = lightPdf(l, prevPoint, rc.direction);
                    absorbed = true;
                } else if (!hit && !l.isDelta()) {
                    pdfL = lightPdf(l, prevPoint, rc.direction);
                    if (l.kind == Light::Kind::Sun && pdfL == 0.0f) continue;
                } else {
                    continue;
                }
                const float w =
                    prevBsdfPdf > 0.0f ? powerHeuristic(prevBsdfPdf, pdfL * lightSelectPdf) : 1.0f;
                radiance += beta * lightRadiance(l, rc.direction) * w;
            }
            if (!hit || absorbed) break;

            rc.hit = &isect;
            const Material& m = materials[rec->material];
            radiance += beta * m.emission;
            if (depth == 0) {
                const Point3& n = isect.shadingNormal;
                img.normal[3 * pix] = n.x;
                img.normal[3 * pix + 1] = n.y;
                img.normal[3 * pix + 2] = n.z;
                img.depth[pix] = float(isect.t);
                img.objectId[pix] = float(rec->objectId);
                const Point3 uv = isect.shadeData->uvw(rc, 1);
                img.uv[3 * pix] = uv.x;
                img.uv[3 * pix + 1] = uv.y;
                img.uv[3 * pix + 2] = uv.z;
            }
            if (depth >= settings.maxDepth) break;

            // Shading frame facing the incoming ray.
            const Point3 wo = -rc.direction;
            Point3 ng = isect.geometricNormal, ns = isect.shadingNormal;
            if (DotProd(ng, wo) < 0.0f) ng = -ng;
            if (DotProd(ns, ng) < 0.0f) ns = -ns;
            const Frame frame(ns);
            const Point3 woL = frame.toLocal(wo);
            if (woL.z <= 1e-6f) break;
            const Bsdf bsdf(m, m.baseColorAt(rc));
            const Point3 p{float(isect.point[0]), float(isect.point[1]), float(isect.point[2])};

            // Next-event estimation with one light chosen uniformly.
            const float uPick = rng.uniform(), ul1 = rng.uniform(), ul2 = rng.uniform();
            if (!lights.empty()) {
                const Light& l =
                    lights[std::min(size_t(uPick * float(lights.size())), lights.size() - 1)];
                LightSample ls;
                if (sampleLight(l, p, ul1, ul2, ls) && DotProd(ls.wi, ng) > 0.0f) {
                    const Point3 wiL = frame.toLocal(ls.wi);
                    const Point3 f = bsdf.eval(woL, wiL) * std::fabs(wiL.z);
                    if (maxComponent(f) > 0.0f) {
                        RayContext shadow;
                        shadow.threadIndex = threadIndex;
                        shadow.rayLevel = rc.rayLevel + 1;
                        shadow.skipTag = isect.skipTag;
                        offsetOrigin(isect, ng, ls.wi, shadow.origin);
                        shadow.direction = ls.wi;
                        shadow.tMax = ls.distance < 1e29f ? ls.distance * (1.0f - 1e-4f) : kInf;
                        if (!occluded(shadow, ts)) {
                            const float pdfL = ls.pdf * lightSelectPdf;
                            const float w =
                                l.isDelta() ? 1.0f : powerHeuristic(pdfL, bsdf.pdf(woL, wiL));
                            radiance += beta * f * ls.radiance * (w / pdfL);
                        }
                    }
                }
            }

            // Continue the path by sampling the BSDF.
            const float uLobe = rng.uniform(), u1 = rng.uniform(), u2 = rng.uniform();
            const float uRoulette = rng.uniform();
            Point3 wiL;
            float pdf = 0.0f;
            if (!bsdf.sample(woL, uLobe, u1, u2, wiL, pdf)) break;
            const Point3 wi = frame.toWorld(wiL);
            if (DotProd(wi, ng) <= 0.0f) break;
            beta = beta * bsdf.eval(woL, wiL) * (std::fabs(wiL.z) / pdf);
            if (depth >= 3) {
                const float q = std::max(0.05f, 1.0f - maxComponent(beta));
                if (uRoulette < q) break;
                beta = beta / (1.0f - q);
            }
            if (!(maxComponent(beta) > 0.0f)) break;
            prevBsdfPdf = pdf;
            prevPoint = p;
            offsetOrigin(isect, ng, wi, rc.origin);
            rc.direction = wi;
            rc.tMin = 0.0f;
            rc.tMax = kInf;
            rc.rayLevel += 1;
            rc.skipTag = isect.skipTag;
            rc.hit = nullptr;
        }
        if (std::isfinite(radiance.x) && std::isfinite(radiance.y) && std::isfinite(radiance.z)) {
            sum += radiance;
        }
    }
    const float inv = 1.0f / float(settings.samplesPerPixel);
    img.rgba[4 * pix] = sum.x * inv;
    img.rgba[4 * pix + 1] = sum.y * inv;
    img.rgba[4 * pix + 2] = sum.z * inv;
    img.rgba[4 * pix + 3] = coverage * inv;
}

Renderer::Renderer(Scene& scene, RenderSettings settings) : settings_(settings) {
    if (settings.width < 1 || settings.height < 1 || settings.samplesPerPixel < 1 ||
        settings.maxDepth < 1 || settings.threads < 0) {
        throw RenderError("render settings: width, height, spp and maxDepth must be positive");
    }
    impl_ = std::make_unique<Impl>(scene, settings);
}

Renderer::~Renderer() {
    try {
        impl_->end();
    } catch (...) {
    }
}

void Renderer::setWarningSink(WarningFn warn) { impl_->warn = std::move(warn); }
void Renderer::setProgress(ProgressFn progress) { impl_->progress = std::move(progress); }

void Renderer::renderBegin() {
    if (impl_->begun) return;
    try {
        impl_->begin();
    } catch (...) {
        impl_->end();
        throw;
    }
}

Image Renderer::renderFrame(int frame) {
    renderBegin();
    return impl_->frame(frame);
}

void Renderer::renderEnd() { impl_->end(); }

Image renderImage(Scene& scene, const RenderSettings& settings, int frame) {
    Renderer r(scene, settings);
    Image img = r.renderFrame(frame);
    r.renderEnd();
    return img;
}

}  // namespace mq::tracer
