// The panels that editing a Mosaiq object opens beside its parameter
// rollouts: the rollouts' dialog procedures and the About page. They live in
// the user-interface layer above the object, which installs them when the
// library loads; with none installed, editing opens the parameter rollouts
// alone (as a host without a user interface does).
#pragma once

#include "host/interface.h"

namespace mosaiq {

class Mosaiq;

class MosaiqPanels {
public:
    virtual ~MosaiqPanels() = default;
    // From BeginEditParams, once the parameter rollouts are open.
    virtual void open(Mosaiq& obj, mq::HostInterface& ip) = 0;
    // From EndEditParams, once the parameter rollouts are closed.
    virtual void close(Mosaiq& obj, mq::HostInterface& ip) = 0;
};

// Not owned; must outlive every object being edited. Null uninstalls. Main
// thread only.
void installMosaiqPanels(MosaiqPanels* panels);
MosaiqPanels* mosaiqPanels();

}  // namespace mosaiq
