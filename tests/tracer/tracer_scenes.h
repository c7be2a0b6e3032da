// Scenes and a test-only analytic sphere for the tracer tests.
#pragma once

#include "host/mesh.h"
#include "host/node.h"
#include "host/object.h"
#include "support/test_util.h"
#include "tracer/protocol.h"
#include "tracer/renderer.h"

#include <atomic>
#include <cmath>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace mq::test {

using namespace mq::tracer;

// A square image `size` pixels a side, quick to render.
inline RenderSettings small(int size, int spp, int threads, int maxDepth = 8) {
    RenderSettings s;
    s.width = s.height = size;
    s.samplesPerPixel = spp;
    s.threads = threads;
    s.maxDepth = maxDepth;
    return s;
}

// A camera on -Y looking at the origin; fov is horizontal, in degrees.
inline void frontCamera(Scene& scene, float distance, float fovDeg) {
    scene.camera = {{"position", {0.0, -distance, 0.0}},
                    {"target", {0.0, 0.0, 0.0}},
                    {"up", {0.0, 0.0, 1.0}},
                    {"fov", fovDeg}};
}

// What the analytic sphere saw of the rays that reached it.
struct RayLog {
    std::atomic<int> calls{0};
    std::atomic<int> badThread{0};  // threadIndex out of range or not the expansion's
    std::atomic<int> zeroSequence{0};
    std::atomic<int> backwardSequence{0};
    std::atomic<int> lookupMisses{0};  // intersectionData found no record for the ray
    std::atomic<int> byLevel[8] = {};
    std::mutex mutex;
    std::vector<std::string> calls_;  // protocol calls in order
    void note(const std::string& s) {
        std::lock_guard<std::mutex> lock(mutex);
        calls_.push_back(s);
    }
};

// A sphere rendered through the render-object protocol: one primitive per
// thread, hits kept per (thread, level) and tagged with the ray's sequence
// number, the way a plug-in keeps its hit records.
class AnalyticSphereInstance final : public RenderInstance,
                                     public DynamicPrimitive,
                                     public ShadeData {
public:
    AnalyticSphereInstance(Point3 center, float radius, RayLog& log)
        : center_(center), radius_(radius), log_(log) {}

    void renderBegin(TimeValue, RenderCore& core) override {
        log_.note("instance.renderBegin");
        threads_.resize(core.threadCount());
        for (int t = 0; t < core.threadCount(); ++t) threads_[t] = {this, t, {}, 0};
    }
    void frameBegin(TimeValue, RenderCore&) override { log_.note("instance.frameBegin"); }
    void compileGeometry(RenderCore& core) override {
        log_.note("instance.compileGeometry");
        core.rayServer().storeDynamicPrimitive(this, this, core.rayServer().newRenderId());
    }
    void frameEnd(RenderCore&) override { log_.note("instance.frameEnd"); }
    void renderEnd(RenderCore&) override { log_.note("instance.renderEnd"); }

    void expand(int threadIndex, PrimitiveSink& sink) override {
        log_.note("expand " + std::to_string(threadIndex));
        PrimitiveEntry e;
        e.bounds = boundingBox();
        e.intersect = &intersect;
        e.data = &threads_[threadIndex];
        e.id = 7;
        sink.insert(e);
    }
    void collapse(int threadIndex) override {
        log_.note("collapse " + std::to_string(threadIndex));
    }
    StaticBox boundingBox() const override {
        StaticBox b;
        b += center_ - Point3(radius_, radius_, radius_);
        b += center_ + Point3(radius_, radius_, radius_);
        return b;
    }

    bool intersectionData(const RayContext& rc, uint32_t id,
                          IntersectionData& isect) const override {
        const ThreadData& td = threads_[rc.threadIndex];
        const Hit& h = td.byLevel[rc.rayLevel & 7];
        if (id != 7 || h.tag != rc.raySequence) {
            ++log_.lookupMisses;
            return false;
        }
        Point3 p;
        for (int a = 0; a < 3; ++a) p[a] = float(rc.origin[a] + double(rc.direction[a]) * h.t);
        const Point3 n = Normalize(p - center_);
        isect.geometricNormal = isect.shadingNormal = n;
        isect.primitiveId = id;
        isect.shadeData = this;
        return true;
    }

    Point3 uvw(const RayContext& rc, int) const override { return {}; }

private:
    struct Hit {
        uint32_t tag = 0;
        double t = 0.0;
    };
    struct ThreadData {
        AnalyticSphereInstance* self;
        int thread;
        Hit byLevel[8];
        uint32_t lastSequence;
    };

    static bool intersect(const void* data, RayContext& rc) {
        auto& td = *const_cast<ThreadData*>(static_cast<const ThreadData*>(data));
        AnalyticSphereInstance& self = *td.self;
        RayLog& log = self.log_;
        ++log.calls;
        if (rc.threadIndex != td.thread) ++log.badThread;
        if (rc.raySequence == 0) ++log.zeroSequence;
        if (rc.raySequence < td.lastSequence) ++log.backwardSequence;
        td.lastSequence = rc.raySequence;
        ++log.byLevel[std::min(rc.rayLevel, 7)];
        // Ray against sphere in double precision; direction is unit length.
        double oc[3], b = 0.0, c = 0.0;
        for (int a = 0; a < 3; ++a) {
            oc[a] = rc.origin[a] - self.center_[a];
            b += oc[a] * rc.direction[a];
            c += oc[a] * oc[a];
        }
        c -= double(self.radius_) * self.radius_;
        const double disc = b * b - c;
        if (disc < 0.0) return false;
        const double sq = std::sqrt(disc);
        double t = -b - sq;
        if (t < rc.tMin) t = -b + sq;
        if (t < rc.tMin || t >= rc.bestDistance) return false;
        rc.bestDistance = t;
        td.byLevel[rc.rayLevel & 7] = {rc.raySequence, t};
        return true;
    }

    Point3 center_;
    float radius_;
    RayLog& log_;
    std::vector<ThreadData> threads_;
};

class AnalyticSphereObject final : public GeomObject, public RenderObject {
public:
    AnalyticSphereObject(Point3 center, float radius, RayLog& log)
        : center_(center), radius_(radius), log_(log) {}

    void* GetInterface(uint32_t id) override {
        return id == kRenderObjectInterfaceId ? static_cast<RenderObject*>(this) : nullptr;
    }
    ClassId ClassID() const override { return ClassId(0x7e57, 0x5e7e); }
    std::string GetClassName() const override { return "AnalyticSphere"; }
    ReferenceTarget* Clone(RemapDir&) override { return nullptr; }

    bool init(RenderCore&) override {
        log_.note("init");
        return true;
    }
    void renderBegin(TimeValue, RenderCore&) override { log_.note("renderBegin"); }
    void renderEnd(RenderCore&) override { log_.note("renderEnd"); }
    void frameBegin(TimeValue, RenderCore&) override { log_.note("frameBegin"); }
    void frameEnd(RenderCore&) override { log_.note("frameEnd"); }
    RenderInstance* newRenderInstance(Node* node, RenderCore& core, int renderId) override {
        log_.note("newRenderInstance");
        auto* inst = new AnalyticSphereInstance(center_, radius_, log_);
        inst->init(this, node, &core, renderId);
        return inst;
    }
    void deleteRenderInstance(RenderInstance* inst) override {
        log_.note("deleteRenderInstance");
        delete inst;
    }

private:
    Point3 center_;
    float radius_;
    RayLog& log_;
};

}  // namespace mq::test
