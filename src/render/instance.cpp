#include "render/instance.h"

#include "host/check.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string>

namespace mosaiq {

using namespace mq;
using tracer::IntersectionData;
using tracer::RayContext;
using tracer::RenderCore;
using tracer::StaticBox;

// ---- HitRecordStore ----

bool HitRecordStore::create(int32_t threadCount) noexcept {
    free();
    if (threadCount <= 0) return false;
    auto* lists = new (std::nothrow) ThreadList[threadCount];
    if (!lists) return false;
    for (int32_t i = 0; i < threadCount; ++i) {
        lists[i].capacity = kGrowthCapacity;
        lists[i].records = new (std::nothrow) Record[kGrowthCapacity];
        if (!lists[i].records) {
            for (int32_t j = 0; j < i; ++j) delete[] lists[j].records;
            delete[] lists;
            return false;
        }
    }
    lists_ = lists;
    threadCount_ = threadCount;
    return true;
}

void HitRecordStore::free() noexcept {
    if (lists_) {
        for (int32_t i = 0; i < threadCount_; ++i) delete[] lists_[i].records;
        delete[] lists_;
    }
    lists_ = nullptr;
    threadCount_ = 0;
}

void HitRecordStore::clearTags() noexcept {
    for (int32_t i = 0; i < threadCount_; ++i) {
        for (int32_t k = 0; k < lists_[i].count; ++k) lists_[i].records[k].tag = 0;
    }
}

bool HitRecordStore::write(int32_t thread, int32_t level, uint32_t tag,
                           const TileHit& hit) noexcept {
    if (!lists_ || thread < 0 || thread >= threadCount_ || level < 0 || tag == 0) return false;
    ThreadList& list = lists_[thread];
    if (level >= list.capacity) {
        // Only rays deeper than the initial capacity get here.
        const int32_t capacity = (level / kGrowthCapacity + 1) * kGrowthCapacity;
        auto* grown = new (std::nothrow) Record[capacity];
        if (!grown) return false;
        std::copy(list.records, list.records + list.count, grown);
        delete[] list.records;
        list.records = grown;
        list.capacity = capacity;
    }
    for (int32_t k = list.count; k < level; ++k) list.records[k].tag = 0;
    list.count = std::max(list.count, level + 1);
    list.records[level].tag = tag;
    list.records[level].hit = hit;
    return true;
}

const TileHit* HitRecordStore::lookup(int32_t thread, int32_t level, uint32_t tag) const noexcept {
    if (!lists_ || thread < 0 || thread >= threadCount_ || tag == 0) return nullptr;
    const ThreadList& list = lists_[thread];
    if (level < 0 || level >= list.count || list.records[level].tag != tag) return nullptr;
    return &list.records[level].hit;
}

// ---- MosaiqInstance ----

MosaiqInstance::MosaiqInstance(const MosaiqSettings& settings, tracer::RenderObject* object,
                               Node* node, RenderCore* core, int renderId)
    : settings_(settings) {
    init(object, node, core, renderId);
}

MosaiqInstance::~MosaiqInstance() {
    freePrimitives();
    freeStores();
    tile_.release();
}

void MosaiqInstance::freePrimitives() noexcept {
    std::vector<MosaiqPrimitive>().swap(primitives_);
    std::vector<PieceRef>().swap(pieceRefs_);
    primitiveCount_ = 0;
}

void MosaiqInstance::freeStores() noexcept {
    for (HitRecordStore& store : hitStores_) store.free();
}

void MosaiqInstance::renderBegin(TimeValue t, RenderCore& core) {
    captureProblem_.clear();
    MQ_BOUNDARY_BEGIN
    RenderInstance::renderBegin(t, core);
    for (HitRecordStore& store : hitStores_) store.create(core.threadCount());
    // Settings are read at time 0: none animates. A failed capture leaves
    // the tile empty, which keeps the instance out of the render.
    if (!capturePattern(tile_, settings_.pattern, settings_.crop, 0, captureProblem_)) return;
    if (tile_.faceCount == 0) {
        captureProblem_ =
            "Pattern file \"" + settings_.pattern.file + "\" holds a mesh without faces";
        return;
    }
    const std::string onCropFaces = cropFaceWarning(facesOnCropFaces(tile_));
    if (!onCropFaces.empty()) {
        const std::string name = node() ? "\"" + node()->GetName() + "\"" : "a Mosaiq node";
        core.warning(name + ": " + onCropFaces +
                     ". Make its crop box a little taller: mosaiq crop fit SCENE " +
                     (node() ? node()->GetName() : std::string("NODE")) + " --margin 1");
    }
    MQ_BOUNDARY_END([this](const std::string& what) {
        captureProblem_ = "the pattern could not be captured: " + what;
    })
}

void MosaiqInstance::frameBegin(TimeValue t, RenderCore& core) {
    frameValid_ = false;
    primitiveCount_ = 0;
    box_ = StaticBox();
    MQ_BOUNDARY_BEGIN
    RenderInstance::frameBegin(t, core);
    // Pieces are built directly in world space.
    objToWorld_.IdentityMatrix();
    worldToObj_.IdentityMatrix();

    if (!tile_.built || tile_.faceCount == 0) {
        reportEmpty(t, core, captureProblem_);
        return;
    }
    SurfaceMapping mapping;
    const bool mapped = mapping.build(settings_.surface, tile_, t, primitives_);
    if (!mapping.problem.empty()) reportEmpty(t, core, mapping.problem);
    if (!mapped) return;
    primitiveCount_ = mapping.primitiveCount;
    tilingU_ = mapping.tilingU;
    tilingV_ = mapping.tilingV;
    pieceRefs_.assign(size_t(primitiveCount_), PieceRef{});

    // Taken with the other settings at time 0, not at t: the render keeps
    // them fixed, as the editor does.
    mapChannel_ = settings_.surface.mapChannel;
    useSurfaceMapping_ = settings_.useSurfaceMapping ? 1 : 0;

    for (HitRecordStore& store : hitStores_) {
        if (!store.hasLists() || store.threadCount() != core.threadCount())
            store.create(core.threadCount());
        store.clearTags();
    }
    for (int32_t i = 0; i < primitiveCount_; ++i) {
        MosaiqPrimitive& piece = primitives_[size_t(i)];
        piece.tile = &tile_;
        pieceRefs_[size_t(i)] = {&piece, &hitStores_[0]};
        const Box3 b = piece.boundingBox();
        if (b.pmin.x <= b.pmax.x) box_ += StaticBox{b.pmin, b.pmax};
    }
    frameValid_ = true;
    MQ_BOUNDARY_END([&](const std::string& what) {
        // Out of memory while mapping: this frame renders nothing.
        freePrimitives();
        box_ = StaticBox();
        reportEmpty(t, core, what);
    })
}

void MosaiqInstance::reportEmpty(TimeValue t, RenderCore& core, const std::string& why) {
    MQ_BOUNDARY_BEGIN
    const std::string name = node() ? "\"" + node()->GetName() + "\"" : "a Mosaiq node";
    core.warning(name + ": frame " + std::to_string(t / kTicksPerFrame) +
                 " renders nothing: " + (why.empty() ? "the pattern is not captured" : why));
    MQ_BOUNDARY_END([](const std::string&) {
        // A warning that cannot be built is dropped.
    })
}

void MosaiqInstance::compileGeometry(RenderCore& core) {
    if (!frameValid_ || !tile_.built || tile_.faceCount <= 0) return;
    MQ_BOUNDARY_BEGIN
    tracer::RayServer& server = core.rayServer();
    server.storeDynamicPrimitive(this, this, server.newRenderId());
    MQ_BOUNDARY_END([&](const std::string& what) {
        // Not registered: the instance is invisible this frame.
        reportEmpty(core.currentTime(), core, what);
    })
}

void MosaiqInstance::frameEnd(RenderCore& core) {
    RenderInstance::frameEnd(core);
    if (frameValid_) freePrimitives();
}

void MosaiqInstance::renderEnd(RenderCore& core) {
    RenderInstance::renderEnd(core);
    freeStores();
    tile_.release();
}

void MosaiqInstance::expand(int threadIndex, tracer::PrimitiveSink& sink) {
    // Every thread gets the same entries: the thread comes with each ray.
    for (int32_t i = 0; i < primitiveCount_; ++i) {
        const Box3 b = primitives_[size_t(i)].boundingBox();
        tracer::PrimitiveEntry e;
        e.bounds = StaticBox{b.pmin, b.pmax};
        e.intersect = &MosaiqInstance::intersectPiece;
        e.occluded = &MosaiqInstance::occludedPiece;
        e.data = &pieceRefs_[size_t(i)];
        e.id = uint32_t(i);
        sink.insert(e);
    }
}

namespace {

WorldRay worldRayOf(const RayContext& rc) {
    WorldRay ray;
    std::copy(rc.origin, rc.origin + 3, ray.origin);
    ray.direction = rc.direction;
    ray.tMin = rc.tMin;
    ray.tMax = rc.tMax;
    ray.bestDistance = rc.bestDistance;
    ray.skipKey = rc.skipTag;
    return ray;
}

}  // namespace

bool MosaiqInstance::intersectPiece(const void* data, RayContext& rc) {
    const PieceRef& ref = *static_cast<const PieceRef*>(data);
    WorldRay ray = worldRayOf(rc);
    TileHit hit;
    if (!ref.piece->intersect(ray, hit)) return false;
    // The tracer keeps a hit only when strictly nearer in single precision;
    // a tie must not overwrite the record of the hit it keeps.
    if (!(float(ray.bestDistance) < float(rc.bestDistance))) return false;
    rc.bestDistance = ray.bestDistance;
    ref.store->write(rc.threadIndex, rc.rayLevel, rc.raySequence, hit);
    return true;
}

bool MosaiqInstance::occludedPiece(const void* data, RayContext& rc) {
    const PieceRef& ref = *static_cast<const PieceRef*>(data);
    WorldRay ray = worldRayOf(rc);
    TileHit hit;
    return ref.piece->intersect(ray, hit);
}

bool MosaiqInstance::intersectionData(const RayContext& rc, uint32_t primitiveId,
                                      IntersectionData& isect) const {
    if (primitiveId >= uint32_t(primitiveCount_)) return false;
    const TileHit* hit = hitStores_[0].lookup(rc.threadIndex, rc.rayLevel, rc.raySequence);
    if (!hit || hit->faceIndex < 0 || hit->faceIndex >= tile_.faceCount) return false;
    const MosaiqPrimitive& piece = primitives_[primitiveId];
    // The record must come from this piece: its face key carries the piece's identity.
    const auto ownerKey = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(&piece));
    if (hit->faceKey != faceKeyOf(ownerKey, hit->faceIndex)) return false;

    isect.t = rc.bestDistance;
    for (int a = 0; a < 3; ++a) isect.point[a] = rc.origin[a] + double(rc.direction[a]) * isect.t;
    isect.faceIndex = hit->faceIndex;
    isect.primitiveId = primitiveId;
    isect.bary = Point3(hit->beta, hit->gamma, 0.0f);
    isect.geometricNormal = piece.geometricNormal(*hit);
    isect.shadingNormal = piece.shadingNormal(*hit);
    // The pattern triangle's first corner and edges, carried into world space.
    const PatternFace& face = tile_.faces[size_t(hit->faceIndex)];
    const Point3& v0 = *face.vertex[0];
    isect.faceBase[0] = v0 * piece.tileToWorld;
    isect.faceBase[1] = piece.tileToWorld.VectorTransform(*face.vertex[1] - v0);
    isect.faceBase[2] = piece.tileToWorld.VectorTransform(*face.vertex[2] - v0);
    isect.skipTag = hit->faceKey;
    isect.shadeData = this;
    return true;
}

Point3 MosaiqInstance::uvw(const RayContext& rc, int channel) const {
    const IntersectionData* hit = rc.hit;
    if (!hit || hit->primitiveId >= uint32_t(primitiveCount_)) return {};
    if (channel == mapChannel_ && useSurfaceMapping_ != 0) {
        // Tile space is UV x tiling x tile size (see SurfaceMapping).
        const MosaiqPrimitive& piece = primitives_[hit->primitiveId];
        const Point3 p(float(hit->point[0]), float(hit->point[1]), float(hit->point[2]));
        const Point3 tileP = p * piece.worldToTile;
        const float scale[3] = {tilingU_, tilingV_, 1.0f};
        Point3 out;
        for (int a = 0; a < 3; ++a) {
            const float d = tile_.cropSize[a] * scale[a];
            out[a] = d != 0.0f ? tileP[a] / tile_.cropSize[a] / scale[a] : 0.0f;
        }
        return out;
    }
    if (channel < 0 || channel >= MAX_MESHMAPS || hit->faceIndex < 0) return {};
    const auto& mapFaces = tile_.mapFaces[size_t(channel)];
    if (size_t(hit->faceIndex) >= mapFaces.size()) return {};
    const auto& corners = mapFaces[size_t(hit->faceIndex)];
    if (!corners[0] || !corners[1] || !corners[2]) return {};
    const float b = hit->bary.x, g = hit->bary.y;
    return *corners[0] * (1.0f - b - g) + *corners[1] * b + *corners[2] * g;
}

Point3 MosaiqInstance::objectAxis(const RayContext&) const {
    const Point3 z = objToWorld_.GetRow(2);
    const float len = Length(z);
    return len > 0.0f ? z / len : Point3(0, 0, 1);
}

}  // namespace mosaiq
