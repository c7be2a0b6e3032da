// Where a pattern comes from and how it is cut: the pattern's mesh (a scene
// node's, or the first mesh of a pattern file merged into the scene for the
// moment it takes to copy it) and the crop box that cuts the tile out of it.
#pragma once

#include "host/math.h"
#include "host/mesh.h"
#include "host/node.h"

#include <cstdint>
#include <string>

namespace mq {

class HostInterface;

// The oriented box that cuts the tile out of the pattern.
struct CropBox {
    // The box's centre and axes. For a scene pattern the centre is relative
    // to the pattern node's position; a file pattern uses it as it stands.
    Matrix3 transform;
    Point3 size{100.0f, 100.0f, 100.0f};  // edge lengths, world units
    // Random segments the tile is split into along U and V.
    int32_t segmentCountU = 1, segmentCountV = 1;
};

// Which pattern to take.
struct PatternSource {
    bool fromFile = false;
    Node::Handle node = 0;  // a scene pattern; 0, or a node that is gone, is none
    std::string file;       // a file pattern, as the user named it
};

// A pattern's mesh, in its object space.
struct PatternMesh {
    Mesh mesh;
    bool fromScene = false;
    Matrix3 nodeTM;  // a scene pattern's object transform; identity for a file
};

// Channels a pattern keeps: topology, geometry, all maps, material ids,
// selections, display data and the specified normals.
inline constexpr uint32_t kPatternChannels = 0x23FF;

// The mesh of node at t, converted to triangles. False, with why naming the
// node, when there is no node, nothing in it converts, it has no vertices,
// or (when needFaces) no faces.
bool scenePatternMesh(Node* node, TimeValue t, bool needFaces, PatternMesh& out, std::string& why);

// Merge file into ip's scene, copy the mesh of the first merged top-level
// node that converts to triangles, and delete every merged node again,
// whatever happened. A relative name resolves beside the scene file first.
// The mesh may have no faces. False, with why naming the file and the
// reason, when the file is missing, cannot be read, holds no mesh, or is
// being merged already (a scene whose Mosaiq object patterns itself). Main
// thread only.
bool mergePatternMesh(HostInterface& ip, const std::string& file, Mesh& mesh, std::string& why);

// The mesh of source at t: a scene pattern's must have faces, a file
// pattern's may not. Files merge into the current host interface's scene.
bool takePatternMesh(const PatternSource& source, TimeValue t, PatternMesh& out, std::string& why);

}  // namespace mq
