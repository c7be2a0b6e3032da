// Pattern tools: the crop-box operations and tile statistics of a tiling
// object, for hosts that reach the object through its public interface only
// (the command line, scripts). An object offers them through
// Object::GetInterface(kPatternToolsInterfaceId).
#pragma once

#include "host/math.h"

#include <cstdint>
#include <string>

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
    // The point-cloud summary the crop-box operations fit to, in the
    // pattern's object space; the box is meaningful only when valid.
    bool pointCloudValid = false;
    Box3 pointCloudBox;
};

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
};

}  // namespace mq
