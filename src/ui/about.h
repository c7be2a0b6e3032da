// The About rollout page of the Mosaiq object.
#pragma once

#include "host/ui/dialog.h"

#include <string>

namespace mosaiq {

// "Mosaiq <version>", a blank line, then the credits.
std::string aboutText();

// The page's dialog procedure; it handles nothing. A static of the library.
mq::ui::DialogProc& aboutDlgProc();

}  // namespace mosaiq
