// Scene materials from the materials of an imported mesh file: the JSON the
// renderer reads (see tracer/shading.h), with the file's textures found,
// checked and named as the scene names its assets.
#pragma once

#include "host/import.h"
#include "host/mesh.h"

#include <filesystem>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace mq {

struct MaterialImport {
    nlohmann::json materials = nlohmann::json::object();  // name -> material
    std::vector<std::string> nameById;  // by the file's material id; empty where unused
};

// The materials that faces of imported use, under names unique among
// themselves: the file's, numbered on repeats as node names are, and the mesh
// file's stem for unnamed ones. A texture file is found beside meshFile
// (by its path as written, then by its name alone); an embedded texture is
// written into textureFolder (created when needed; sceneFolder when empty,
// meshFile's folder when both are) as "<mesh stem>_<index>.<format>" (raw
// texels as PNG), reusing a file of the same content and numbering the name
// apart from a different one. Textures are named relative to sceneFolder, or
// absolute when it is empty. A texture that cannot be found, read or written
// is left out with a warning naming the mesh file, the material and the
// texture; the material keeps its colour. Never throws for a material or a
// texture. imported must have been read with its embedded textures.
MaterialImport importMaterials(const ImportedScene& imported, const std::filesystem::path& meshFile,
                               const std::filesystem::path& sceneFolder,
                               const std::filesystem::path& textureFolder,
                               const std::function<void(const std::string&)>& warn);

// Faces per material id.
std::map<int, size_t> facesByMaterial(const Mesh& mesh);

}  // namespace mq
