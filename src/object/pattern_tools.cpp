// The object's pattern tools: the crop-box operations and tile statistics,
// with a reason the user can act on whenever the pattern cannot be used.
#include "host/pattern_tools.h"
#include "engine/octree.h"
#include "engine/tile.h"
#include "host/node.h"
#include "host/object.h"
#include "object/mosaiq.h"
#include "object/pattern_store.h"
#include "plugin/params.h"

#include <exception>
#include <memory>
#include <new>
#include <string>

namespace mosaiq {

using namespace mq;

namespace {

std::string quoted(const std::string& s) { return "\"" + s + "\""; }

// For a catch (...) block: what the exception in flight says.
std::string currentExceptionText() {
    try {
        throw;
    } catch (const std::bad_alloc&) {
        return "out of memory";
    } catch (const std::exception& e) {
        return std::string("unexpected failure: ") + e.what();
    } catch (...) {
        return "unexpected failure";
    }
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

private:
    template <class Operation>
    bool cropOperation(std::string& error, Operation operation);
    // Why the "Pattern" node cannot serve as a pattern at t; empty when it can.
    std::string scenePatternProblem(ParamBlock& pb, TimeValue t, bool needFaces);
    // Why the tile could not be captured, found by retracing the capture.
    std::string captureProblem(ParamBlock& pb, TimeValue t);

    Mosaiq& obj_;
};

template <class Operation>
bool MosaiqPatternTools::cropOperation(std::string& error, Operation operation) {
    try {
        ParamBlock* pb = obj_.GetParamBlock(0);
        if (!pb) {
            error = "the object has no parameter block";
            return false;
        }
        // The operations read the working copy: source, node and crop transform.
        obj_.ObjectValidity(0);
        if (obj_.patternSource() == kSourceScene) {
            error = scenePatternProblem(*pb, 0, false);
            if (!error.empty()) return false;
        } else if (!obj_.patternStore().valid && !obj_.loadPatternFile()) {
            error = obj_.lastPatternError();
            if (error.empty())
                error =
                    "Pattern file " + quoted(pb->GetStr(kPatternFile, 0)) + " could not be loaded";
            return false;
        }
        if (operation()) return true;
        // Only a pattern without extent gets past the checks above.
        error = "the pattern has no extent to fit the crop box to";
        return false;
    } catch (...) {
        // Nothing crosses the plug-in boundary.
        error = currentExceptionText();
        return false;
    }
}

std::string MosaiqPatternTools::scenePatternProblem(ParamBlock& pb, TimeValue t, bool needFaces) {
    Node* node = pb.GetINode(kPattern, 0);
    if (!node) return "no \"Pattern\" node is set";
    const std::string what = "\"Pattern\" node " + quoted(node->GetName());
    const std::optional<Mesh> mesh = meshOfObject(node->EvalWorldState(t, true).obj, t);
    if (!mesh) return what + " has no mesh";
    if (mesh->getNumVerts() == 0) return what + " has an empty mesh";
    if (needFaces && mesh->getNumFaces() == 0) return what + " has a mesh without faces";
    return {};
}

std::string MosaiqPatternTools::captureProblem(ParamBlock& pb, TimeValue t) {
    std::string why;
    if (pb.GetInt(kPatternSource, 0) == kSourceScene) {
        why = scenePatternProblem(pb, t, true);
    } else {
        // The file loader checks what the capture checks and says which failed.
        auto scratch = std::make_unique<PatternPointCloud>();
        loadPatternStore(*scratch, pb.GetStr(kPatternFile, 0), &why);
    }
    return why.empty() ? "the pattern could not be captured" : why;
}

bool MosaiqPatternTools::tileStats(TimeValue t, TileStats& out, std::string& error) {
    try {
        ParamBlock* pb = obj_.GetParamBlock(0);
        if (!pb) {
            error = "the object has no parameter block";
            return false;
        }
        // A scene pattern is sampled into the store here when it is not yet.
        obj_.ObjectValidity(t);

        PatternTile tile;
        if (!tile.capture(pb, t)) {
            error = captureProblem(*pb, t);
            return false;
        }
        // A file's mesh may have no faces; such a tile shows nothing.
        if (tile.faceCount == 0) {
            error = "Pattern file " + quoted(pb->GetStr(kPatternFile, 0)) +
                    " holds a mesh without faces";
            return false;
        }

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
        const PatternPointCloud& store = obj_.patternStore();
        stats.pointCloudValid = store.valid;
        if (store.valid) stats.pointCloudBox = store.box;
        out = stats;
        return true;
    } catch (...) {
        // Nothing crosses the plug-in boundary.
        error = currentExceptionText();
        return false;
    }
}

}  // namespace

IPatternTools* Mosaiq::patternTools() {
    if (!patternTools_) patternTools_.reset(new (std::nothrow) MosaiqPatternTools(*this));
    return patternTools_.get();
}

}  // namespace mosaiq
