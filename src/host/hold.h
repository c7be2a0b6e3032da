// Undo and redo: changes made between theHold.Begin() and Accept(name) form
// one named undo step.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

namespace mq {

// One recorded change that knows how to revert and reapply itself.
class RestoreObj {
public:
    virtual ~RestoreObj() = default;
    virtual void Restore(bool isUndo) = 0;
    virtual void Redo() = 0;
    virtual std::string Description() const { return {}; }
};

class Hold {
public:
    // Holds nest: only the outermost Accept makes an undo step, named by it.
    void Begin();
    void Accept(const std::string& name);
    // Revert everything recorded since the matching Begin and drop it.
    void Cancel();
    // True between Begin and its Accept or Cancel, unless suspended.
    bool Holding() const { return suspended_ == 0 && !marks_.empty(); }
    // Record a change; ignored (and deleted) when not holding.
    void Put(std::unique_ptr<RestoreObj> rob);
    void Suspend() { ++suspended_; }
    void Resume() {
        if (suspended_ > 0) --suspended_;
    }

    // Revert or reapply the last step. False when there is nothing to do.
    bool Undo();
    bool Redo();
    int undoCount() const { return static_cast<int>(undo_.size()); }
    int redoCount() const { return static_cast<int>(redo_.size()); }
    // Name of the step Undo would revert; empty when there is none.
    std::string undoName() const { return undo_.empty() ? std::string() : undo_.back().name; }
    std::string redoName() const { return redo_.empty() ? std::string() : redo_.back().name; }
    int depth() const { return static_cast<int>(marks_.size()); }
    // Forget all steps (a new or loaded scene).
    void Reset();

private:
    struct Step {
        std::string name;
        std::vector<std::unique_ptr<RestoreObj>> changes;
    };
    // Where each open hold's changes start in open_.
    std::vector<size_t> marks_;
    // Per thread: a scene read on a worker (a render's private copy) must not
    // suspend the undo of edits made meanwhile on the UI thread.
    static thread_local int suspended_;
    bool replaying_ = false;
    std::vector<std::unique_ptr<RestoreObj>> open_;
    std::vector<Step> undo_, redo_;
};

// The process-wide undo system, shared by the host and every plug-in.
extern Hold theHold;

}  // namespace mq
