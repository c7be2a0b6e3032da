// The object's pattern tools: the crop-box operations and tile statistics,
// with a reason the user can act on whenever the pattern cannot be used.
#include "host/pattern_tools.h"

#include "engine/octree.h"
#include "engine/tile.h"
#include "host/check.h"
#include "host/interface.h"
#include "host/node.h"
#include "host/object.h"
#include "object/mosaiq.h"
#include "object/params.h"
#include "object/pattern_store.h"
#include "render/bake.h"
#include "render/preview.h"
#include "render/surface_mapping.h"

#include <memory>
#include <new>
#include <string>
#include <vector>

namespace mosaiq {

using namespace mq;

namespace {

std::string quoted(const std::string& s) { return "\"" + s + "\""; }

// What a tool answers when the call throws: nothing crosses the plug-in
// boundary.
auto failWith(std::string& error) {
    return [&error](const std::string& what) { error = what; };
}

class MosaiqPatternTools final : public IPatternTools {
public:
    explicit MosaiqPatternTools(Mosaiq& obj) : obj_(obj) {}

    bool resetCropBox(std::string& error) override {
        return cropOperation(error, [this] { return obj_.resetCropBox(true); });
    }
    bool fitCropBox(std::string& error) override {
        return cropOperation(error, [this] { return obj_.fitCropBox(); });
    }
    bool tileStats(TimeValue t, TileStats& out, std::string& error) override;
    bool mappingStats(TimeValue t, MappingStats& out, std::string& error) override;
    bool previewTexture(TimeValue t, PreviewImage& out, std::string& error) override;
    bool bakeMesh(TimeValue t, const BakeLimits& limits, Mesh& out, BakeStats& stats,
                  std::string& error) override;

private:
    template <class Operation>
    bool cropOperation(std::string& error, Operation operation);
    // Capture the tile at t as a render does; false with the reason when
    // it cannot be. A file pattern without faces gives an empty tile and a
    // warning: the object shows nothing of it.
    bool captureTile(TimeValue t, PatternTile& tile, std::string& error);
    // Capture the tile and map the surface at t as a render's frame does.
    // False with the reason when either fails; a mapping without pieces is
    // true (mapping.problem says why).
    bool mapFrame(TimeValue t, PatternTile& tile, SurfaceMapping& mapping,
                  std::vector<MosaiqPrimitive>& pieces, std::string& error);

    Mosaiq& obj_;
};

template <class Operation>
bool MosaiqPatternTools::cropOperation(std::string& error, Operation operation) {
    MQ_BOUNDARY_BEGIN
    ParamBlock* pb = obj_.GetParamBlock(0);
    if (!pb) {
        error = "the object has no parameter block";
        return false;
    }
    // The operations read the working copy: source, node and crop transform.
    obj_.ObjectValidity(0);
    if (obj_.patternSource() == kSourceScene) {
        PatternMesh unused;
        if (!scenePatternMesh(pb->GetINode(kPattern, 0), 0, false, unused, error)) return false;
    } else if (!obj_.patternStore().valid && !obj_.loadPatternFile()) {
        error = obj_.lastPatternError();
        if (error.empty())
            error = "Pattern file " + quoted(pb->GetStr(kPatternFile, 0)) + " could not be loaded";
        return false;
    }
    if (operation()) return true;
    // Only a pattern without extent gets past the checks above.
    error = "the pattern has no extent to fit the crop box to";
    return false;
    MQ_BOUNDARY_END(failWith(error))
    return false;
}

bool MosaiqPatternTools::captureTile(TimeValue t, PatternTile& tile, std::string& error) {
    if (!obj_.GetParamBlock(0)) {
        error = "the object has no parameter block";
        return false;
    }
    // A scene pattern is sampled into the store here when it is not yet.
    obj_.ObjectValidity(t);
    const MosaiqSettings settings = obj_.renderSettings();
    if (!capturePattern(tile, settings.pattern, settings.crop, t, error)) return false;
    if (tile.faceCount == 0) {
        if (HostInterface* ip = GetCOREInterface())
            ip->warning("Pattern file " + quoted(settings.pattern.file) +
                        " holds a mesh without faces: the object shows nothing of it");
    }
    return true;
}

bool MosaiqPatternTools::mapFrame(TimeValue t, PatternTile& tile, SurfaceMapping& mapping,
                                  std::vector<MosaiqPrimitive>& pieces, std::string& error) {
    // Renders read the parameters and capture the tile at time 0.
    if (!captureTile(0, tile, error)) return false;
    if (!mapping.build(obj_.renderSettings().surface, tile, t, pieces)) {
        error = mapping.problem.empty() ? "the surface could not be mapped" : mapping.problem;
        return false;
    }
    return true;
}

bool MosaiqPatternTools::tileStats(TimeValue t, TileStats& out, std::string& error) {
    MQ_BOUNDARY_BEGIN
    PatternTile tile;
    if (!captureTile(t, tile, error)) return false;

    TileStats stats;
    stats.faceCount = tile.faceCount;
    stats.vertexCount = tile.vertexCount;
    stats.segmentCountU = tile.segmentCountU;
    stats.segmentCountV = tile.segmentCountV;
    stats.segmentSize = tile.segmentSize;
    stats.cropSize = tile.cropSize;
    if (tile.tree) {
        stats.octreeMin = tile.tree->box.pmin;
        stats.octreeMax = tile.tree->box.pmax;
    }
    const OctreeStats tree = octreeStats(tile.tree.get());
    stats.octreeDepth = tree.depth;
    stats.octreeNodes = tree.nodes;
    stats.octreeLeaves = tree.leaves;
    stats.largestLeaf = tree.largestLeaf;
    stats.octreeBytes = tree.bytes;
    stats.octreeBudget = octreeMemoryBudget();
    stats.octreeBudgetVariable = kOctreeMemoryVariable;
    stats.facesOnCropFaces = facesOnCropFaces(tile);
    stats.cropFaceWarning = cropFaceWarning(stats.facesOnCropFaces);
    const PatternPointCloud& store = obj_.patternStore();
    stats.pointCloudValid = store.valid;
    if (store.valid) stats.pointCloudBox = store.box;
    out = stats;
    return true;
    MQ_BOUNDARY_END(failWith(error))
    return false;
}

bool MosaiqPatternTools::mappingStats(TimeValue t, MappingStats& out, std::string& error) {
    MQ_BOUNDARY_BEGIN
    PatternTile tile;
    SurfaceMapping mapping;
    std::vector<MosaiqPrimitive> pieces;
    if (!mapFrame(t, tile, mapping, pieces, error)) return false;
    MappingStats stats;
    stats.facesInRange = mapping.stats.facesInRange;
    stats.piecesBuilt = mapping.stats.piecesBuilt;
    stats.piecesDropped = mapping.stats.piecesDropped;
    stats.islands = mapping.stats.islands;
    stats.stretchMin = mapping.stats.stretchMin;
    stats.stretchMax = mapping.stats.stretchMax;
    stats.tilingU = mapping.tilingU;
    stats.tilingV = mapping.tilingV;
    out = stats;
    return true;
    MQ_BOUNDARY_END(failWith(error))
    return false;
}

bool MosaiqPatternTools::previewTexture(TimeValue t, PreviewImage& out, std::string& error) {
    MQ_BOUNDARY_BEGIN
    PatternTile tile;
    if (!captureTile(t, tile, error)) return false;
    const int32_t textureSize = obj_.GetParamBlock(0)->GetInt(kTextureSize, 0);
    if (!renderPreviewTexture(tile, textureSize, out)) {
        error = "the preview image could not be made";
        return false;
    }
    return true;
    MQ_BOUNDARY_END(failWith(error))
    return false;
}

bool MosaiqPatternTools::bakeMesh(TimeValue t, const BakeLimits& limits, Mesh& out,
                                  BakeStats& stats, std::string& error) {
    MQ_BOUNDARY_BEGIN
    PatternTile tile;
    SurfaceMapping mapping;
    std::vector<MosaiqPrimitive> pieces;
    if (!mapFrame(t, tile, mapping, pieces, error)) return false;
    return bakePieces(pieces.data(), mapping.primitiveCount, tile, limits, out, stats, error);
    MQ_BOUNDARY_END(failWith(error))
    return false;
}

}  // namespace

IPatternTools* Mosaiq::patternTools() {
    if (!patternTools_) patternTools_.reset(new (std::nothrow) MosaiqPatternTools(*this));
    return patternTools_.get();
}

}  // namespace mosaiq
