#include "host/node.h"

#include <atomic>
#include <cctype>
#include <cstdio>
#include <mutex>
#include <unordered_map>

namespace mq {

namespace {

std::mutex gNodesMutex;
std::unordered_map<Node::Handle, Node*> gNodes;
Node::Handle gNextHandle = 1;

}  // namespace

Node::Node(std::string name) : name_(std::move(name)) {
    std::lock_guard lock(gNodesMutex);
    handle_ = gNextHandle++;
    gNodes[handle_] = this;
}

Node::~Node() {
    children_.clear();
    if (object_) object_->DeleteThis();
    std::lock_guard lock(gNodesMutex);
    gNodes.erase(handle_);
}

Node* Node::fromHandle(Handle h) {
    std::lock_guard lock(gNodesMutex);
    auto it = gNodes.find(h);
    return it == gNodes.end() ? nullptr : it->second;
}

void Node::SetObjectRef(Object* obj) {
    if (obj == object_) return;
    if (object_) object_->DeleteThis();
    object_ = obj;
}

Object* Node::releaseObject() {
    Object* obj = object_;
    object_ = nullptr;
    return obj;
}

Matrix3 Node::GetNodeTM(TimeValue t) const {
    return parent_ ? localTM_ * parent_->GetNodeTM(t) : localTM_;
}

void Node::SetNodeTM(TimeValue t, const Matrix3& worldTM) {
    localTM_ = parent_ ? worldTM * Inverse(parent_->GetNodeTM(t)) : worldTM;
}

ObjectState Node::EvalWorldState(TimeValue t, bool evalHidden) {
    if (!object_) return {};
    return object_->Eval(t);
}

Node* Node::attachChild(std::unique_ptr<Node> child) {
    child->parent_ = this;
    children_.push_back(std::move(child));
    return children_.back().get();
}

std::unique_ptr<Node> Node::detach() {
    if (!parent_) return nullptr;
    auto& siblings = parent_->children_;
    for (auto it = siblings.begin(); it != siblings.end(); ++it) {
        if (it->get() != this) continue;
        std::unique_ptr<Node> self = std::move(*it);
        siblings.erase(it);
        parent_ = nullptr;
        return self;
    }
    return nullptr;
}

// ---------------------------------------------------------------------------

Scene::Scene() : root_(std::make_unique<Node>("")) {}

Node* Scene::findNode(const std::string& name) const {
    Node* found = nullptr;
    for (Node* n : allNodes()) {
        if (n->GetName() == name) {
            found = n;
            break;
        }
    }
    return found;
}

std::vector<Node*> Scene::allNodes() const {
    std::vector<Node*> out;
    root_->forEach([&](Node* n) {
        if (n != root_.get()) out.push_back(n);
    });
    return out;
}

std::string numberedName(const std::string& name,
                         const std::function<bool(const std::string&)>& taken) {
    if (!name.empty() && !taken(name)) return name;
    // Strip a trailing number and count up from 1, three digits at least.
    std::string base = name.empty() ? "Object" : name;
    size_t end = base.size();
    while (end > 0 && std::isdigit(static_cast<unsigned char>(base[end - 1]))) --end;
    const size_t width = std::max<size_t>(3, base.size() - end);
    base.resize(end);
    for (int i = 1;; ++i) {
        char digits[32];
        std::snprintf(digits, sizeof digits, "%0*d", static_cast<int>(width), i);
        std::string candidate = base + digits;
        if (!taken(candidate)) return candidate;
    }
}

std::string Scene::uniqueName(const std::string& name) const {
    return numberedName(name, [this](const std::string& n) { return findNode(n) != nullptr; });
}

}  // namespace mq
