// Scene nodes and the scene that holds them.
#pragma once

#include "host/math.h"
#include "host/object.h"
#include "host/units.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace mq {

// A placed object. A node owns its object and its children.
class Node {
public:
    using Handle = uint64_t;

    explicit Node(std::string name = {});
    ~Node();
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;

    // Unique for the life of the process, never reused: parameters keep
    // nodes by handle, so a deleted node reads as none.
    Handle GetHandle() const { return handle_; }
    // The live node with this handle, or null.
    static Node* fromHandle(Handle h);

    const std::string& GetName() const { return name_; }
    void SetName(std::string name) { name_ = std::move(name); }

    // The node's object; the node takes ownership and deletes the old one.
    Object* GetObjectRef() const { return object_; }
    void SetObjectRef(Object* obj);
    // Give up the object without deleting it.
    Object* releaseObject();

    // Transform relative to the parent, and to the world.
    const Matrix3& localTM() const { return localTM_; }
    void setLocalTM(const Matrix3& tm) { localTM_ = tm; }
    Matrix3 GetNodeTM(TimeValue t) const;
    void SetNodeTM(TimeValue t, const Matrix3& worldTM);
    // Offset of the object from the node's pivot.
    const Matrix3& objectOffsetTM() const { return objectOffset_; }
    void setObjectOffsetTM(const Matrix3& tm) { objectOffset_ = tm; }
    // Object space to world space: object offset, then node transform.
    Matrix3 GetObjectTM(TimeValue t) const { return objectOffset_ * GetNodeTM(t); }

    // The object evaluated at t; obj is null when the node has none.
    // evalHidden is accepted for the SDK's signature: hidden nodes evaluate too.
    ObjectState EvalWorldState(TimeValue t, bool evalHidden = true);

    bool Renderable() const { return renderable_; }
    void SetRenderable(bool on) { renderable_ = on; }
    // Name of a material in the scene's material table; empty for none.
    const std::string& material() const { return material_; }
    void setMaterial(std::string name) { material_ = std::move(name); }

    Node* GetParentNode() const { return parent_; }
    bool IsRootNode() const { return parent_ == nullptr; }
    int NumberOfChildren() const { return static_cast<int>(children_.size()); }
    Node* GetChildNode(int i) const { return children_[i].get(); }
    // Append a child (keeps its local transform); returns it.
    Node* attachChild(std::unique_ptr<Node> child);
    // Remove this node from its parent and hand it over.
    std::unique_ptr<Node> detach();

    // This node and all below it, depth first, parents first.
    template <class F>
    void forEach(F&& f) {
        f(this);
        for (auto& c : children_) c->forEach(f);
    }

private:
    Handle handle_;
    std::string name_;
    Object* object_ = nullptr;
    Matrix3 localTM_;
    Matrix3 objectOffset_;
    bool renderable_ = true;
    std::string material_;
    Node* parent_ = nullptr;
    std::vector<std::unique_ptr<Node>> children_;
};

// name itself when it is not taken, else name with the lowest free number
// appended ("Box001"); a name ending in digits keeps its width. Nodes and
// materials are named apart this way.
std::string numberedName(const std::string& name,
                         const std::function<bool(const std::string&)>& taken);

// A scene: a node tree under an unnamed root, materials, and the sections
// the renderer reads (camera, lights, render settings), kept as JSON.
class Scene {
public:
    Scene();

    Node* root() const { return root_.get(); }
    // First node with this name, searching the whole tree; null when none.
    Node* findNode(const std::string& name) const;
    // The name itself when free, else name with the lowest free number
    // appended ("Box001"); a name ending in digits keeps its width.
    std::string uniqueName(const std::string& name) const;
    // All nodes below the root, depth first.
    std::vector<Node*> allNodes() const;

    nlohmann::json materials = nlohmann::json::object();  // name -> material
    nlohmann::json camera;                                // null when absent
    nlohmann::json lights = nlohmann::json::array();
    nlohmann::json render = nlohmann::json::object();
    // What world-unit fields show; change it through setSceneUnit (host/units.h).
    SceneUnit units = SceneUnit::Generic;
    // The folder of the file the scene was loaded from or saved to; relative
    // asset paths resolve against it first. Empty for a scene never on disk.
    std::filesystem::path folder;

private:
    std::unique_ptr<Node> root_;
};

}  // namespace mq
