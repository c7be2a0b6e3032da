// Pictures for the user interface, loaded as the files store them.
#pragma once

#include "host/ui/view.h"

#include <filesystem>
#include <optional>
#include <string>

namespace mq::ui {

// The picture in file as 8-bit RGB, its values as stored (no gamma applied:
// the screen shows what an image viewer shows). Grey pictures become grey
// RGB; alpha is dropped. nullopt, with why naming the file and the reason,
// when the file is missing or not a picture this host reads.
std::optional<Bitmap> loadBitmap(const std::filesystem::path& file, std::string* why = nullptr);

}  // namespace mq::ui
