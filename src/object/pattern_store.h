// Filling the pattern store (the point-cloud summary of a pattern) from a
// pattern file or from a scene node.
#pragma once

#include "engine/point_cloud.h"
#include "host/mesh.h"
#include "host/node.h"

#include <optional>
#include <string>

namespace mosaiq {

enum class StoreLoad {
    Failed,   // nothing merged: the store is untouched
    Emptied,  // the file's mesh has no faces: the store was marked not valid
    Loaded,   // the store holds the file's pattern
};

// Merge the pattern file at path into the current host interface's scene,
// take the mesh of the first merged top-level node that converts to a
// triangle mesh, delete every merged node again and sample the mesh into
// store, in the mesh's own object space. error names the file and the reason
// unless the result is Loaded. Main thread only; throws only std::bad_alloc.
StoreLoad loadPatternStore(mq::PatternPointCloud& store, const std::string& path,
                           std::string& error);

// node's mesh at time 0, converted as the pattern capture converts it;
// nullopt when node is null or has nothing that converts.
std::optional<mq::Mesh> patternNodeMesh(mq::Node* node);

}  // namespace mosaiq
