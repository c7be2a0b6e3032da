// The renderer: drives the render objects through the protocol, and per
// frame builds the scene (embree_scene) and renders it in tiles (integrator).
#include "tracer/renderer.h"

#include "host/check.h"
#include "host/node.h"
#include "host/object.h"
#include "host/suggest.h"
#include "tracer/embree_scene.h"
#include "tracer/integrator.h"
#include "tracer/protocol.h"
#include "tracer/shading.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

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

const std::vector<std::string>& RenderSettings::keys() {
    static const std::vector<std::string> k = {"width",   "height",   "spp",     "seed", "maxDepth",
                                               "threads", "exposure", "tonemap", "clamp"};
    return k;
}

RenderSettings RenderSettings::fromJson(const nlohmann::json& render, const WarningFn& warn) {
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
    auto number = [&](const char* key, float def, double lo, double hi, const char* expected) {
        if (!render.contains(key)) return def;
        const auto& v = render[key];
        if (!v.is_number() || !(v.get<double>() >= lo && v.get<double>() <= hi)) {
            throw RenderError(std::string("/render/") + key + ": expected " + expected +
                              ", found " + v.dump());
        }
        return float(v.get<double>());
    };
    s.width = integer("width", s.width, 1, 65536);
    s.height = integer("height", s.height, 1, 65536);
    s.samplesPerPixel = integer("spp", s.samplesPerPixel, 1, 1 << 20);
    s.seed = uint32_t(integer("seed", int(s.seed), 0, std::numeric_limits<int>::max()));
    s.maxDepth = integer("maxDepth", s.maxDepth, 1, 1024);
    s.threads = integer("threads", s.threads, 0, 4096);
    s.exposure = number("exposure", s.exposure, -64.0, 64.0, "stops in [-64, 64]");
    s.clamp = number("clamp", s.clamp, 0.0, 1e30, "a luminance >= 0 (0: off)");
    if (render.contains("tonemap")) {
        const auto& v = render["tonemap"];
        const std::vector<std::string> curves = {"filmic", "linear"};
        const std::string name = v.is_string() ? v.get<std::string>() : std::string();
        if (name != "filmic" && name != "linear") {
            throw RenderError("/render/tonemap: expected \"filmic\" or \"linear\", found " +
                              v.dump() + (v.is_string() ? didYouMean(name, curves) : ""));
        }
        s.toneCurve = name == "filmic" ? ToneCurve::Filmic : ToneCurve::Linear;
    }
    if (warn) {
        for (const auto& [key, value] : render.items()) {
            if (std::find(keys().begin(), keys().end(), key) == keys().end())
                warn("/render/" + key + ": unknown key" + didYouMean(key, keys()));
        }
    }
    return s;
}

namespace {

constexpr int kTileSize = 16;

// A node name as messages show it.
std::string quoted(const std::string& name) { return '"' + name + '"'; }

class VectorSink final : public PrimitiveSink {
public:
    explicit VectorSink(std::vector<PrimitiveEntry>& out) : out_(out) {}
    void insert(const PrimitiveEntry& e) override { out_.push_back(e); }

private:
    std::vector<PrimitiveEntry>& out_;
};

}  // namespace

struct Renderer::Impl : RenderCore, RayServer {
    Scene& scene;
    RenderSettings settings;
    int threads = 1;
    WarningFn warn;
    ProgressFn progress;
    std::atomic<bool> cancelled{false};

    std::optional<EmbreeDevice> device;

    struct ObjectEntry {
        RenderObject* object;
        std::string node;  // the first node it renders, for messages
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

    // Runs `call` into a render object on behalf of `node`. False when it
    // threw: the warning names the call and the node, and the caller leaves
    // the node out.
    template <class F>
    bool guarded(const char* call, const std::string& node, F&& f) {
        const auto report = [&](const std::string& why) {
            warning(std::string(call) + " of " + quoted(node) + " failed: " + why);
        };
        MQ_BOUNDARY_BEGIN
        f();
        return true;
        MQ_BOUNDARY_END(report)
        return false;
    }

    // Name of the node whose instance registered dyn; "?" for an unknown owner.
    std::string nodeOf(const DynamicGeom& dyn) const {
        const auto owner = instanceOf.find(dyn.owner);
        return owner != instanceOf.end() ? owner->second->node->GetName() : std::string("?");
    }

    int materialFor(const Node* node) {
        auto it = materialIndex.find(node->material());
        return it == materialIndex.end() ? 0 : it->second;
    }

    void begin();
    void end();
    // Frame setup around render(), which renders into the built scene.
    void frame(int frame, const std::function<void()>& render);
    void buildScene();
    void releaseFrame();
    void endFrame();
    // Samples [firstSample, endSample) of the crop's pixels at every step-th
    // column and row into img; sums (4 floats a pixel, full frame) carries
    // the running sums between passes, null for none. False when cancelled.
    bool renderTiles(Image& img, int firstSample, int endSample, float* sums, int step = 1);
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
    lights = parseLights(scene.lights, *assets, warn);
    // The camera is framed per frame; its keys are checked once, here.
    makeCamera(scene.camera, Box3(), settings.width, settings.height, warn);

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
            ObjectEntry entry{ro, node->GetName()};
            entry.ok = guarded("render object begin", entry.node, [&] {
                if (!ro->init(*this)) throw RenderError("init declined");
                ro->renderBegin(0, *this);
            });
            objects.push_back(entry);
            known = objects.end() - 1;
        }
        if (!known->ok) continue;
        InstanceEntry inst{node, ro, nullptr, objectId, materialFor(node)};
        guarded("render begin", node->GetName(), [&] {
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
        guarded("render end", inst.node->GetName(), [&] {
            inst.instance->renderEnd(*this);
            inst.object->deleteRenderInstance(inst.instance);
        });
    }
    instances.clear();
    instanceOf.clear();
    for (auto& o : objects) {
        if (o.ok) guarded("render object end", o.node, [&] { o.object->renderEnd(*this); });
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
            warning("node " + quoted(mn.node->GetName()) + " left out: " + problems.front());
            continue;
        }
        frameScene->addMesh(std::move(*mesh), mn.node->GetObjectTM(time), mn.objectId, mn.material,
                            mn.node->GetName());
    }

    // Dynamic primitives: expanded for every render thread, one user geometry each.
    for (auto& dyn : dynamics) {
        const auto owner = instanceOf.find(dyn->owner);
        const std::string name = nodeOf(*dyn);
        dyn->perThread.assign(threads, {});
        const bool ok = guarded("expansion", name, [&] {
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
                warning("node " + quoted(name) +
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
        const std::string name = nodeOf(*dyn);
        for (int t = 0; t < int(dyn->perThread.size()); ++t) {
            guarded("collapse", name, [&] { dyn->prim->collapse(t); });
        }
    }
    dynamics.clear();
}

void Renderer::Impl::frame(int frameIndex, const std::function<void()>& render) {
    time = TimeValue(frameIndex) * kTicksPerFrame;
    device->clearError();
    for (auto& o : objects) {
        if (o.ok) {
            o.ok = guarded("render object frame begin", o.node,
                           [&] { o.object->frameBegin(time, *this); });
        }
    }
    for (auto& inst : instances) {
        guarded("frame begin", inst.node->GetName(), [&] {
            inst.instance->frameBegin(time, *this);
            inst.instance->compileGeometry(*this);
        });
    }

    // A failed frame still ends for every object before the failure goes on.
    try {
        buildScene();
        camera = makeCamera(scene.camera, frameScene->bounds(), settings.width, settings.height);
        render();
    } catch (...) {
        endFrame();
        throw;
    }
    endFrame();
}

void Renderer::Impl::endFrame() {
    releaseFrame();
    for (auto& inst : instances) {
        guarded("frame end", inst.node->GetName(), [&] { inst.instance->frameEnd(*this); });
    }
    for (auto& o : objects) {
        if (o.ok) guarded("render object frame end", o.node, [&] { o.object->frameEnd(*this); });
    }
}

bool Renderer::Impl::renderTiles(Image& img, int firstSample, int endSample, float* sums,
                                 int step) {
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
    const int columns = tx1 - tx0;
    const int frameIndex = int(time / kTicksPerFrame);
    const Integrator integrator(*frameScene, materials, lights, camera, settings);

    // Render thread t takes tiles in turn until none is left and owns
    // threadStates[t]: the thread index is the worker's number. A failure
    // (a broken invariant, a progress callback that throws) stops every
    // worker and is rethrown here once all have joined.
    std::atomic<int> next{0};
    std::atomic<int> done{0};
    std::vector<std::exception_ptr> errors(static_cast<size_t>(threads));
    auto work = [&](int t) {
        try {
            for (int i = next++; i < total; i = next++) {
                const int ty = ty0 + i / columns, tx = tx0 + i % columns;
                const int y1 = std::min(crop.y1, (ty + 1) * kTileSize);
                const int x1 = std::min(crop.x1, (tx + 1) * kTileSize);
                // First multiple of step at or after v.
                const auto onGrid = [step](int v) { return (v + step - 1) / step * step; };
                for (int y = onGrid(std::max(crop.y0, ty * kTileSize)); y < y1; y += step) {
                    // Per row, so a cancel lands within a fraction of a tile.
                    if (cancelled.load(std::memory_order_relaxed)) {
                        next = total;
                        return;
                    }
                    for (int x = onGrid(std::max(crop.x0, tx * kTileSize)); x < x1; x += step) {
                        float local[4] = {0, 0, 0, 0};
                        float* pixelSums =
                            sums ? sums + 4 * (size_t(y) * settings.width + x) : local;
                        integrator.accumulatePixel(x, y, frameIndex, firstSample, endSample, t,
                                                   threadStates[size_t(t)], pixelSums, img);
                    }
                }
                const int n = ++done;
                if (progress) progress(n, total);
            }
        } catch (...) {
            errors[size_t(t)] = std::current_exception();
            next = total;
        }
    };
    std::vector<std::thread> workers;
    try {
        for (int t = 1; t < threads; ++t) workers.emplace_back(work, t);
    } catch (const std::system_error&) {
        // Fewer threads than planned: those running share the tiles.
    }
    work(0);
    for (std::thread& worker : workers) worker.join();
    for (const std::exception_ptr& error : errors)
        if (error) std::rethrow_exception(error);
    return !cancelled;
}

Renderer::Renderer(Scene& scene, RenderSettings settings) : settings_(settings) {
    if (settings.width < 1 || settings.height < 1 || settings.samplesPerPixel < 1 ||
        settings.maxDepth < 1 || settings.threads < 0) {
        throw RenderError("render settings: width, height, spp and maxDepth must be positive");
    }
    impl_ = std::make_unique<Impl>(scene, settings);
}

Renderer::~Renderer() {
    // Nothing leaves a destructor: a failure to end is reported instead.
    const auto report = [](const std::string& why) { reportError("render end failed: " + why); };
    MQ_BOUNDARY_BEGIN
    impl_->end();
    MQ_BOUNDARY_END(report)
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
    Image img(settings_.width, settings_.height);
    img.display = settings_.display();
    impl_->frame(frame, [&] {
        if (!impl_->renderTiles(img, 0, settings_.samplesPerPixel, nullptr))
            throw RenderCancelled();
    });
    return img;
}

bool Renderer::renderPasses(int frame, const std::vector<int>& passEnds, int previewStep,
                            const PassFn& onPass) {
    for (size_t i = 0; i < passEnds.size(); ++i) {
        if (passEnds[i] < 1 || (i > 0 && passEnds[i] <= passEnds[i - 1]))
            throw RenderError("render passes: sample counts must be positive and increasing");
    }
    renderBegin();
    const int w = settings_.width, h = settings_.height;
    bool finished = true;
    impl_->frame(frame, [&] {
        if (previewStep > 1) {
            Image preview(w, h);
            preview.display = settings_.display();
            if (!impl_->renderTiles(preview, 0, 1, nullptr, previewStep)) {
                finished = false;
                return;
            }
            // Each traced pixel stands for its block; the crop keeps the rest black.
            CropRegion c = settings_.crop.value_or(CropRegion{0, w, 0, h});
            c = {std::clamp(c.x0, 0, w), std::clamp(c.x1, 0, w), std::clamp(c.y0, 0, h),
                 std::clamp(c.y1, 0, h)};
            for (int y = c.y0; y < c.y1; ++y) {
                for (int x = c.x0; x < c.x1; ++x) {
                    const int sx = std::max(c.x0 + (previewStep - c.x0 % previewStep) % previewStep,
                                            x / previewStep * previewStep);
                    const int sy = std::max(c.y0 + (previewStep - c.y0 % previewStep) % previewStep,
                                            y / previewStep * previewStep);
                    if (sx >= c.x1 || sy >= c.y1) continue;
                    const float* from = preview.pixel(sx, sy);
                    std::copy(from, from + 4, &preview.rgba[4 * (size_t(y) * w + x)]);
                }
            }
            if (onPass) onPass(preview, 0);
        }
        Image img(w, h);
        img.display = settings_.display();
        std::vector<float> sums(size_t(w) * h * 4, 0.0f);
        int done = 0;
        for (const int end : passEnds) {
            if (!impl_->renderTiles(img, done, end, sums.data())) {
                finished = false;
                return;
            }
            done = end;
            if (onPass) onPass(img, done);
        }
    });
    return finished;
}

void Renderer::renderEnd() { impl_->end(); }

void Renderer::cancel() { impl_->cancelled = true; }

Image renderImage(Scene& scene, const RenderSettings& settings, int frame) {
    Renderer r(scene, settings);
    Image img = r.renderFrame(frame);
    r.renderEnd();
    return img;
}

}  // namespace mq::tracer
