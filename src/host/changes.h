// Word that the scene's content changed, for whatever shows it: viewports
// redraw, an interactive render restarts. Parameter writes (undo and redo
// included), accepted, cancelled, undone and redone steps, and scene
// replacements, merges and deletions tell it; other edits call notify.
#pragma once

#include <cstdint>
#include <functional>

namespace mq {

class SceneChanges {
public:
    using Listener = std::function<void()>;
    // Listeners run on the thread that made the change, often many times
    // per second during a drag: they should only note it and return.
    int addListener(Listener listener);
    void removeListener(int id);
    void notify();
    // Grows with every change: compare two readings to know whether any came between.
    uint64_t stamp() const;
};

SceneChanges& sceneChanges();

// While one lives, notify() on its thread does nothing: building or
// rendering a private copy of the scene (the render view's) is no change of
// the scene itself.
class SceneChangesMute {
public:
    SceneChangesMute();
    ~SceneChangesMute();
    SceneChangesMute(const SceneChangesMute&) = delete;
    SceneChangesMute& operator=(const SceneChangesMute&) = delete;
};

}  // namespace mq
