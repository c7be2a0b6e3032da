// Writing host meshes to mesh files other tools read (Wavefront OBJ, binary glTF).
#pragma once

#include "host/mesh.h"

#include <filesystem>
#include <stdexcept>

namespace mq {

// A mesh that cannot be written. what() names the file and the reason.
class ExportError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Writes mesh as one node named after the file's stem: .obj (no material
// file) or .glb, chosen by the extension, with the specified normals and the
// UVs of map channel 1 when the mesh has them. Both formats are Y-up, so the
// Z-up positions and normals are turned (x, y, z) -> (x, z, -y): reading the
// file back with importMeshFile gives the same world positions. The file is
// written through writeFileAtomically (host/atomic_file.h), so a failure
// never leaves a partial file under the final name and keeps what was there.
// Throws ExportError for an empty mesh, an unknown extension or a failed
// write; may throw std::bad_alloc.
void exportMesh(const Mesh& mesh, const std::filesystem::path& file);

// True for the extensions exportMesh writes (.obj, .glb; any case).
bool isExportableMeshFile(const std::filesystem::path& file);

}  // namespace mq
