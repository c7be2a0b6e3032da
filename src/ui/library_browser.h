// The library browser: a modal "Lib Browser" dialog in which the user picks
// a pattern file from a folder of pattern files shown with their pictures.
#pragma once

#include "host/interface.h"

#include <optional>
#include <string>

namespace mosaiq {

// Show the browser on path (the current "Pattern_File"); the chosen file
// when the user ends it with "Select File", nullopt when the user cancels
// or closes it, or when ip has no user interface. Main thread only.
std::optional<std::string> browseLibrary(mq::HostInterface& ip, const std::string& path);

// Register and unregister the browser's two view classes, "LibFolderView"
// and "LibFileView"; the library does it when it is loaded and unloaded.
void registerLibraryViews();
void unregisterLibraryViews();

}  // namespace mosaiq
