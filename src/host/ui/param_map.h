// Parameter maps: the rollout of one map of a parameter block, its controls
// kept in step with the block through the bindings the block's descriptor
// carries, and the plug-in's own procedure for what the bindings cannot say.
#pragma once

#include "host/paramblock.h"
#include "host/ui/dialog.h"

#include <string>

namespace mq::ui {

class ParamMap;

// A rollout's own procedure, run after the map's handling of each message:
// at Init the controls already show the block, at Command the edited value
// is already stored. Returning true does not stop the map's handling. A
// procedure may be shared by every object of a class and outlive rollouts.
class ParamMap2UserDlgProc {
public:
    virtual ~ParamMap2UserDlgProc() = default;
    virtual bool DlgProc(TimeValue t, ParamMap& map, DialogWindow& window, Message msg, int control,
                         Notify notify) {
        return false;
    }
    // Refresh the controls that show state the bindings do not (the
    // object's evaluation calls this).
    virtual void Update(TimeValue t) {}
    virtual void DeleteThis() {}
};

// One open rollout of a parameter block map. The class descriptor makes it
// when editing begins and deletes it when editing ends; the host sends it
// the rollout's messages. Bound controls take the block's values at Init and
// after InvalidateUI; a user's edit of one is one undo step named after the
// parameter. Main thread only.
class ParamMap final : public DialogProc {
public:
    ParamMap(ParamBlock& block, MapID map, ParamMap2UserDlgProc* proc);
    ~ParamMap() override;
    ParamMap(const ParamMap&) = delete;
    ParamMap& operator=(const ParamMap&) = delete;

    ParamBlock* GetParamBlock() const { return block_; }
    MapID GetMapID() const { return map_; }
    // Null before Init and after Destroy.
    DialogWindow* GetHWnd() const { return window_; }
    ParamMap2UserDlgProc* GetUserDlgProc() const { return proc_; }
    // Install a procedure; an open rollout sends it Init at once.
    void SetUserDlgProc(ParamMap2UserDlgProc* proc);

    // Show the block's value of id (every element for tabIndex -1) again.
    void Invalidate(ParamID id, int tabIndex = -1);
    // Show every bound parameter again.
    void Invalidate();

    bool message(DialogWindow& window, Message msg, int control, Notify notify) override;

private:
    void show(const ParamDef& def, int tabIndex);
    // The edit of control stored in the block; false when control is bound
    // to nothing.
    bool store(int control);

    ParamBlock* block_;
    MapID map_;
    ParamMap2UserDlgProc* proc_;
    DialogWindow* window_ = nullptr;
};

// Every open rollout shows its world-unit fields again: the scene's unit
// changed. Main thread only.
void showWorldFieldsAgain();

}  // namespace mq::ui
