#include "scene_edits.h"

#include "host/hold.h"

#include <utility>
#include <vector>

namespace mosaiq::studio {

namespace {

// Moves a node under another parent, keeping where it is in the world.
mq::Node* moveUnder(mq::Node* node, mq::Node* parent) {
    const mq::Matrix3 world = node->GetNodeTM(0);
    mq::Node* moved = parent->attachChild(node->detach());
    moved->SetNodeTM(0, world);
    return moved;
}

// A node that comes into the tree on redo and leaves it on undo; while out
// of the tree the restore object owns it, so pointers to it stay valid.
class AttachRestore : public mq::RestoreObj {
public:
    AttachRestore(mq::Node* node, mq::Node* parent, std::vector<mq::Node*> children, bool attached)
        : node_(node), parent_(parent), children_(std::move(children)), attached_(attached) {}
    void Restore(bool) override { attached_ ? takeOut() : putBack(); }
    void Redo() override { attached_ ? putBack() : takeOut(); }

private:
    void takeOut() {
        for (mq::Node* c : children_) moveUnder(c, parent_);
        owned_ = node_->detach();
    }
    void putBack() {
        parent_->attachChild(std::move(owned_));
        for (mq::Node* c : children_) moveUnder(c, node_);
    }
    mq::Node* node_;
    mq::Node* parent_;
    std::vector<mq::Node*> children_;  // those that move to parent_ while out
    bool attached_;                    // the step attached the node (creation)
    std::unique_ptr<mq::Node> owned_;
};

// Any value of a node or the scene, restored by assignment.
template <class Set, class Value>
class ValueRestore : public mq::RestoreObj {
public:
    ValueRestore(Set set, Value before, Value after)
        : set_(set), before_(std::move(before)), after_(std::move(after)) {}
    void Restore(bool) override { set_(before_); }
    void Redo() override { set_(after_); }

private:
    Set set_;
    Value before_, after_;
};

template <class Get, class Set, class Value>
void putValue(Get get, Set set, Value after, const std::string& step) {
    Value before = get();
    mq::theHold.Begin();
    set(after);
    mq::theHold.Put(
        std::make_unique<ValueRestore<Set, Value>>(set, std::move(before), std::move(after)));
    mq::theHold.Accept(step);
}

}  // namespace

mq::Node* createNode(mq::Scene& scene, std::unique_ptr<mq::Node> node, const std::string& step) {
    mq::theHold.Begin();
    mq::Node* n = scene.root()->attachChild(std::move(node));
    mq::theHold.Put(
        std::make_unique<AttachRestore>(n, scene.root(), std::vector<mq::Node*>{}, true));
    mq::theHold.Accept(step);
    return n;
}

void deleteNode(mq::Node* node) {
    if (!node || node->IsRootNode()) return;
    std::vector<mq::Node*> children;
    for (int i = 0; i < node->NumberOfChildren(); ++i) children.push_back(node->GetChildNode(i));
    auto rob = std::make_unique<AttachRestore>(node, node->GetParentNode(), children, false);
    mq::theHold.Begin();
    rob->Redo();
    mq::theHold.Put(std::move(rob));
    mq::theHold.Accept("Delete " + node->GetName());
}

std::string renameNode(mq::Scene& scene, mq::Node* node, const std::string& name) {
    if (name.empty()) return {};
    if (name == node->GetName()) return name;
    const std::string unique = scene.uniqueName(name);
    putValue([node] { return node->GetName(); }, [node](std::string n) { node->SetName(n); },
             unique, "Rename");
    return unique;
}

void setRenderable(mq::Node* node, bool on) {
    if (node->Renderable() == on) return;
    putValue([node] { return node->Renderable(); }, [node](bool v) { node->SetRenderable(v); }, on,
             on ? "Renderable On" : "Renderable Off");
}

bool reparentNode(mq::Node* node, mq::Node* parent) {
    for (mq::Node* p = parent; p; p = p->GetParentNode())
        if (p == node) return false;
    if (node->GetParentNode() == parent) return true;
    // A move is undone by moving back; order among siblings is not kept.
    putValue([node] { return node->GetParentNode(); },
             [node](mq::Node* p) {
                 if (node->GetParentNode() != p) moveUnder(node, p);
             },
             parent, "Link " + node->GetName());
    return true;
}

void setRenderSection(mq::Scene& scene, nlohmann::json render) {
    mq::Scene* s = &scene;
    putValue([s] { return s->render; }, [s](nlohmann::json j) { s->render = std::move(j); },
             std::move(render), "Render Settings");
}

}  // namespace mosaiq::studio
