// Seamless pattern meshes for Mosaiq: chain mail, basket weave, scales and
// pavers, built in code. Each pattern is clipped to its tile box, so copies
// of the tile placed side by side in X and Y meet without gaps or overlaps,
// and the crop box that reproduces the tile is the tile box itself.
#pragma once

#include "host/math.h"
#include "host/mesh.h"

#include <filesystem>
#include <string>
#include <vector>

namespace mq::patterns {

// A generated pattern in Z-up object space. The mesh carries UVs on map
// channel 1 and explicit per-corner normals; every vertex lies inside tile.
// tile spans one period in X and Y and the geometry's extent in Z.
struct Pattern {
    std::string name;  // file stem: "chainmail", "weave", ...
    Mesh mesh;
    Box3 tile;
};

// European 4-in-1 mail: a 2x2 arrangement of tilted rings (tori), alternate
// rows leaning opposite ways and offset by half a ring, repeating every tile.
// tileSize is the period in X and Y; ringSegments and wireSides set the
// torus resolution.
Pattern chainMail(float tileSize = 10.0f, int ringSegments = 24, int wireSides = 8);
// Two strips each way passing alternately over and under each other.
Pattern basketWeave(float tileSize = 10.0f, int segments = 32, int sides = 10);
// Overlapping domed shells in staggered rows, free edges pointing to -Y.
Pattern scales(float tileSize = 10.0f, int rings = 6, int segments = 24);
// Bevelled bricks in running bond, four rows per tile.
Pattern pavers(float tileSize = 10.0f);

// All four, in the order above.
std::vector<Pattern> allPatterns();

// Write as a Wavefront OBJ with UVs and normals, turned Y-up as OBJ files
// are (the importer turns it back). Throws std::runtime_error naming the file.
void writeObj(const Pattern& pattern, const std::filesystem::path& file);

}  // namespace mq::patterns
