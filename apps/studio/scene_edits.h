// Edits of the scene's node tree that the studio makes undoable. The host
// records parameter changes itself; node creation, deletion, renaming,
// reparenting and the render section are recorded here, each call one undo
// step named for the Edit menu. Main thread only.
#pragma once

#include "host/node.h"

#include <memory>
#include <nlohmann/json.hpp>
#include <string>

namespace mosaiq::studio {

// Attach node under the root as the step "Create <class>"; returns it.
mq::Node* createNode(mq::Scene& scene, std::unique_ptr<mq::Node> node, const std::string& step);

// Delete a node as the host does (children move to its parent, keeping
// their place in the world). Undo brings it back with its children.
void deleteNode(mq::Node* node);

// Rename; the name is made unique in the scene. Returns the name given,
// or empty (and changes nothing) for an empty name.
std::string renameNode(mq::Scene& scene, mq::Node* node, const std::string& name);

void setRenderable(mq::Node* node, bool on);

// Move node under parent keeping its world transform. False (nothing
// changes) when parent is node itself or one of its descendants.
bool reparentNode(mq::Node* node, mq::Node* parent);

// Replace the scene's "render" section as the step "Render Settings".
void setRenderSection(mq::Scene& scene, nlohmann::json render);

}  // namespace mosaiq::studio
