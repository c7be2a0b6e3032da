// The render instance: hit records never leak between rays, texture
// coordinates on the surface's channel and on the pattern's, and whole
// renders through the embedded tracer, empty Poli_ID ranges included.
#include "render/instance.h"

#include "host/mesh.h"
#include "host/node.h"
#include "host/object.h"
#include "support/test_util.h"
#include "tracer/renderer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <vector>

namespace mosaiq {
namespace {

using namespace mq;
using tracer::IntersectionData;
using tracer::PrimitiveEntry;
using tracer::RayContext;

// ---- Hit-record store ----

TileHit hitWithFace(int32_t face) {
    TileHit h;
    h.faceIndex = face;
    h.faceKey = face * 10;
    return h;
}

TEST(HitRecordStore, LookupFindsOnlyTheRayThatWrote) {
    HitRecordStore store;
    ASSERT_TRUE(store.create(3));
    ASSERT_TRUE(store.write(0, 2, 5, hitWithFace(7)));
    ASSERT_TRUE(store.write(2, 2, 5, hitWithFace(12)));
    ASSERT_NE(store.lookup(0, 2, 5), nullptr);
    EXPECT_EQ(store.lookup(0, 2, 5)->faceIndex, 7);
    EXPECT_EQ(store.lookup(2, 2, 5)->faceIndex, 12);  // each thread its own

    // Nothing for: a later ray on the same level, a level below never written,
    // tag 0 on an empty entry, beyond the list, another thread, no such thread.
    const std::tuple<int, int, uint32_t> nothing[] = {{0, 2, 6}, {0, 1, 5}, {0, 0, 0},  {0, 3, 5},
                                                      {1, 2, 5}, {3, 2, 5}, {-1, 2, 5}, {0, -1, 5}};
    for (const auto& [thread, level, tag] : nothing)
        EXPECT_EQ(store.lookup(thread, level, tag), nullptr)
            << thread << " " << level << " " << tag;

    // A later ray overwrites: the earlier one's record is gone.
    ASSERT_TRUE(store.write(0, 2, 9, hitWithFace(3)));
    EXPECT_EQ(store.lookup(0, 2, 5), nullptr);
    ASSERT_NE(store.lookup(0, 2, 9), nullptr);
    EXPECT_EQ(store.lookup(0, 2, 9)->faceIndex, 3);

    // Deep levels grow the list and keep earlier records.
    const int32_t deep = HitRecordStore::kGrowthCapacity + 15;
    ASSERT_TRUE(store.write(0, deep, 2, hitWithFace(2)));
    ASSERT_NE(store.lookup(0, 2, 9), nullptr);
    EXPECT_EQ(store.lookup(0, deep, 2)->faceIndex, 2);
    for (int32_t level = 3; level < deep; ++level) EXPECT_EQ(store.lookup(0, level, 2), nullptr);

    // Clearing tags (every frame) empties every record.
    store.clearTags();
    EXPECT_EQ(store.lookup(0, 2, 9), nullptr);
    EXPECT_EQ(store.lookup(0, deep, 2), nullptr);
}

TEST(HitRecordStore, UnusableStoresRefuseQuietly) {
    HitRecordStore store;
    EXPECT_FALSE(store.write(0, 0, 1, hitWithFace(0)));  // never created
    EXPECT_EQ(store.lookup(0, 0, 1), nullptr);
    EXPECT_FALSE(store.create(0));
    ASSERT_TRUE(store.create(1));
    EXPECT_FALSE(store.write(0, 0, 0, hitWithFace(0)));  // tag 0 means empty
    EXPECT_FALSE(store.write(1, 0, 1, hitWithFace(0)));
    store.free();
    EXPECT_EQ(store.lookup(0, 0, 1), nullptr);
}

// ---- Scenes ----

// The tracer's side of the protocol for driving an instance by hand.
class FakeCore final : public tracer::RenderCore, public tracer::RayServer {
public:
    explicit FakeCore(int threads) : threads_(threads) {}
    int threadCount() const override { return threads_; }
    tracer::RayServer& rayServer() override { return *this; }
    TimeValue currentTime() const override { return 0; }
    int newRenderId() override { return nextId_++; }
    void storeDynamicPrimitive(tracer::DynamicPrimitive* prim, tracer::RenderInstance*,
                               int) override {
        registered.push_back(prim);
    }
    std::vector<tracer::DynamicPrimitive*> registered;

private:
    int threads_;
    int nextId_ = 1;
};

class VectorSink final : public tracer::PrimitiveSink {
public:
    void insert(const PrimitiveEntry& e) override { entries.push_back(e); }
    std::vector<PrimitiveEntry> entries;
};

using mq::test::addNode;

// A scene object that renders as a Mosaiq object does, from settings the
// test holds (and may change until the render begins).
class SettingsObject final : public GeomObject, public tracer::RenderObject {
public:
    explicit SettingsObject(const MosaiqSettings& settings) : settings_(settings) {}
    ClassId ClassID() const override { return {0x7E57, 1}; }
    std::string GetClassName() const override { return "SettingsObject"; }
    ReferenceTarget* Clone(RemapDir&) override { return new SettingsObject(settings_); }
    void* GetInterface(uint32_t id) override {
        return id == tracer::kRenderObjectInterfaceId ? static_cast<tracer::RenderObject*>(this)
                                                      : nullptr;
    }
    tracer::RenderInstance* newRenderInstance(Node* node, tracer::RenderCore& core,
                                              int renderId) override {
        return new MosaiqInstance(settings_, this, node, &core, renderId);
    }
    void deleteRenderInstance(tracer::RenderInstance* instance) override { delete instance; }

private:
    const MosaiqSettings& settings_;
};

// A 20 x 20 plane surface at z = 0 with UV (x / 20 + 0.5, y / 20 + 0.5) on
// channel 1 (and the same on channel 2), a pattern far out of view, and a
// Mosaiq over the plane. The crop box is 8 x 8 x 2 centred on the pattern's
// position, so with tiling 1 the pattern's middle half lands on
// world [-5, 5]^2.
struct MosaiqScene {
    explicit MosaiqScene(Mesh pattern, const Point3& cropCentre = Point3(0, 0, 0)) {
        Mesh plane = makePlaneMesh(20, 20, 2, 2);
        plane.setMapSupport(2);
        plane.Map(2) = plane.Map(1);
        surface = addNode(scene.root(), "Surface", new TriObject(std::move(plane)));
        patternNode = addNode(scene.root(), "Pattern", new TriObject(std::move(pattern)),
                              TransMatrix(Point3(100, 0, 0)));
        patternNode->SetRenderable(false);
        mosaiqNode = addNode(scene.root(), "Mosaiq", new SettingsObject(settings));
        settings.pattern.node = patternNode->GetHandle();
        settings.crop.transform = TransMatrix(cropCentre);
        settings.crop.size = Point3(8, 8, 2);
        settings.surface.surface = surface->GetHandle();
        // Host planes number their faces' materials from 1: take both ids.
        settings.surface.poliIdFrom = 1;
        settings.surface.poliIdTo = 2;
        settings.surface.height = 50.0f;
    }
    MosaiqScene(const MosaiqScene&) = delete;

    MosaiqSettings settings;
    Scene scene;
    Node* surface = nullptr;
    Node* patternNode = nullptr;
    Node* mosaiqNode = nullptr;
};

// A flat 4 x 4 pattern with UV (x / 4 + 0.5, y / 4 + 0.5): an exact oracle
// for the pattern's own coordinates at any hit.
Mesh flatPattern() { return makePlaneMesh(4, 4, 1, 1); }

// The instance's pieces, expanded for one thread, traced by brute force.
struct Traced {
    bool hit = false;
    IntersectionData isect;
};

Traced traceDown(const MosaiqInstance& inst, const std::vector<PrimitiveEntry>& entries,
                 RayContext& rc, float x, float y) {
    rc.origin[0] = x;
    rc.origin[1] = y;
    rc.origin[2] = 50.0;
    rc.direction = Point3(0, 0, -1);
    rc.bestDistance = rc.tMax;
    rc.hit = nullptr;
    Traced out;
    int64_t best = -1;
    for (const PrimitiveEntry& e : entries) {
        if (e.intersect(e.data, rc)) best = e.id;
    }
    if (best < 0) return out;
    out.hit = inst.intersectionData(rc, uint32_t(best), out.isect);
    return out;
}

struct DrivenInstance {
    DrivenInstance(MosaiqScene& s, int threads = 1) : core(threads) {
        inst = std::make_unique<MosaiqInstance>(s.settings, nullptr, s.mosaiqNode, &core, 1);
        inst->renderBegin(0, core);
        inst->frameBegin(0, core);
        inst->compileGeometry(core);
        VectorSink sink;
        inst->expand(0, sink);
        entries = sink.entries;
    }
    ~DrivenInstance() {
        if (!inst) return;
        inst->frameEnd(core);
        inst->renderEnd(core);
    }
    FakeCore core;
    std::unique_ptr<MosaiqInstance> inst;
    std::vector<PrimitiveEntry> entries;
};

// The UVW at the hit of a ray straight down at (x, y).
Point3 uvwAt(MosaiqScene& s, float x, float y, int channel) {
    DrivenInstance d(s);
    EXPECT_TRUE(d.inst->frameValid());
    RayContext rc;
    rc.raySequence = 11;
    const Traced t = traceDown(*d.inst, d.entries, rc, x, y);
    EXPECT_TRUE(t.hit);
    rc.hit = &t.isect;
    return t.hit ? d.inst->uvw(rc, channel) : Point3(-1, -1, -1);
}

TEST(MosaiqInstanceUvw, SurfaceUvOnTheMapChannelWithMappingOnElseThePatternUv) {
    enum Want { kSurfaceUv, kPatternUv, kZero };
    const struct {
        int mapChannel, useSurfaceMapping, channel;
        float tilingU, tilingV;
        bool realWorldScale;
        Want want;
    } cases[] = {
        {1, 1, 1, 1, 1, false, kSurfaceUv},
        {1, 1, 1, 2, 3, false, kSurfaceUv},
        {1, 1, 1, 0.5f, 0.25f, true, kSurfaceUv},  // the reciprocal tiling
        {1, 0, 1, 1, 1, false, kPatternUv},
        {2, 1, 1, 1, 1, false, kPatternUv},
        {2, 1, 2, 1, 1, false, kSurfaceUv},
        {1, 1, 7, 1, 1, false, kZero},  // neither the pattern nor the mapping has it
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "map " << c.mapChannel << " on " << c.useSurfaceMapping
                                        << " asked " << c.channel << " tiling " << c.tilingU
                                        << " x " << c.tilingV << " rws " << c.realWorldScale);
        MosaiqScene s(flatPattern());
        s.settings.surface.mapChannel = c.mapChannel;
        s.settings.useSurfaceMapping = c.useSurfaceMapping != 0;
        s.settings.surface.tilingU = c.tilingU;
        s.settings.surface.tilingV = c.tilingV;
        s.settings.surface.realWorldScale = c.realWorldScale;
        // Near the middle of the first tile cell, where the pattern lies.
        const float tu = c.realWorldScale ? 1.0f / c.tilingU : c.tilingU;
        const float tv = c.realWorldScale ? 1.0f / c.tilingV : c.tilingV;
        const float x = (0.5f / tu - 0.5f) * 20.0f + 0.3f;
        const float y = (0.5f / tv - 0.5f) * 20.0f - 0.2f;
        // With tiling 1, tile x = (x + 10) / 20 * 8 and pattern x = tile x - 4 = 0.4 x.
        const Point3 want = c.want == kSurfaceUv   ? Point3(x / 20 + 0.5f, y / 20 + 0.5f, 0)
                            : c.want == kPatternUv ? Point3(0.1f * x + 0.5f, 0.1f * y + 0.5f, 0)
                                                   : Point3();
        const Point3 uv = uvwAt(s, x, y, c.channel);
        EXPECT_NEAR(uv.x, want.x, 1e-4f);
        EXPECT_NEAR(uv.y, want.y, 1e-4f);
    }
}

// ---- Intersection data and the frame ----

TEST(MosaiqInstanceHits, IntersectionDataIsTheRecordOfThisRayOnly) {
    MosaiqScene s(flatPattern());
    DrivenInstance d(s, 2);
    RayContext rc;
    rc.threadIndex = 1;
    rc.rayLevel = 2;
    rc.raySequence = 40;
    const Traced t = traceDown(*d.inst, d.entries, rc, 0.7f, 1.1f);
    ASSERT_TRUE(t.hit);
    // The flat pattern lies at tile z = 1 of 2: half-way up the prism.
    EXPECT_NEAR(t.isect.point[0], 0.7, 1e-4);
    EXPECT_NEAR(t.isect.point[1], 1.1, 1e-4);
    EXPECT_NEAR(t.isect.t, 50.0 - t.isect.point[2], 1e-4);
    EXPECT_GT(t.isect.point[2], 0.0);
    EXPECT_EQ(t.isect.shadeData, d.inst.get());
    // The face base spans the hit: corner + beta e1 + gamma e2 is the point.
    const Point3 p = t.isect.faceBase[0] + t.isect.faceBase[1] * t.isect.bary.x +
                     t.isect.faceBase[2] * t.isect.bary.y;
    for (int a = 0; a < 3; ++a) EXPECT_NEAR(p[a], t.isect.point[a], 1e-3);

    // Another ray, level, thread or piece than the one that wrote: no record.
    IntersectionData other;
    const uint32_t id = t.isect.primitiveId;
    for (auto [sequence, level, thread] : {std::tuple{41u, 2, 1}, {40u, 1, 1}, {40u, 2, 0}}) {
        RayContext later = rc;
        later.raySequence = sequence;
        later.rayLevel = level;
        later.threadIndex = thread;
        EXPECT_FALSE(d.inst->intersectionData(later, id, other)) << sequence << level << thread;
    }
    EXPECT_FALSE(d.inst->intersectionData(rc, id == 0 ? 1 : 0, other));
    EXPECT_FALSE(d.inst->intersectionData(rc, uint32_t(d.inst->primitiveCount()), other));
}

TEST(MosaiqInstanceFrame, FailedMappingKeepsTheInstanceOutOfTheRayServer) {
    MosaiqScene s(flatPattern());
    s.settings.surface.surface = 0;
    DrivenInstance d(s);
    EXPECT_TRUE(d.inst->tile().built);
    EXPECT_FALSE(d.inst->frameValid());
    EXPECT_TRUE(d.core.registered.empty());
}

// ---- Whole renders ----

tracer::RenderSettings topView(int threads) {
    tracer::RenderSettings r;
    r.width = r.height = 32;
    r.samplesPerPixel = 2;
    r.maxDepth = 2;
    r.threads = threads;
    r.seed = 3;
    return r;
}

void cameraAbove(Scene& scene) {
    scene.camera = {{"position", {0.0, 0.0, 50.0}},
                    {"target", {0.0, 0.0, 0.0}},
                    {"up", {0.0, 1.0, 0.0}},
                    {"fov", 25.0}};
}

// Where a pixel's centre ray meets z = 0 (|x| and |y| in world units) for
// the camera above: the image spans tan(12.5 deg) x 50 either side.
float pixelReach(int px, int py) {
    const float half = std::tan(12.5f * 3.14159265f / 180.0f) * 50.0f;
    const float x = ((px + 0.5f) / 16.0f - 1.0f) * half;
    const float y = ((py + 0.5f) / 16.0f - 1.0f) * half;
    return std::max(std::fabs(x), std::fabs(y));
}

TEST(MosaiqRender, BoxPatternShowsWhereTheTileHoldsIt) {
    // A 4 x 4 x 1 box in the middle of the 8 x 8 x 2 crop: over the plane it
    // covers world [-5, 5]^2, the rest of the plane stays bare.
    MosaiqScene s(makeBoxMesh(4, 4, 1, 1, 1, 1), Point3(0, 0, 0.5f));
    cameraAbove(s.scene);
    const tracer::Image one = tracer::renderImage(s.scene, topView(1));
    const tracer::Image two = tracer::renderImage(s.scene, topView(2));

    // Objects: the surface is 1, the pattern node is not rendered, Mosaiq is 2.
    int inner = 0, outer = 0, innerMosaiq = 0, outerSurface = 0;
    for (int py = 0; py < 32; ++py) {
        for (int px = 0; px < 32; ++px) {
            const float reach = pixelReach(px, py);
            const float id = one.objectId[size_t(py) * 32 + px];
            if (reach < 4.0f) {
                ++inner;
                innerMosaiq += id == 2.0f;
            } else if (reach > 7.0f && reach < 9.5f) {
                ++outer;
                outerSurface += id == 1.0f;
            }
        }
    }
    ASSERT_GT(inner, 50);
    ASSERT_GT(outer, 100);
    EXPECT_EQ(innerMosaiq, inner);
    EXPECT_EQ(outerSurface, outer);

    // One thread or two: the same bytes.
    EXPECT_EQ(one.rgba, two.rgba);
    EXPECT_EQ(one.normal, two.normal);
    EXPECT_EQ(one.depth, two.depth);
    EXPECT_EQ(one.objectId, two.objectId);

    // A Poli_ID range without faces shows nothing of the pattern.
    s.settings.surface.poliIdFrom = 50;
    s.settings.surface.poliIdTo = 60;
    int mosaiqPixels = 0, surfacePixels = 0;
    for (float id : tracer::renderImage(s.scene, topView(2)).objectId) {
        mosaiqPixels += id == 2.0f;
        surfacePixels += id == 1.0f;
    }
    EXPECT_EQ(mosaiqPixels, 0);
    EXPECT_GT(surfacePixels, 500);
}

}  // namespace
}  // namespace mosaiq
