// What the render integration reads of a Mosaiq object, as plain data: the
// object fills it from its parameters, all read at time 0 (none animates);
// only the surface node is evaluated at each frame's time.
#pragma once

#include "engine/pattern_source.h"
#include "render/surface_mapping.h"

namespace mq {

struct MosaiqSettings {
    PatternSource pattern;
    CropBox crop;
    SurfaceMappingSettings surface;
    // Texture lookups on the surface's map channel read the surface's own UVs.
    bool useSurfaceMapping = true;
};

}  // namespace mq
