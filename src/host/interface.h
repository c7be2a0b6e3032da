// The host interface plug-ins talk to: the scene, merging files, deleting
// nodes, folders, rollup pages and command modes, and scene loading hooks.
#pragma once

#include "host/node.h"
#include "host/ui/host_ui.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace mq {

class ILoad;

// Run by the scene loader once the whole scene is loaded; deletes itself
// (or is deleted by the loader when proc is never reached).
class PostLoadCallback {
public:
    virtual ~PostLoadCallback() = default;
    virtual void proc(ILoad* iload) = 0;
};

// What an object's Load sees of the loader.
class ILoad {
public:
    // The loader takes ownership and runs the callback after the scene is loaded.
    void RegisterPostLoadCallback(PostLoadCallback* cb) { callbacks_.emplace_back(cb); }
    // Run and free every registered callback, in registration order.
    void runPostLoadCallbacks();
    ~ILoad();

private:
    std::vector<PostLoadCallback*> callbacks_;
};

class ISave {};

class MouseCallBack;

// An interactive mode of the viewports (move, rotate, scale the crop box...):
// while it is the current mode the viewports send it their mouse messages.
class CommandMode {
public:
    virtual ~CommandMode() = default;
    virtual const char* name() const = 0;
    virtual MouseCallBack* MouseProc() { return nullptr; }
    virtual void EnterMode() {}
    virtual void ExitMode() {}
};

// Merge options.
inline constexpr int MERGE_DUPS_PROMPT = 0;
inline constexpr int MERGE_DUPS_MERGE = 1;
inline constexpr int MERGE_DUPS_SKIP = 2;
inline constexpr int MERGE_DUPS_DELOLD = 3;
inline constexpr int MERGE_DUPS_RENAME = 1000;
inline constexpr int MERGE_DUP_MTL_RENAME = MERGE_DUPS_RENAME;
inline constexpr int MERGE_REPARENT_PROMPT = 0;
inline constexpr int MERGE_REPARENT_ALWAYS = 1;
inline constexpr int MERGE_REPARENT_NEVER = 2;

// Folder ids for GetDir.
inline constexpr int APP_PLUGCFG_DIR = 20;  // the host's configuration folder

// Rollup page flags.
inline constexpr int APPENDROLL_CLOSED = 1;

// A rollup page the host shows beside the viewports. Without a user
// interface the host keeps the record alone (no window, no messages).
struct RollupPage {
    int id = 0;
    int dialogResource = 0;
    std::string title;
    int flags = 0;
    int category = 0;
    ui::DialogProc* proc = nullptr;      // not owned
    ui::DialogWindow* window = nullptr;  // the user interface's; null without one
};

class HostInterface {
public:
    HostInterface();
    virtual ~HostInterface();

    Scene& scene() { return *scene_; }
    Node* GetRootNode() { return scene_->root(); }
    // Replace the scene (a new or loaded one); forgets the undo history.
    void setScene(std::unique_ptr<Scene> scene);
    std::unique_ptr<Scene> takeScene();

    // Merge a mesh file or a scene file into the scene: its top-level nodes
    // are appended under the root, names made unique. Returns 1 on success,
    // 0 on failure with the reason in lastError(). With mergeAll false and no
    // name list nothing is merged (there is nobody to ask).
    virtual int MergeFromFile(const std::string& name, bool mergeAll = false,
                              bool selMerged = false, bool refresh = true,
                              int dupAction = MERGE_DUPS_PROMPT,
                              std::vector<std::string>* mrgList = nullptr,
                              int dupMtlAction = MERGE_DUPS_PROMPT,
                              int reparentAction = MERGE_REPARENT_PROMPT);
    // Import a mesh file, or merge a scene file, with everything it holds: as
    // MergeFromFile with mergeAll, duplicate node and material names numbered
    // apart, and a mesh file's materials too (see host/material_import.h),
    // each node taking the material of most of its faces. Material and
    // texture problems are warnings; textures are named relative to the
    // scene's folder, and embedded ones are written into textureFolder (the
    // scene's folder when empty). MergeFromFile leaves a mesh file's
    // materials behind: a plug-in reading a file for its geometry wants
    // nothing else in the scene. Returns 1, or 0 with lastError().
    int ImportFromFile(const std::string& name, const std::filesystem::path& textureFolder = {});
    // Delete a node and its children's links: children move to the node's parent.
    virtual void DeleteNode(Node* node, bool redraw = true, bool overrideSlaves = false);
    // A host folder; APP_PLUGCFG_DIR is $XDG_CONFIG_HOME/mosaiq (or ~/.config/mosaiq).
    virtual std::string GetDir(int which);
    virtual bool DoesFileExist(const std::string& path);
    // A file path as the scene's assets are named: a relative path that
    // names a file beside the scene file resolves there, anything else is
    // returned as it is (and so relative to the working folder).
    std::string ResolveAssetPath(const std::string& path);
    virtual bool IsDirectory(const std::string& path);
    const std::string& lastError() const { return lastError_; }

    // The user interface; null when no user sees the host (command line,
    // render node). Rollup pages get windows and bindings only with one.
    ui::HostUI* ui() const { return ui_.get(); }
    void setUI(std::unique_ptr<ui::HostUI> ui) { ui_ = std::move(ui); }
    bool RunningWithoutUI() const { return !ui_; }

    // The time the user is at (the studio's time slider).
    TimeValue GetTime() const { return time_; }
    void SetTime(TimeValue t) { time_ = t; }

    // Warnings for the user (clamped values, skipped plug-ins...).
    void warning(const std::string& text);
    std::function<void(const std::string&)> onWarning;
    const std::vector<std::string>& warnings() const { return warnings_; }

    // A rollup page made from tmpl: with a user interface, its window is
    // made and proc receives Init. tmpl and proc must outlive the page.
    // Returns the page's id.
    int AddRollupPage(const ui::DialogTemplate& tmpl, const std::string& title,
                      ui::DialogProc* proc, int flags = 0, int category = 0);
    // proc receives Destroy, then the window goes.
    void DeleteRollupPage(int page);
    // Null for an unknown page or without a user interface.
    ui::DialogWindow* GetRollupWindow(int page) const;
    void SetDlgItemText(int page, int control, const std::string& text);
    const std::vector<RollupPage>& rollupPages() const { return pages_; }
    const RollupPage* findRollupPage(int page) const;
    // Dialog windows that take the host's keyboard shortcuts while open.
    void RegisterDlgWnd(ui::DialogWindow* window);
    int UnRegisterDlgWnd(ui::DialogWindow* window);
    const std::vector<ui::DialogWindow*>& registeredWindows() const { return registered_; }

    // Command modes the user can enter; the interface does not own them.
    void AddCommandMode(CommandMode* mode) { modes_.push_back(mode); }
    void DeleteMode(CommandMode* mode);
    const std::vector<CommandMode*>& commandModes() const { return modes_; }
    // The mode the viewports' mouse goes to; null for the host's own
    // (select and navigate). Setting one exits the previous mode and
    // enters the new; DeleteMode of the current one leaves it first.
    void SetCommandMode(CommandMode* mode);
    CommandMode* GetCommandMode() const { return current_; }
    std::function<void(CommandMode*)> onCommandModeChanged;

    // Ask the viewports to draw again (an object's look changed).
    void RedrawViews() {
        if (onRedrawViews) onRedrawViews();
    }
    std::function<void()> onRedrawViews;

protected:
    void setLastError(std::string e) { lastError_ = std::move(e); }

private:
    int merge(const std::string& name, bool mergeAll, int dupAction,
              std::vector<std::string>* mrgList, int dupMtlAction, bool meshMaterials,
              const std::filesystem::path& textureFolder = {});
    std::unique_ptr<Scene> scene_;
    std::string lastError_;
    std::unique_ptr<ui::HostUI> ui_;
    TimeValue time_ = 0;
    std::vector<ui::DialogWindow*> registered_;
    std::vector<std::string> warnings_;
    std::vector<RollupPage> pages_;
    int nextPageId_ = 1;
    std::vector<CommandMode*> modes_;
    CommandMode* current_ = nullptr;
};

// The interface of the running host; null before one is made. The newest
// HostInterface becomes the current one; destroying it clears it.
HostInterface* GetCOREInterface();

}  // namespace mq
