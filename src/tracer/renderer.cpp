// The renderer: protocol driving, Embree scene, path tracer, tiles.
#include "tracer/renderer.h"

#include "host/node.h"
#include "host/object.h"
#include "tracer/embree_scene.h"
#include "tracer/protocol.h"
#include "tracer/sampling.h"
#include "tracer/shading.h"

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

class VectorSink final : public PrimitiveSink {
public:
    explicit VectorSink(std::vector<PrimitiveEntry>& out) : out_(out) {}
    void insert(const PrimitiveEntry& e) override { out_.push_back(e); }

private:
    std::vector<PrimitiveEntry>& out_;
};

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

    std::optional<EmbreeDevice> device;

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
    std::vector<std::unique_ptr<DynamicGeom>> dynamics;
    std::optional<FrameScene> frameScene;  // after dynamics: it points into them
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
    device.emplace();
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
    device.reset();
    begun = false;
}

void Renderer::Impl::buildScene() {
    frameScene.emplace(*device);

    // Plain nodes: one triangle geometry each, in world space.
    for (const MeshNode& mn : meshNodes) {
        std::optional<Mesh> mesh = meshOfObject(mn.node->EvalWorldState(time).obj, time);
        if (!mesh || mesh->faces.empty()) continue;
        if (const auto problems = mesh->validate(); !problems.empty()) {
            warning("node " + mn.node->GetName() + " left out: " + problems.front());
            continue;
        }
        frameScene->addMesh(std::move(*mesh), mn.node->GetObjectTM(time), mn.objectId, mn.material,
                            mn.node->GetName());
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
        const int objectId = owner != instanceOf.end() ? owner->second->objectId : 0;
        const int material = owner != instanceOf.end() ? owner->second->material : 0;
        frameScene->addDynamic(*dyn, objectId, material, name);
    }

    frameScene->commit();
}

void Renderer::Impl::releaseFrame() {
    frameScene.reset();
    for (auto& dyn : dynamics) {
        for (int t = 0; t < int(dyn->perThread.size()); ++t) {
            guarded("collapse", [&] { dyn->prim->collapse(t); });
        }
    }
    dynamics.clear();
}

Image Renderer::Impl::frame(int frameIndex) {
    time = TimeValue(frameIndex) * kTicksPerFrame;
    device->clearError();
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
        camera = makeCamera(scene.camera, frameScene->bounds(), settings.width, settings.height);
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
    SceneHit hit;
    if (!frameScene->intersect(rc, hit)) return false;
    rec = hit.record;
    isect = IntersectionData{};
    if (rec->mesh) {
        rec->mesh->fill(int(hit.primID), hit.u, hit.v, isect);
        isect.primitiveId = hit.primID;
    } else {
        const PrimitiveEntry& e = rec->dynamic->perThread[rc.threadIndex][hit.primID];
        isect.primitiveId = e.id;
        isect.t = hit.t;
        for (int a = 0; a < 3; ++a)
            isect.point[a] = rc.origin[a] + double(rc.direction[a]) * isect.t;
        if (!rec->dynamic->prim->intersectionData(rc, e.id, isect)) return false;
        if (!isect.shadeData) isect.shadeData = &kNoShadeData;
    }
    isect.t = hit.t;
    for (int a = 0; a < 3; ++a) isect.point[a] = rc.origin[a] + double(rc.direction[a]) * isect.t;
    return true;
}

bool Renderer::Impl::occluded(RayContext& rc, ThreadState& ts) {
    rc.raySequence = ts.nextSequence();
    rc.hit = nullptr;
    rc.shadowRay = true;
    const bool blocked = frameScene->occluded(rc);
    rc.shadowRay = false;
    return blocked;
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
