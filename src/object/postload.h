// Re-reads a file pattern once a scene has been loaded.
#pragma once

#include "host/interface.h"

namespace mosaiq {

class Mosaiq;

// Registered by Mosaiq::Load, one per loaded object; frees itself in proc.
// Pattern nodes taken from the scene need nothing: the host restores them.
class MQPostLoadCallback : public mq::PostLoadCallback {
public:
    explicit MQPostLoadCallback(Mosaiq* obj) : obj_(obj) {}
    // Reloads the pattern file when "Pattern_Source" is 1, then deletes itself.
    void proc(mq::ILoad* iload) override;

private:
    Mosaiq* obj_;
};

}  // namespace mosaiq
