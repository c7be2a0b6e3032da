// What one Mosaiq node is inside one render: the pattern tile captured once
// per render, the surface's tetrahedral pieces rebuilt every frame, one
// dynamic primitive that expands into those pieces, and the shading glue
// that answers intersection data and texture coordinates for their hits.
#pragma once

#include "engine/primitive.h"
#include "engine/ray.h"
#include "engine/tile.h"
#include "host/math.h"
#include "render/settings.h"
#include "render/surface_mapping.h"
#include "tracer/primitive.h"
#include "tracer/protocol.h"
#include "tracer/ray_context.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace mosaiq {

// Per render thread, the hit records of the rays in flight: one list per
// thread (by RayContext::threadIndex), one entry per ray level, each tagged
// with the sequence number of the ray that wrote it (0 = empty). A thread
// writes and reads only its own list, so no lock is taken.
class HitRecordStore {
public:
    // Entries a list holds when created, and the step it grows by.
    static constexpr int32_t kGrowthCapacity = 30;

    HitRecordStore() = default;
    ~HitRecordStore() { free(); }
    HitRecordStore(const HitRecordStore&) = delete;
    HitRecordStore& operator=(const HitRecordStore&) = delete;

    // Free, then make threadCount empty lists with room for kGrowthCapacity
    // levels each. False (and no lists) when allocation fails or the count
    // is not positive. Main thread only.
    bool create(int32_t threadCount) noexcept;
    void free() noexcept;
    // Tag every existing record 0 (empty). Main thread only.
    void clearTags() noexcept;
    bool hasLists() const { return lists_ != nullptr; }
    int32_t threadCount() const { return threadCount_; }

    // Record hit for (thread, level) under tag. The list grows to level + 1
    // entries, new ones empty; beyond its capacity it reallocates, which only
    // rays deeper than kGrowthCapacity levels cause. False when the thread or
    // level is out of range, the tag is 0, or that growth fails. Render threads.
    bool write(int32_t thread, int32_t level, uint32_t tag, const mq::TileHit& hit) noexcept;
    // The record of (thread, level) when its tag is tag; null otherwise.
    const mq::TileHit* lookup(int32_t thread, int32_t level, uint32_t tag) const noexcept;

private:
    struct Record {
        uint32_t tag = 0;
        mq::TileHit hit;
    };
    // Own cache line per thread: lists are written concurrently.
    struct alignas(64) ThreadList {
        int32_t count = 0;
        int32_t capacity = 0;
        Record* records = nullptr;
    };
    ThreadList* lists_ = nullptr;
    int32_t threadCount_ = 0;
};

// The render instance of one Mosaiq node. Created and deleted by the
// Mosaiq object (its render-object side) with a copy of its settings; every
// call comes from the tracer and none throws.
class MosaiqInstance final : public mq::tracer::RenderInstance,
                             public mq::tracer::DynamicPrimitive,
                             public mq::tracer::ShadeData {
public:
    // Only the first store is written or read; the others are created,
    // cleared and freed alongside it, kept for the layout the design fixes.
    static constexpr int kStoreCount = 64;

    MosaiqInstance(const mq::MosaiqSettings& settings, mq::tracer::RenderObject* object,
                   mq::Node* node, mq::tracer::RenderCore* core, int renderId);
    ~MosaiqInstance() override;

    // RenderInstance
    void renderBegin(mq::TimeValue t, mq::tracer::RenderCore& core) override;
    void frameBegin(mq::TimeValue t, mq::tracer::RenderCore& core) override;
    void compileGeometry(mq::tracer::RenderCore& core) override;
    void frameEnd(mq::tracer::RenderCore& core) override;
    void renderEnd(mq::tracer::RenderCore& core) override;

    // DynamicPrimitive: primitive i is inserted with id i.
    void expand(int threadIndex, mq::tracer::PrimitiveSink& sink) override;
    void collapse(int threadIndex) override {}
    mq::tracer::StaticBox boundingBox() const override { return box_; }
    bool intersectionData(const mq::tracer::RayContext& rc, uint32_t primitiveId,
                          mq::tracer::IntersectionData& isect) const override;

    // ShadeData: on mapChannel with surface mapping on, the surface's own
    // UVW at the hit; otherwise the pattern's UVW of that channel.
    mq::Point3 uvw(const mq::tracer::RayContext& rc, int channel) const override;
    mq::Point3 objectAxis(const mq::tracer::RayContext& rc) const override;

    // The render's tile and the frame's state.
    const mq::PatternTile& tile() const { return tile_; }
    bool frameValid() const { return frameValid_; }
    int32_t primitiveCount() const { return primitiveCount_; }

private:
    // What a piece's entry points see: the piece and the store its hits go to.
    struct PieceRef {
        const mq::MosaiqPrimitive* piece = nullptr;
        HitRecordStore* store = nullptr;
    };
    static bool intersectPiece(const void* data, mq::tracer::RayContext& rc);
    static bool occludedPiece(const void* data, mq::tracer::RayContext& rc);
    // Tell the user why this node renders nothing at frame time t.
    void reportEmpty(mq::TimeValue t, mq::tracer::RenderCore& core, const std::string& why);
    void freePrimitives() noexcept;
    void freeStores() noexcept;

    std::vector<mq::MosaiqPrimitive> primitives_;
    std::vector<PieceRef> pieceRefs_;
    mq::MosaiqSettings settings_;
    mq::PatternTile tile_;
    std::string captureProblem_;  // why renderBegin's capture failed; empty when it worked
    std::array<HitRecordStore, kStoreCount> hitStores_;
    int32_t primitiveCount_ = 0;
    bool frameValid_ = false;
    int32_t mapChannel_ = 1;
    int32_t useSurfaceMapping_ = 0;
    float tilingU_ = 1.0f, tilingV_ = 1.0f;
    mq::tracer::StaticBox box_;
    // The node transform is the identity: pieces are built in world space.
    mq::Matrix3 objToWorld_, worldToObj_;
};

}  // namespace mosaiq
