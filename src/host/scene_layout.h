// The layout of scene files, shared by reading (scene_read.cpp) and writing
// (scene_write.cpp): the format's name, the member names, the limits on
// nesting, and the JSON pointers and quoting that messages use. Internal to
// host; scenefile.h is the public contract.
#pragma once

#include "host/scenefile.h"

#include <cstddef>
#include <string>

namespace mq::scenefile {

inline constexpr const char* kFormatName = "mosaiq-scene";
// Deeper trees than this are malformed or hostile; loading, saving, node
// transforms and the node destructor all recurse over the tree.
inline constexpr int kMaxNodeDepth = 256;
// The JSON parser recurses too; this leaves room for the deepest node tree.
inline constexpr int kMaxJsonDepth = 2 * kMaxNodeDepth + 16;

// Member names, by the record that holds them:
//   document   {format, version, units (absent: generic), nodes: [node], materials,
//               camera, lights, render}
//   node       {name, transform, objectOffset, renderable, material, object,
//               children: [node]}
//   object     {class: {superClass, id, name}, mesh, paramBlocks: [block]}
//   block      {id, name, params: [{id, name, type, value}]}
//   mesh       {file, node} (a node of a mesh asset) or {inline: {verts, faces,
//               maps: {"<channel>": {verts, faces}}, normals: {normals, faces}}}
namespace key {
inline constexpr const char* kFormat = "format";
inline constexpr const char* kVersion = "version";
inline constexpr const char* kNodes = "nodes";
inline constexpr const char* kMaterials = "materials";
inline constexpr const char* kCamera = "camera";
inline constexpr const char* kLights = "lights";
inline constexpr const char* kRender = "render";
inline constexpr const char* kUnits = "units";
inline constexpr const char* kName = "name";
inline constexpr const char* kTransform = "transform";
inline constexpr const char* kObjectOffset = "objectOffset";
inline constexpr const char* kRenderable = "renderable";
inline constexpr const char* kMaterial = "material";
inline constexpr const char* kObject = "object";
inline constexpr const char* kChildren = "children";
inline constexpr const char* kClass = "class";
inline constexpr const char* kSuperClass = "superClass";
inline constexpr const char* kId = "id";
inline constexpr const char* kMesh = "mesh";
inline constexpr const char* kParamBlocks = "paramBlocks";
inline constexpr const char* kParams = "params";
inline constexpr const char* kType = "type";
inline constexpr const char* kValue = "value";
inline constexpr const char* kFile = "file";
inline constexpr const char* kNode = "node";
inline constexpr const char* kInline = "inline";
inline constexpr const char* kVerts = "verts";
inline constexpr const char* kFaces = "faces";
inline constexpr const char* kMaps = "maps";
inline constexpr const char* kNormals = "normals";
}  // namespace key

// "file: path: reason", or "file: reason" for an empty path.
std::string describeError(const std::string& file, const std::string& jsonPath,
                          const std::string& reason);

// JSON pointer (RFC 6901) of a member or element below path.
std::string at(const std::string& path, const std::string& key);
std::string at(const std::string& path, size_t index);

std::string inQuotes(const std::string& s);

}  // namespace mq::scenefile
