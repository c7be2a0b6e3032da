// The preview texture: a top view of the captured tile, shaded by ambient
// light from directions leaning towards the zenith, with coverage in alpha.
#pragma once

#include "engine/tile.h"
#include "host/pattern_tools.h"

#include <cstdint>

namespace mq {

// Render the preview of tile at textureSize (the geometric mean of the
// image's sides, the longer side capped at 2048). The same tile always gives
// the same image. False when the tile is not built or has no extent.
bool renderPreviewTexture(const PatternTile& tile, int32_t textureSize, PreviewImage& out);

}  // namespace mq
