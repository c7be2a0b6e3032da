#include "host/interface.h"

#include "host/changes.h"
#include "host/hold.h"
#include "host/import.h"
#include "host/material_import.h"
#include "host/scenefile.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <system_error>

namespace fs = std::filesystem;

namespace mq {

namespace {
HostInterface* gCurrent = nullptr;

// The node takes the material of most of its faces: the renderer gives a
// node one material.
void assignMaterial(Node& node, const Mesh& mesh, const MaterialImport& materials,
                    const fs::path& file, HostInterface& ip) {
    const std::map<int, size_t> counts = facesByMaterial(mesh);
    auto nameOf = [&](int id) {
        return size_t(id) < materials.nameById.size() ? materials.nameById[size_t(id)]
                                                      : std::string();
    };
    const auto most =
        std::max_element(counts.begin(), counts.end(),
                         [](const auto& a, const auto& b) { return a.second < b.second; });
    if (most == counts.end() || nameOf(most->first).empty()) return;
    node.setMaterial(nameOf(most->first));
    if (counts.size() < 2) return;
    std::string list;
    for (const auto& [id, faces] : counts)
        list += (list.empty() ? "" : ", ") + ("\"" + nameOf(id) + "\" on " + std::to_string(faces));
    ip.warning(file.string() + ": node \"" + node.GetName() + "\" has faces of " +
               std::to_string(counts.size()) + " materials (" + list + "); it renders with \"" +
               node.material() + "\", the one on most faces");
}

// The name of a material of materials equal to mat and named name or name
// with a number appended; "" when there is none.
std::string sameMaterial(const nlohmann::json& materials, const std::string& name,
                         const nlohmann::json& mat) {
    for (const auto& [other, value] : materials.items()) {
        const bool numbered = other.size() > name.size() &&
                              other.compare(0, name.size(), name) == 0 &&
                              std::all_of(other.begin() + name.size(), other.end(),
                                          [](unsigned char c) { return std::isdigit(c); });
        if ((other == name || numbered) && value == mat) return other;
    }
    return {};
}

}  // namespace

HostInterface* GetCOREInterface() { return gCurrent; }

ILoad::~ILoad() {
    for (PostLoadCallback* cb : callbacks_) delete cb;
}

void ILoad::runPostLoadCallbacks() {
    // A callback may register more; they run too, in order.
    for (size_t i = 0; i < callbacks_.size(); ++i) {
        PostLoadCallback* cb = callbacks_[i];
        callbacks_[i] = nullptr;
        cb->proc(this);  // deletes itself
    }
    callbacks_.clear();
}

HostInterface::HostInterface() : scene_(std::make_unique<Scene>()) { gCurrent = this; }

HostInterface::~HostInterface() {
    if (gCurrent == this) gCurrent = nullptr;
}

void HostInterface::setScene(std::unique_ptr<Scene> scene) {
    theHold.Reset();
    scene_ = scene ? std::move(scene) : std::make_unique<Scene>();
    sceneChanges().notify();
}

std::unique_ptr<Scene> HostInterface::takeScene() {
    auto old = std::move(scene_);
    scene_ = std::make_unique<Scene>();
    return old;
}

void HostInterface::warning(const std::string& text) {
    warnings_.push_back(text);
    if (onWarning) onWarning(text);
}

int HostInterface::MergeFromFile(const std::string& name, bool mergeAll, bool selMerged,
                                 bool refresh, int dupAction, std::vector<std::string>* mrgList,
                                 int dupMtlAction, int reparentAction) {
    return merge(name, mergeAll, dupAction, mrgList, dupMtlAction, false);
}

int HostInterface::ImportFromFile(const std::string& name, const fs::path& textureFolder) {
    return merge(name, true, MERGE_DUPS_RENAME, nullptr, MERGE_DUP_MTL_RENAME, true, textureFolder);
}

int HostInterface::merge(const std::string& name, bool mergeAll, int dupAction,
                         std::vector<std::string>* mrgList, int dupMtlAction, bool meshMaterials,
                         const fs::path& textureFolder) {
    lastError_.clear();
    if (!mergeAll && !mrgList) {
        setLastError(name + ": nothing to merge (no names given)");
        return 0;
    }
    if (!DoesFileExist(name)) {
        setLastError(name + ": no such file");
        return 0;
    }
    const fs::path file = fs::absolute(name);
    try {
        // Read everything into a scene of its own first, so a bad file merges nothing.
        auto incoming = std::make_unique<Scene>();
        ILoad iload;
        if (isSceneFile(file)) {
            incoming = readSceneFile(file, iload, [this](const std::string& w) { warning(w); });
        } else {
            ImportedScene imported = importMeshFile(file, meshMaterials);
            MaterialImport materials;
            if (meshMaterials) {
                materials = importMaterials(imported, file, scene_->folder, textureFolder,
                                            [this](const std::string& w) { warning(w); });
                incoming->materials = std::move(materials.materials);
            }
            std::vector<Node*> made(imported.nodes.size(), nullptr);
            for (size_t i = 0; i < imported.nodes.size(); ++i) {
                ImportedNode& in = imported.nodes[i];
                auto node = std::make_unique<Node>(in.name);
                node->setLocalTM(in.transform);
                if (in.mesh) {
                    if (meshMaterials) assignMaterial(*node, *in.mesh, materials, file, *this);
                    auto* tri = new TriObject(std::move(*in.mesh));
                    tri->source = MeshSource{file, static_cast<int>(i)};
                    node->SetObjectRef(tri);
                }
                Node* parent = in.parent >= 0 ? made[in.parent] : incoming->root();
                made[i] = parent->attachChild(std::move(node));
            }
        }

        // A material the scene holds already, under its name or a numbered
        // one from an earlier import, is shared when it is the same; else the
        // newcomer is numbered apart (or replaces it, when asked).
        std::map<std::string, std::string> renamedMaterials;
        for (auto& [mname, mat] : incoming->materials.items()) {
            std::string target = mname;
            if (dupMtlAction == MERGE_DUP_MTL_RENAME) {
                if (const std::string same = sameMaterial(scene_->materials, mname, mat);
                    !same.empty()) {
                    if (same != mname) renamedMaterials[mname] = same;
                    continue;
                }
            }
            if (scene_->materials.contains(target) && dupMtlAction == MERGE_DUP_MTL_RENAME) {
                target = numberedName(
                    mname, [this](const std::string& n) { return scene_->materials.contains(n); });
                renamedMaterials[mname] = target;
            }
            scene_->materials[target] = mat;
        }

        Node* root = GetRootNode();
        while (incoming->root()->NumberOfChildren() > 0) {
            Node* top = incoming->root()->GetChildNode(0);
            std::unique_ptr<Node> moved = top->detach();
            const bool wanted = mergeAll || std::find(mrgList->begin(), mrgList->end(),
                                                      moved->GetName()) != mrgList->end();
            if (!wanted) continue;
            if (dupAction == MERGE_DUPS_SKIP && scene_->findNode(moved->GetName())) continue;
            if (dupAction == MERGE_DUPS_DELOLD) {
                if (Node* old = scene_->findNode(moved->GetName())) DeleteNode(old, false);
            }
            // Names as in the file, made unique against the scene.
            moved->forEach([&](Node* n) {
                n->SetName(scene_->uniqueName(n->GetName()));
                auto it = renamedMaterials.find(n->material());
                if (it != renamedMaterials.end()) n->setMaterial(it->second);
            });
            root->attachChild(std::move(moved));
        }
        iload.runPostLoadCallbacks();
        sceneChanges().notify();
        return 1;
    } catch (const std::exception& e) {
        setLastError(e.what());
        return 0;
    }
}

void HostInterface::DeleteNode(Node* node, bool redraw, bool overrideSlaves) {
    if (!node || node->IsRootNode()) return;
    Node* parent = node->GetParentNode();
    // Children stay where they are in the world, under the deleted node's parent.
    while (node->NumberOfChildren() > 0) {
        Node* child = node->GetChildNode(0);
        const Matrix3 world = child->GetNodeTM(0);
        Node* moved = parent->attachChild(child->detach());
        moved->SetNodeTM(0, world);
    }
    std::unique_ptr<Node> gone = node->detach();
    sceneChanges().notify();
}

std::string HostInterface::GetDir(int which) {
    if (which != APP_PLUGCFG_DIR) return {};
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && *xdg)
        return (fs::path(xdg) / "mosaiq").string();
    if (const char* home = std::getenv("HOME"); home && *home)
        return (fs::path(home) / ".config" / "mosaiq").string();
    return (fs::temp_directory_path() / "mosaiq").string();
}

bool HostInterface::DoesFileExist(const std::string& path) {
    std::error_code ec;
    return !path.empty() && fs::is_regular_file(path, ec);
}

std::string HostInterface::ResolveAssetPath(const std::string& path) {
    std::error_code ec;
    const fs::path given(path);
    if (path.empty() || given.is_absolute() || scene_->folder.empty()) return path;
    const fs::path beside = scene_->folder / given;
    return fs::exists(beside, ec) ? beside.string() : path;
}

bool HostInterface::IsDirectory(const std::string& path) {
    std::error_code ec;
    return !path.empty() && fs::is_directory(path, ec);
}

int HostInterface::AddRollupPage(const ui::DialogTemplate& tmpl, const std::string& title,
                                 ui::DialogProc* proc, int flags, int category) {
    RollupPage page;
    page.id = nextPageId_++;
    page.dialogResource = tmpl.id;
    page.title = title;
    page.flags = flags;
    page.category = category;
    page.proc = proc;
    if (ui_ && proc) {
        page.window =
            &ui_->openPage(page.id, tmpl, title, (flags & APPENDROLL_CLOSED) != 0, category, *proc);
    }
    pages_.push_back(page);
    if (page.window) proc->message(*page.window, ui::Message::Init, 0, ui::Notify::Clicked);
    return page.id;
}

void HostInterface::DeleteRollupPage(int page) {
    const auto it = std::find_if(pages_.begin(), pages_.end(),
                                 [&](const RollupPage& p) { return p.id == page; });
    if (it == pages_.end()) return;
    const RollupPage gone = *it;
    pages_.erase(it);
    if (gone.window) {
        gone.proc->message(*gone.window, ui::Message::Destroy, 0, ui::Notify::Clicked);
        UnRegisterDlgWnd(gone.window);
        ui_->closePage(gone.id);
    }
}

ui::DialogWindow* HostInterface::GetRollupWindow(int page) const {
    const RollupPage* p = findRollupPage(page);
    return p ? p->window : nullptr;
}

void HostInterface::SetDlgItemText(int page, int control, const std::string& text) {
    if (ui::DialogWindow* window = GetRollupWindow(page)) window->setText(control, text);
}

const RollupPage* HostInterface::findRollupPage(int page) const {
    for (const RollupPage& p : pages_)
        if (p.id == page) return &p;
    return nullptr;
}

void HostInterface::RegisterDlgWnd(ui::DialogWindow* window) {
    if (window && std::find(registered_.begin(), registered_.end(), window) == registered_.end())
        registered_.push_back(window);
}

int HostInterface::UnRegisterDlgWnd(ui::DialogWindow* window) {
    const auto it = std::find(registered_.begin(), registered_.end(), window);
    if (it == registered_.end()) return 0;
    registered_.erase(it);
    return 1;
}

void HostInterface::DeleteMode(CommandMode* mode) {
    if (mode && mode == current_) SetCommandMode(nullptr);
    modes_.erase(std::remove(modes_.begin(), modes_.end(), mode), modes_.end());
}

void HostInterface::SetCommandMode(CommandMode* mode) {
    if (mode == current_) return;
    if (current_) current_->ExitMode();
    current_ = mode;
    if (current_) current_->EnterMode();
    if (onCommandModeChanged) onCommandModeChanged(current_);
}

}  // namespace mq
