// Reading mesh files (every format Assimp reads) into host meshes.
#pragma once

#include "host/math.h"
#include "host/mesh.h"

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace mq {

// A file that cannot be read as a mesh file. what() names the file and the reason.
class ImportError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct ImportedNode {
    std::string name;            // as in the file; may be empty or repeated
    int parent = -1;             // index into ImportedScene::nodes, -1 for a top-level node
    Matrix3 transform;           // relative to the parent, Z-up scene units
    std::unique_ptr<Mesh> mesh;  // null for a node without geometry
};

struct ImportedScene {
    // Parents come before their children. Indices are stable for a given
    // file, so a scene can refer to "node i of file F".
    std::vector<ImportedNode> nodes;
    std::vector<std::string> materialNames;  // by material id
};

// Reads a mesh file. Vertices that share a position are welded; UVs (map
// channels 1..n), vertex colours (channel 0) and normals (specified normals)
// keep their own per-corner indexing. The file's material index becomes the
// face's material id. Y-up files are turned Z-up in the vertices and normals
// themselves (the node transforms are conjugated to match), so every mesh
// stands Z-up in its own object space too. Throws ImportError.
ImportedScene importMeshFile(const std::filesystem::path& file);

// True for file names whose extension the importer accepts.
bool isImportableMeshFile(const std::filesystem::path& file);

}  // namespace mq
