// The panels of a Mosaiq object being edited, as the user-interface layer
// provides them to the object: the three rollouts' procedures (ui/rollouts.h),
// bound to the object and installed on its maps while it is edited, and the
// About page.
#pragma once

#include "object/panels.h"

namespace mosaiq {

// A static of the library; the plug-in installs it with installMosaiqPanels.
MosaiqPanels& editPanels();

}  // namespace mosaiq
