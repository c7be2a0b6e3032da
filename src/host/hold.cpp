#include "host/hold.h"

#include "host/changes.h"

namespace mq {

Hold theHold;

void Hold::Begin() { marks_.push_back(open_.size()); }

void Hold::Accept(const std::string& name) {
    if (marks_.empty()) return;
    marks_.pop_back();
    // Inner holds fold into the enclosing one.
    if (!marks_.empty()) return;
    if (open_.empty()) return;
    undo_.push_back(Step{name, std::move(open_)});
    open_.clear();
    redo_.clear();
    sceneChanges().notify();
}

void Hold::Cancel() {
    if (marks_.empty()) return;
    const size_t mark = marks_.back();
    marks_.pop_back();
    replaying_ = true;
    while (open_.size() > mark) {
        open_.back()->Restore(true);
        open_.pop_back();
    }
    replaying_ = false;
    sceneChanges().notify();
}

void Hold::Put(std::unique_ptr<RestoreObj> rob) {
    if (!Holding() || replaying_) return;
    open_.push_back(std::move(rob));
}

bool Hold::Undo() {
    if (undo_.empty() || !marks_.empty()) return false;
    Step step = std::move(undo_.back());
    undo_.pop_back();
    replaying_ = true;
    for (auto it = step.changes.rbegin(); it != step.changes.rend(); ++it) (*it)->Restore(true);
    replaying_ = false;
    redo_.push_back(std::move(step));
    sceneChanges().notify();
    return true;
}

thread_local int Hold::suspended_ = 0;

bool Hold::Redo() {
    if (redo_.empty() || !marks_.empty()) return false;
    Step step = std::move(redo_.back());
    redo_.pop_back();
    replaying_ = true;
    for (auto& change : step.changes) change->Redo();
    replaying_ = false;
    undo_.push_back(std::move(step));
    sceneChanges().notify();
    return true;
}

void Hold::Reset() {
    marks_.clear();
    open_.clear();
    undo_.clear();
    redo_.clear();
    suspended_ = 0;
}

}  // namespace mq
