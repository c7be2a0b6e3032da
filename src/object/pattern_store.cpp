#include "object/pattern_store.h"

#include "engine/pattern_source.h"
#include "host/interface.h"
#include "host/object.h"

namespace mosaiq {

using namespace mq;

StoreLoad loadPatternStore(PatternPointCloud& store, const std::string& path, std::string& error) {
    HostInterface* ip = GetCOREInterface();
    if (!ip) {
        error = "Pattern file \"" + path + "\" cannot be merged: there is no host";
        return StoreLoad::Failed;
    }
    TriObject pattern;
    if (!mergePatternMesh(*ip, path, pattern.GetMesh(), error)) return StoreLoad::Failed;
    // Sampling marks the store not valid first, so a mesh without faces
    // empties it.
    if (sample(store, &pattern)) return StoreLoad::Loaded;
    error = "Pattern file \"" + path + "\" holds a mesh without faces";
    return StoreLoad::Emptied;
}

std::optional<Mesh> patternNodeMesh(Node* node) {
    if (!node) return std::nullopt;
    return meshOfObject(node->EvalWorldState(0, true).obj, 0);
}

}  // namespace mosaiq
