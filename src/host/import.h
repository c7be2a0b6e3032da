// Reading mesh files (every format Assimp reads) into host meshes.
#pragma once

#include "host/math.h"
#include "host/mesh.h"

#include <filesystem>
#include <memory>
#include <optional>
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

// The base-colour image of an imported material: a file the mesh file
// names, or one of the images stored inside it.
struct ImportedTexture {
    std::string file;    // as the mesh file writes it (any slashes); empty when embedded
    int embedded = -1;   // index into ImportedScene::embeddedTextures; -1 for a file
    int mapChannel = 1;  // the map channel of the UVs it is looked up with
};

// An image stored inside the mesh file (GLB, FBX).
struct EmbeddedTexture {
    std::string format;         // extension of the image file stored ("png", "jpg"); empty: raw
    std::string data;           // that file's bytes, or raw RGBA8 texels, rows from the top
    int width = 0, height = 0;  // raw texels only
};

// A material as the file describes it, reduced to what the renderer knows.
// Colours are linear RGB, finite and never negative.
struct ImportedMaterial {
    std::string name;  // as in the file; may be empty or repeated
    Point3 baseColor{0.8f, 0.8f, 0.8f};
    std::optional<ImportedTexture> baseColorTexture;
    float roughness = 0.5f;  // 0..1; from glossiness or shininess where the file has no roughness
    float metallic = 0.0f;   // 0..1
    Point3 emission;         // emissive colour times its strength
    // Made up by the importer for faces the file gives no material: such
    // faces are left to the scene's default material.
    bool madeUp = false;
};

struct ImportedScene {
    // Parents come before their children. Indices are stable for a given
    // file, so a scene can refer to "node i of file F".
    std::vector<ImportedNode> nodes;
    std::vector<ImportedMaterial> materials;  // by material id
    // Filled only when asked for; materials refer to them by index either way.
    std::vector<EmbeddedTexture> embeddedTextures;
};

// Reads a mesh file. Vertices that share a position are welded; UVs (map
// channels 1..n), vertex colours (channel 0) and normals (specified normals)
// keep their own per-corner indexing. The file's material index becomes the
// face's material id. Y-up files are turned Z-up in the vertices and normals
// themselves (the node transforms are conjugated to match), so every mesh
// stands Z-up in its own object space too. The images stored in the file are
// copied out only with withEmbeddedTextures. Throws ImportError.
ImportedScene importMeshFile(const std::filesystem::path& file, bool withEmbeddedTextures = false);

// True for file names whose extension the importer accepts.
bool isImportableMeshFile(const std::filesystem::path& file);

}  // namespace mq
