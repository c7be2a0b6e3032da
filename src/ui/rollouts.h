// The dialog procedures of the Mosaiq object's three parameter rollouts:
// "Base Parameters" (map 0), "Surface" (map 1) and "Preview" (map 2). They do
// what the bindings cannot: grey the controls that do not apply, show and
// flip the picked nodes' renderable flags, retype the tiling spinners, and
// run the crop-box, pattern-file and preview commands.
//
// Each is one long-lived instance per rollout, held by the editing panels
// (ui/panels.cpp). It is bound to the object being edited before it is
// installed on its map, keeps its rollout's window while the rollout is open
// (setting the object's handle to it alongside its own), acts on Init,
// Destroy and Command only, and answers false to every message. Nothing
// thrown leaves a procedure: a failure is shown to the user. Main thread only.
#pragma once

#include "host/interface.h"
#include "host/ui/param_map.h"

#include <string>

namespace mosaiq {

class Mosaiq;

class PatternRolloutDlgProc : public mq::ui::ParamMap2UserDlgProc {
public:
    // The object being edited and the interface editing it; null for both
    // while nothing is edited. Neither is owned.
    void bind(Mosaiq* obj, mq::HostInterface* ip);
    Mosaiq* object() const { return obj_; }
    // The rollout's window; null while it is closed.
    mq::ui::DialogWindow* window() const { return window_; }

    bool DlgProc(mq::TimeValue t, mq::ui::ParamMap& map, mq::ui::DialogWindow& window,
                 mq::ui::Message msg, int control, mq::ui::Notify notify) final;
    void Update(mq::TimeValue t) final;

protected:
    PatternRolloutDlgProc(mq::MapID map, const char* title) : map_(map), title_(title) {}

    // Called with window_ open and obj_ bound.
    virtual void init() = 0;
    virtual void command(int control) = 0;
    // The controls that show state the bindings do not.
    virtual void refresh() = 0;

    // The bound object's block; null when it has none.
    mq::ParamBlock* block() const;
    // A warning for the user: a message box with a user interface, the
    // host's warnings without one. Never throws.
    void warn(const std::string& text) const noexcept;

    Mosaiq* obj_ = nullptr;
    mq::HostInterface* ip_ = nullptr;
    mq::ui::DialogWindow* window_ = nullptr;

private:
    mq::MapID map_;
    const char* title_;
};

// "Base Parameters": the pattern's source, its file, its renderable flag and
// the crop box.
class PatternBaseDlgProc final : public PatternRolloutDlgProc {
public:
    PatternBaseDlgProc();

private:
    void init() override;
    void command(int control) override;
    void refresh() override;
    // Enable the scene pick or the file controls by "Pattern_Source".
    void updateSourceControls();
    // Choose a pattern file in the library browser and load it.
    void browse();
    // Load "Pattern_File"; a failure is shown.
    void updateFile();
};

// "Surface": the surface's renderable flag and how the tiling is typed.
class PatternSurfaceDlgProc final : public PatternRolloutDlgProc {
public:
    PatternSurfaceDlgProc();

private:
    void init() override;
    void command(int control) override;
    void refresh() override;
    // Tiling as lengths (one tile's size) under "Real_World_Scale", as tile
    // counts otherwise.
    void applyTilingEditKind();
};

// "Preview": "Make Preview Texture".
class PatternPreviewDlgProc final : public PatternRolloutDlgProc {
public:
    PatternPreviewDlgProc();

private:
    void init() override {}
    void command(int control) override;
    void refresh() override {}
    // Capture the pattern at the host's time and show its preview texture.
    void makePreviewTexture();
};

}  // namespace mosaiq
