#include "ui/library_browser.h"

namespace mosaiq {

// Not built yet: the browser offers nothing to choose.
std::optional<std::string> browseLibrary(mq::HostInterface& ip, const std::string& path) {
    return std::nullopt;
}

void registerLibraryViews() {}

void unregisterLibraryViews() {}

}  // namespace mosaiq
