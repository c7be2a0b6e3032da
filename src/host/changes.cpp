#include "host/changes.h"

#include <atomic>
#include <map>
#include <mutex>

namespace mq {

namespace {

std::mutex gMutex;
std::map<int, SceneChanges::Listener> gListeners;
int gNextId = 1;
std::atomic<uint64_t> gStamp{0};
thread_local int gMuted = 0;

}  // namespace

int SceneChanges::addListener(Listener listener) {
    std::lock_guard lock(gMutex);
    gListeners.emplace(gNextId, std::move(listener));
    return gNextId++;
}

void SceneChanges::removeListener(int id) {
    std::lock_guard lock(gMutex);
    gListeners.erase(id);
}

void SceneChanges::notify() {
    if (gMuted > 0) return;
    gStamp.fetch_add(1, std::memory_order_relaxed);
    std::map<int, Listener> listeners;
    {
        std::lock_guard lock(gMutex);
        listeners = gListeners;
    }
    for (auto& [id, listener] : listeners) listener();
}

uint64_t SceneChanges::stamp() const { return gStamp.load(std::memory_order_relaxed); }

SceneChangesMute::SceneChangesMute() { ++gMuted; }
SceneChangesMute::~SceneChangesMute() { --gMuted; }

SceneChanges& sceneChanges() {
    static SceneChanges changes;
    return changes;
}

}  // namespace mq
