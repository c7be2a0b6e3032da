// Filling the pattern store (the point-cloud summary of a pattern) from a
// pattern file or from a scene node.
#pragma once

#include "engine/point_cloud.h"
#include "host/mesh.h"
#include "host/node.h"
#include "host/paramblock.h"

#include <optional>
#include <string>

namespace mosaiq {

// Merge the pattern file at path (a relative path beside the scene file
// first, then in the working folder) into the current host interface's scene,
// take the mesh of the first merged top-level node that converts to a
// triangle mesh, delete every merged node again and sample the mesh into
// store. The file pattern is used in its own object space. False when there
// is no host interface, the file is missing or cannot be read, or it holds no
// mesh with faces: store is then untouched and error (when given) names the
// file and the reason. The scene holds no merged node on return, whatever
// happened. Main thread only; never throws.
bool loadPatternStore(mq::PatternPointCloud& store, const std::string& path,
                      std::string* error = nullptr);

// node's mesh at time 0, converted as the pattern capture converts it;
// nullopt when node is null or has nothing that converts.
std::optional<mq::Mesh> patternNodeMesh(mq::Node* node);

// Why the "Pattern" node of pblock cannot serve as a pattern at t; empty
// when it can. needFaces also rejects a mesh without faces.
std::string scenePatternProblem(mq::ParamBlock& pblock, mq::TimeValue t, bool needFaces);
// Why the tile of pblock could not be captured at t, found by retracing the
// capture; never empty. Main thread only.
std::string captureProblem(mq::ParamBlock& pblock, mq::TimeValue t);

}  // namespace mosaiq
