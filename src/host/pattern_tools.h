// Pattern tools: the crop-box operations and tile statistics of a tiling
// object, for hosts that reach the object through its public interface only
// (the command line, scripts). An object offers them through
// Object::GetInterface(kPatternToolsInterfaceId).
#pragma once

#include "host/math.h"

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace mq {

// Object::GetInterface answers this id with an IPatternTools*; cast the
// returned void* straight to IPatternTools*.
inline constexpr uint32_t kPatternToolsInterfaceId = 0x4D517401;

// What a captured tile holds, for inspection.
struct TileStats {
    int faceCount = 0;
    int vertexCount = 0;
    int segmentCountU = 1;
    int segmentCountV = 1;
    Point3 segmentSize;  // tile space
    Point3 cropSize;     // world lengths
    // The octree over the faces, in tile space.
    Point3 octreeMin;
    Point3 octreeMax;
    int octreeDepth = 0;
    int octreeNodes = 0;
    int octreeLeaves = 0;
    int largestLeaf = 0;  // faces in the fullest leaf
    // Pattern faces lying in a face of the crop box (-X, +X, -Y, +Y, -Z,
    // +Z), which show holes on curved surfaces, and the user's warning about
    // them (empty when there are none).
    std::array<int32_t, 6> facesOnCropFaces{};
    std::string cropFaceWarning;
    // What the octree takes, and the most it may take (raised by the
    // environment variable named in octreeBudgetVariable).
    int64_t octreeBytes = 0;
    int64_t octreeBudget = 0;
    std::string octreeBudgetVariable;
    // The point-cloud summary the crop-box operations fit to, in the
    // pattern's object space; the box is meaningful only when valid.
    bool pointCloudValid = false;
    Box3 pointCloudBox;
};

// What one frame's surface mapping made.
struct MappingStats {
    int facesInRange = 0;   // surface faces whose material id is in the Poli_ID range
    int piecesBuilt = 0;    // tetrahedral pieces that render
    int piecesDropped = 0;  // pieces rejected as degenerate or inside out
    int islands = 0;        // UV islands over the whole surface
    // Over the corners of the faces in range; 0 and 0 when there are none.
    float stretchMin = 0.0f, stretchMax = 0.0f;
    float tilingU = 1.0f, tilingV = 1.0f;  // as applied (reciprocals under Real_World_Scale)
};

// A top view of the tile: linear grey shading in RGB, coverage in alpha,
// rows from the tile's largest y down.
struct PreviewImage {
    int width = 0, height = 0;
    std::vector<float> rgba;  // 4 per pixel
};

struct BakeLimits {
    // Refuse, before allocating, a bake that would pass this many triangles.
    int64_t maxTriangles = 50'000'000;
};

struct BakeStats {
    int64_t pieces = 0;     // pieces of the frame's mapping
    int64_t cells = 0;      // segment cells visited over all pieces
    int64_t triangles = 0;  // triangles written
};

class Mesh;

// Owned by the object that hands it out: valid while that object lives,
// nothing to release. Main thread only. No method throws; each returns
// false with a reason for the user in error (naming the node or file) when
// it cannot do its work, and then changes nothing.
class IPatternTools {
public:
    virtual ~IPatternTools() = default;

    // Make the crop box enclose the whole pattern with identity rotation.
    // One undo step. A file pattern not loaded yet is loaded first.
    virtual bool resetCropBox(std::string& error) = 0;
    // Keep the crop box's rotation and fit its size and centre to the
    // pattern. One undo step. A file pattern not loaded yet is loaded first.
    virtual bool fitCropBox(std::string& error) = 0;
    // Capture the tile at t into a temporary and describe it. The scene is
    // left as it was (a file pattern is merged and removed again). The point
    // cloud is the object's own, as it stands once the object is evaluated
    // at t: a file pattern's cloud is not loaded here.
    virtual bool tileStats(TimeValue t, TileStats& out, std::string& error) = 0;
    // The surface mapping of frame time t: capture the tile, map the surface,
    // count. The scene is left as it was.
    virtual bool mappingStats(TimeValue t, MappingStats& out, std::string& error) = 0;
    // The preview texture of the tile captured at t, sized by "Texture_Size".
    virtual bool previewTexture(TimeValue t, PreviewImage& out, std::string& error) = 0;
    // The explicit world-space triangles the object shows at t, with normals
    // and the pattern's UVs. Fails, writing nothing to out, when the bake
    // would pass limits.maxTriangles.
    virtual bool bakeMesh(TimeValue t, const BakeLimits& limits, Mesh& out, BakeStats& stats,
                          std::string& error) = 0;
};

}  // namespace mq
