#include "render/preview.h"

namespace mq {

bool renderPreviewTexture(const PatternTile& tile, int32_t textureSize, PreviewImage& out) {
    (void)tile;
    (void)textureSize;
    (void)out;
    return false;
}

}  // namespace mq
