// The preview texture: a top view of the captured tile, shaded by ambient
// light from directions leaning towards the zenith, with coverage in alpha.
#pragma once

#include "engine/tile.h"
#include "host/pattern_tools.h"

#include <cstdint>

namespace mq {

// The preview's pixel size for a tile of extent cropSize: the tile's aspect
// ratio with the geometric mean of the sides at textureSize, the longer
// side capped at 2048. False (width and height 0) when the extent or the
// size gives no pixels.
bool previewImageSize(const Point3& cropSize, int32_t textureSize, int& width, int& height);

// Render the preview of tile at textureSize: RGB the linear ambient light
// (0..1), alpha the share of the pixel the pattern covers; rows from the
// tile's largest y down. Casts against the tile alone (no repetition), so
// light leaving the crop box is never blocked. The same tile always gives
// the same image, bit for bit, on any number of threads. Uses threads
// threads (0: one per hardware thread), the calling one among them; a tile
// must not change while it runs. False, with out emptied, when the tile is
// not built or has no extent. Throws only std::bad_alloc.
bool renderPreviewTexture(const PatternTile& tile, int32_t textureSize, PreviewImage& out,
                          int threads = 0);

}  // namespace mq
