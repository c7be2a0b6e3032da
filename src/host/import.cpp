// Reading mesh files through Assimp. Assimp hands over a node tree whose nodes
// reference per-material triangle meshes with per-vertex attributes; each node
// becomes one host mesh whose positions are welded, while UVs, colours and
// normals keep Assimp's vertex indexing in their own per-corner channels.
#include "host/import.h"

#include <assimp/config.h>
#include <assimp/material.h>
#include <assimp/postprocess.h>
#include <assimp/scene.h>
#include <assimp/Importer.hpp>

#include <algorithm>
#include <array>
#include <bit>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <new>
#include <sstream>
#include <unordered_map>
#include <unordered_set>

#include <nlohmann/json.hpp>

namespace mq {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(const fs::path& file, const std::string& reason) {
    throw ImportError(file.string() + ": " + reason);
}

Point3 toPoint(const aiVector3D& v) { return {v.x, v.y, v.z}; }

// Attribute values from the file feed the renderer; non-finite components become 0.
Point3 finiteOrZero(Point3 p) {
    for (int i = 0; i < 3; ++i) {
        if (!std::isfinite(p[i])) p[i] = 0.0f;
    }
    return p;
}

// Assimp matrices act on column vectors and ours on row vectors: the 3x3 part
// is transposed and the translation column becomes row 3.
Matrix3 toMatrix3(const aiMatrix4x4& m) {
    const Matrix3 r({m.a1, m.b1, m.c1}, {m.a2, m.b2, m.c2}, {m.a3, m.b3, m.c3}, {m.a4, m.b4, m.c4});
    for (int i = 0; i < 4; ++i) {
        // A broken transform would poison every bound below it; the node stays where it is.
        if (!isFinite(r[i])) return Matrix3();
    }
    return r;
}

// Rotation taking the file's up axis (0 = x, 1 = y, 2 = z; sign -1 for the
// negative direction) to +Z. Y-up gives (x, y, z) -> (x, -z, y).
Matrix3 upAxisToZ(int axis, int sign) {
    const float s = sign < 0 ? -1.0f : 1.0f;
    switch (axis) {
        case 0:
            return Matrix3({0, 0, s}, {0, 1, 0}, {-s, 0, 0}, {0, 0, 0});
        case 2:
            return Matrix3({1, 0, 0}, {0, s, 0}, {0, 0, s}, {0, 0, 0});
        default:
            return Matrix3({1, 0, 0}, {0, 0, s}, {0, -s, 0}, {0, 0, 0});
    }
}

// An integer metadata entry, whichever numeric type the reader stored it as.
bool metaInt(const aiMetadata* meta, const std::string& key, int& out) {
    if (!meta) return false;
    int32_t i32 = 0;
    uint64_t u64 = 0;
    double f64 = 0.0;
    float f32 = 0.0f;
    if (meta->Get(key, i32)) {
        out = i32;
    } else if (meta->Get(key, u64) && u64 < 16) {
        out = static_cast<int>(u64);
    } else if (meta->Get(key, f64) && std::fabs(f64) < 16.0) {
        out = static_cast<int>(f64);
    } else if (meta->Get(key, f32) && std::fabs(f32) < 16.0f) {
        out = static_cast<int>(f32);
    } else {
        return false;
    }
    return true;
}

// FBX states its up axis; everything else Assimp reads is Y-up (glTF and OBJ
// by definition, most other readers convert to Y-up themselves).
Matrix3 sceneToZUp(const aiScene& scene) {
    for (const aiMetadata* meta : {scene.mMetaData, scene.mRootNode->mMetaData}) {
        int axis = -1;
        if (metaInt(meta, "UpAxis", axis) && axis >= 0 && axis <= 2) {
            int sign = 1;
            metaInt(meta, "UpAxisSign", sign);
            return upAxisToZ(axis, sign);
        }
    }
    return upAxisToZ(1, 1);
}

// Position key for welding: exact bits, with -0 and +0 the same.
struct PosKey {
    uint32_t x, y, z;
    bool operator==(const PosKey&) const = default;
};

struct PosKeyHash {
    size_t operator()(const PosKey& k) const {
        uint64_t h = k.x;
        h = h * 0x9E3779B97F4A7C15ull ^ k.y;
        h = h * 0x9E3779B97F4A7C15ull ^ k.z;
        return static_cast<size_t>(h ^ (h >> 29));
    }
};

PosKey keyOf(const Point3& p) {
    return {std::bit_cast<uint32_t>(p.x + 0.0f), std::bit_cast<uint32_t>(p.y + 0.0f),
            std::bit_cast<uint32_t>(p.z + 0.0f)};
}

// One map channel being filled: parts that carry it append their per-vertex
// values, parts that don't share one default vertex.
struct ChannelBuilder {
    std::vector<Point3> verts;
    std::vector<TVFace> faces;
    uint32_t base = 0;
    bool perVertex = false;

    template <class Get>
    void beginPart(uint32_t numVerts, bool has, const Get& get, const Point3& fallback) {
        base = static_cast<uint32_t>(verts.size());
        perVertex = has;
        if (!has) {
            verts.push_back(fallback);
            return;
        }
        for (uint32_t i = 0; i < numVerts; ++i) verts.push_back(finiteOrZero(get(i)));
    }

    void addFace(const unsigned int* idx) {
        TVFace f;
        for (int k = 0; k < 3; ++k) f.t[k] = perVertex ? base + idx[k] : base;
        faces.push_back(f);
    }
};

// Unit vector along (x, y, z), worked out in double so that neither huge nor
// tiny finite components overflow or underflow; zero when there is no
// direction to take.
Point3 unitVector(double x, double y, double z) {
    const double len = std::sqrt(x * x + y * y + z * z);
    if (!(len > 0.0) || !std::isfinite(len)) return {};
    return {static_cast<float>(x / len), static_cast<float>(y / len), static_cast<float>(z / len)};
}

Point3 unitVector(const Point3& p) { return unitVector(p.x, p.y, p.z); }

// Normals that can be taken as they are: present, finite and not zero.
bool usableNormals(const aiMesh& m) {
    if (!m.mNormals) return false;
    for (unsigned i = 0; i < m.mNumVertices; ++i) {
        const Point3 n = toPoint(m.mNormals[i]);
        if (!isFinite(n) || (n.x == 0.0f && n.y == 0.0f && n.z == 0.0f)) return false;
    }
    return true;
}

// Merges the Assimp meshes of one node into a host mesh. Faces with a bad
// index or a non-finite corner are left out and counted in dropped. Returns
// null when no face is left.
std::unique_ptr<Mesh> buildNodeMesh(const std::vector<const aiMesh*>& parts, const Matrix3& toZUp,
                                    size_t& dropped) {
    // Channels in use by any part of the node.
    int numUvSets = 0;
    bool anyColours = false, anyNormals = false;
    for (const aiMesh* m : parts) {
        for (int c = 0; c < AI_MAX_NUMBER_OF_TEXTURECOORDS && c + 1 < MAX_MESHMAPS; ++c) {
            if (m->mTextureCoords[c]) numUvSets = std::max(numUvSets, c + 1);
        }
        anyColours = anyColours || m->mColors[0];
        anyNormals = anyNormals || usableNormals(*m);
    }

    auto mesh = std::make_unique<Mesh>();
    std::vector<ChannelBuilder> uvs(numUvSets);
    ChannelBuilder colours;
    std::vector<Point3> normals;
    std::vector<std::array<int, 3>> normalFaces;
    std::vector<size_t> facesWithoutNormals;
    std::unordered_map<PosKey, uint32_t, PosKeyHash> welded;

    for (const aiMesh* m : parts) {
        const uint32_t numVerts = m->mVertices ? m->mNumVertices : 0;
        if (!m->mFaces) continue;

        for (int c = 0; c < numUvSets; ++c) {
            const aiVector3D* uvw = m->mTextureCoords[c];
            const unsigned dims = m->mNumUVComponents[c];
            uvs[c].beginPart(
                numVerts, uvw != nullptr,
                [&](uint32_t i) {
                    Point3 p = toPoint(uvw[i]);
                    if (dims < 3) p.z = 0.0f;
                    if (dims < 2) p.y = 0.0f;
                    return p;
                },
                Point3(0, 0, 0));
        }
        if (anyColours) {
            const aiColor4D* rgba = m->mColors[0];
            colours.beginPart(
                numVerts, rgba != nullptr,
                [&](uint32_t i) { return Point3(rgba[i].r, rgba[i].g, rgba[i].b); },
                Point3(1, 1, 1));
        }
        const bool ownNormals = anyNormals && usableNormals(*m);
        const int normalBase = static_cast<int>(normals.size());
        if (ownNormals) {
            for (uint32_t i = 0; i < numVerts; ++i) {
                normals.push_back(unitVector(toZUp.VectorTransform(toPoint(m->mNormals[i]))));
            }
        }

        const uint16_t matId = static_cast<uint16_t>(std::min(m->mMaterialIndex, 0xffffu));
        std::vector<int64_t> remap(numVerts, -1);
        for (unsigned f = 0; f < m->mNumFaces; ++f) {
            const aiFace& af = m->mFaces[f];
            bool ok = af.mNumIndices == 3 && af.mIndices;
            for (int k = 0; ok && k < 3; ++k) {
                ok = af.mIndices[k] < numVerts && isFinite(toPoint(m->mVertices[af.mIndices[k]]));
            }
            if (!ok) {
                ++dropped;
                continue;
            }

            // Corners weld by exact position across all parts of the node.
            Face face;
            for (int k = 0; k < 3; ++k) {
                const unsigned i = af.mIndices[k];
                if (remap[i] < 0) {
                    const Point3 p = toZUp.VectorTransform(toPoint(m->mVertices[i]));
                    const auto [it, added] =
                        welded.try_emplace(keyOf(p), static_cast<uint32_t>(mesh->verts.size()));
                    if (added) mesh->verts.push_back(p);
                    remap[i] = it->second;
                }
                face.v[k] = static_cast<uint32_t>(remap[i]);
            }
            face.smGroup = 1;
            face.setMatID(matId);
            mesh->faces.push_back(face);

            for (ChannelBuilder& uv : uvs) uv.addFace(af.mIndices);
            if (anyColours) colours.addFace(af.mIndices);
            if (anyNormals) {
                std::array<int, 3> n{-1, -1, -1};
                if (ownNormals) {
                    for (int k = 0; k < 3; ++k) {
                        n[k] = normalBase + static_cast<int>(af.mIndices[k]);
                    }
                } else {
                    facesWithoutNormals.push_back(mesh->faces.size() - 1);
                }
                normalFaces.push_back(n);
            }
        }
    }
    if (mesh->faces.empty()) return nullptr;

    // Parts without usable normals next to parts with them get smooth
    // area-weighted vertex normals, as the host computes for smoothing group 1.
    // Summed in double: huge finite positions would overflow float cross products.
    if (!facesWithoutNormals.empty()) {
        std::vector<std::array<double, 3>> vertexNormals(mesh->verts.size(), {0.0, 0.0, 0.0});
        for (const Face& f : mesh->faces) {
            std::array<double, 3> p[3];
            for (int k = 0; k < 3; ++k) {
                const Point3& v = mesh->verts[f.v[k]];
                p[k] = {v.x, v.y, v.z};
            }
            const double e1[3] = {p[1][0] - p[0][0], p[1][1] - p[0][1], p[1][2] - p[0][2]};
            const double e2[3] = {p[2][0] - p[0][0], p[2][1] - p[0][1], p[2][2] - p[0][2]};
            const double n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                                 e1[0] * e2[1] - e1[1] * e2[0]};
            for (uint32_t v : f.v) {
                for (int c = 0; c < 3; ++c) vertexNormals[v][c] += n[c];
            }
        }
        const int base = static_cast<int>(normals.size());
        for (const auto& n : vertexNormals) normals.push_back(unitVector(n[0], n[1], n[2]));
        for (size_t fi : facesWithoutNormals) {
            for (int k = 0; k < 3; ++k) {
                normalFaces[fi][k] = base + static_cast<int>(mesh->faces[fi].v[k]);
            }
        }
    }

    for (int c = 0; c < numUvSets; ++c) {
        mesh->setMapSupport(c + 1, true);
        mesh->Map(c + 1).verts = std::move(uvs[c].verts);
        mesh->Map(c + 1).faces = std::move(uvs[c].faces);
    }
    if (anyColours) {
        mesh->setMapSupport(0, true);
        mesh->Map(0).verts = std::move(colours.verts);
        mesh->Map(0).faces = std::move(colours.faces);
    }
    // Without normals in the file the host computes them from the smoothing groups.
    if (anyNormals) {
        mesh->SpecifyNormals();
        mesh->GetSpecifiedNormals()->SetNormals(std::move(normals), std::move(normalFaces));
    }
    return mesh;
}

// A colour from the file, or fallback when it has none or a broken one;
// negative components become 0.
Point3 materialColour(const aiMaterial& mat, const char* key, unsigned type, unsigned index,
                      const Point3& fallback) {
    aiColor4D c;
    if (mat.Get(key, type, index, c) != AI_SUCCESS) return fallback;
    const Point3 p(c.r, c.g, c.b);
    if (!isFinite(p)) return fallback;
    return {std::max(p.x, 0.0f), std::max(p.y, 0.0f), std::max(p.z, 0.0f)};
}

bool materialFloat(const aiMaterial& mat, const char* key, unsigned type, unsigned index,
                   float& out) {
    float f = 0.0f;
    if (mat.Get(key, type, index, f) != AI_SUCCESS || !std::isfinite(f)) return false;
    out = f;
    return true;
}

// What the renderer can use of one material: PBR files give base colour,
// roughness and metallic; others give a diffuse colour, and their shininess
// (a Phong exponent n) turns into the GGX roughness of about the same
// highlight, alpha = sqrt(2 / (n + 2)) with alpha = roughness^2.
ImportedMaterial readMaterial(const aiScene& scene, const aiMaterial& mat) {
    ImportedMaterial out;
    aiString name;
    if (mat.Get(AI_MATKEY_NAME, name) == AI_SUCCESS) out.name = name.C_Str();
    out.madeUp = out.name == AI_DEFAULT_MATERIAL_NAME;
    out.baseColor = materialColour(mat, AI_MATKEY_BASE_COLOR,
                                   materialColour(mat, AI_MATKEY_COLOR_DIFFUSE, out.baseColor));

    float f = 0.0f;
    if (materialFloat(mat, AI_MATKEY_GLOSSINESS_FACTOR, f)) {
        out.roughness = 1.0f - f;
    } else if (materialFloat(mat, AI_MATKEY_ROUGHNESS_FACTOR, f)) {
        out.roughness = f;
    } else if (materialFloat(mat, AI_MATKEY_SHININESS, f)) {
        out.roughness = std::pow(2.0f / (std::max(f, 0.0f) + 2.0f), 0.25f);
    }
    out.roughness = std::clamp(out.roughness, 0.0f, 1.0f);
    if (materialFloat(mat, AI_MATKEY_METALLIC_FACTOR, f)) out.metallic = std::clamp(f, 0.0f, 1.0f);
    float strength = 1.0f;
    materialFloat(mat, AI_MATKEY_EMISSIVE_INTENSITY, strength);
    out.emission =
        materialColour(mat, AI_MATKEY_COLOR_EMISSIVE, Point3()) * std::max(strength, 0.0f);
    if (!isFinite(out.emission)) out.emission = Point3();

    // The PBR base colour image, else the diffuse one.
    for (const aiTextureType type : {aiTextureType_BASE_COLOR, aiTextureType_DIFFUSE}) {
        aiString path;
        unsigned uvSet = 0;
        if (mat.GetTextureCount(type) == 0 ||
            mat.GetTexture(type, 0, &path, nullptr, &uvSet) != AI_SUCCESS || path.length == 0) {
            continue;
        }
        ImportedTexture tex;
        // Assimp's UV set k is map channel k + 1 (see buildNodeMesh).
        tex.mapChannel = static_cast<int>(std::min(uvSet, 98u)) + 1;
        tex.embedded = scene.GetEmbeddedTextureAndIndex(path.C_Str()).second;
        if (tex.embedded < 0) tex.file = path.C_Str();
        out.baseColorTexture = tex;
        break;
    }
    return out;
}

// The glTF file's own JSON: the Assimp in use (5.2) drops material
// extensions it does not know. Null when the file has none that parses.
nlohmann::json gltfJson(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    // A .glb starts with a 12-byte header and then the JSON chunk: length, "JSON", text.
    if (text.size() >= 20 && text.compare(0, 4, "glTF") == 0) {
        uint32_t length = 0;
        std::memcpy(&length, text.data() + 12, 4);
        if (text.compare(16, 4, "JSON") != 0 || length > text.size() - 20) return nullptr;
        text = text.substr(20, length);
    }
    return nlohmann::json::parse(text, nullptr, false);
}

// KHR_materials_emissive_strength scales the emissive factor. Assimp's glTF
// materials come in the file's order, so index i is the file's material i,
// and those past the file's own are Assimp's default.
void applyGltfMaterials(const fs::path& file, std::vector<ImportedMaterial>& materials) {
    const nlohmann::json doc = gltfJson(file);
    if (!doc.is_object()) return;
    const nlohmann::json list = doc.contains("materials") && doc["materials"].is_array()
                                    ? doc["materials"]
                                    : nlohmann::json::array();
    for (size_t i = list.size(); i < materials.size(); ++i) materials[i].madeUp = true;
    for (size_t i = 0; i < list.size() && i < materials.size(); ++i) {
        const nlohmann::json* s = &list[i];
        for (const char* key :
             {"extensions", "KHR_materials_emissive_strength", "emissiveStrength"}) {
            s = s->is_object() && s->contains(key) ? &(*s)[key] : nullptr;
            if (!s) break;
        }
        if (!s || !s->is_number()) continue;
        const Point3 e = materials[i].emission * std::max(s->get<float>(), 0.0f);
        if (isFinite(e)) materials[i].emission = e;
    }
}

// A copy of an image stored in the file.
EmbeddedTexture copyEmbedded(const aiTexture& t) {
    EmbeddedTexture out;
    if (!t.pcData) return out;
    if (t.mHeight == 0) {
        // Compressed: mWidth is the byte count and the hint the format's extension.
        for (const char* c = t.achFormatHint; c < t.achFormatHint + HINTMAXTEXTURELEN && *c; ++c) {
            if (std::isalnum(static_cast<unsigned char>(*c)))
                out.format += static_cast<char>(std::tolower(static_cast<unsigned char>(*c)));
        }
        if (out.format.empty()) out.format = "bin";
        out.data.assign(reinterpret_cast<const char*>(t.pcData), t.mWidth);
        return out;
    }
    out.width = static_cast<int>(t.mWidth);
    out.height = static_cast<int>(t.mHeight);
    out.data.resize(size_t(t.mWidth) * t.mHeight * 4);
    for (size_t i = 0; i < size_t(t.mWidth) * t.mHeight; ++i) {
        const aiTexel& x = t.pcData[i];
        out.data[4 * i + 0] = static_cast<char>(x.r);
        out.data[4 * i + 1] = static_cast<char>(x.g);
        out.data[4 * i + 2] = static_cast<char>(x.b);
        out.data[4 * i + 3] = static_cast<char>(x.a);
    }
    return out;
}

// Assimp's OFF reader allocates whatever its header declares before reading
// any data, so a corrupt count could take all memory. Counts that the file's
// size cannot hold are refused up front.
void checkOffCounts(const fs::path& file, uintmax_t fileSize) {
    std::string ext = file.extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    if (ext != ".off") return;

    std::ifstream in(file, std::ios::binary);
    std::string head(4096, '\0');
    in.read(head.data(), static_cast<std::streamsize>(head.size()));
    head.resize(static_cast<size_t>(std::max<std::streamsize>(in.gcount(), 0)));

    // Keyword, vertex count, face count; '#' starts a comment.
    std::vector<std::string> tokens;
    std::istringstream lines(head);
    std::string line, token;
    while (tokens.size() < 3 && std::getline(lines, line)) {
        std::istringstream words(line.substr(0, line.find('#')));
        while (tokens.size() < 3 && words >> token) tokens.push_back(token);
    }
    if (tokens.size() < 3 || tokens[0].find("OFF") == std::string::npos) return;
    uint64_t counts[2] = {0, 0};
    for (int i = 0; i < 2; ++i) {
        const std::string& t = tokens[i + 1];
        const auto [end, ec] = std::from_chars(t.data(), t.data() + t.size(), counts[i]);
        if (ec == std::errc::result_out_of_range) {
            counts[i] = UINT64_MAX;
        } else if (ec != std::errc() || end != t.data() + t.size()) {
            return;  // not a plain count
        }
    }
    // At least "0 0 0" and a separator per vertex, a digit and a separator per face.
    if (counts[0] > fileSize / 5 || counts[1] > fileSize / 2 ||
        counts[0] * 5 + counts[1] * 2 > fileSize + 8) {
        fail(file, "header declares " + std::to_string(counts[0]) + " vertices and " +
                       std::to_string(counts[1]) + " faces, more than its " +
                       std::to_string(fileSize) + " bytes can hold");
    }
}

// Faces touching a non-finite position are taken out before Assimp's own
// processing, which sorts positions and cannot order NaN: each becomes a point
// (removed with the other points) on a zeroed vertex. So are faces with an
// index out of range. Returns the number of faces taken out.
size_t dropBadFaces(aiScene& scene) {
    size_t dropped = 0;
    for (unsigned m = 0; scene.mMeshes && m < scene.mNumMeshes; ++m) {
        aiMesh* mesh = scene.mMeshes[m];
        if (!mesh || !mesh->mVertices || !mesh->mFaces || mesh->mNumVertices == 0) continue;
        const unsigned numVerts = mesh->mNumVertices;
        std::vector<bool> bad(numVerts, false);
        for (unsigned i = 0; i < numVerts; ++i) {
            if (isFinite(toPoint(mesh->mVertices[i]))) continue;
            bad[i] = true;
            mesh->mVertices[i] = aiVector3D(0, 0, 0);
        }
        // The primitive types are recounted: Assimp's triangulation asserts that
        // a mesh claiming polygons has some.
        unsigned types = mesh->mPrimitiveTypes & aiPrimitiveType_NGONEncodingFlag;
        for (unsigned f = 0; f < mesh->mNumFaces; ++f) {
            aiFace& face = mesh->mFaces[f];
            if (face.mIndices && face.mNumIndices >= 3) {
                bool ok = true;
                for (unsigned k = 0; ok && k < face.mNumIndices; ++k) {
                    ok = face.mIndices[k] < numVerts && !bad[face.mIndices[k]];
                }
                if (!ok) {
                    face.mNumIndices = 1;
                    face.mIndices[0] = 0;
                    ++dropped;
                }
            }
            switch (face.mNumIndices) {
                case 0:
                    break;
                case 1:
                    types |= aiPrimitiveType_POINT;
                    break;
                case 2:
                    types |= aiPrimitiveType_LINE;
                    break;
                case 3:
                    types |= aiPrimitiveType_TRIANGLE;
                    break;
                default:
                    types |= aiPrimitiveType_POLYGON;
                    break;
            }
        }
        mesh->mPrimitiveTypes = types;
    }
    return dropped;
}

// The checks Assimp would only report as a vague read failure.
void checkReadable(const fs::path& file) {
    std::error_code ec;
    const fs::file_status status = fs::status(file, ec);
    if (!fs::exists(status)) fail(file, "file not found");
    if (fs::is_directory(status)) fail(file, "is a directory, not a mesh file");
    if (!fs::is_regular_file(status)) fail(file, "is not a regular file");
    std::FILE* f = std::fopen(file.c_str(), "rb");
    if (!f) fail(file, std::string("cannot be opened: ") + std::strerror(errno));
    std::fclose(f);
    const uintmax_t size = fs::file_size(file, ec);
    if (!ec) checkOffCounts(file, size);
}

void walkNodes(const aiScene& scene, size_t& dropped, ImportedScene& out) {
    struct Pending {
        const aiNode* node;
        int parent;
        bool topLevel;
    };
    const aiNode* root = scene.mRootNode;
    const Matrix3 toZUp = sceneToZUp(scene);
    const Matrix3 fromZUp = Transpose3(toZUp);  // a rotation: its inverse

    // Assimp's root stands for the file itself: unless it holds geometry of its
    // own, its children are the top-level nodes and its transform folds into theirs.
    const bool rootIsNode = root->mNumMeshes > 0;
    const Matrix3 rootFold = rootIsNode ? Matrix3() : toMatrix3(root->mTransformation);

    std::vector<Pending> stack;
    auto pushChildren = [&](const aiNode* node, int parent, bool topLevel) {
        if (!node->mChildren) return;
        // Reversed, so that children come off the stack in file order.
        for (unsigned i = node->mNumChildren; i-- > 0;) {
            if (node->mChildren[i]) stack.push_back({node->mChildren[i], parent, topLevel});
        }
    };
    if (rootIsNode) {
        stack.push_back({root, -1, true});
    } else {
        pushChildren(root, -1, true);
    }

    std::unordered_set<const aiNode*> visited;
    while (!stack.empty()) {
        const Pending p = stack.back();
        stack.pop_back();
        if (!visited.insert(p.node).second) continue;  // a malformed tree must not loop

        ImportedNode node;
        node.name = p.node->mName.C_Str();
        node.parent = p.parent;
        // The turn to Z-up is baked into the geometry, so every mesh stands
        // upright in its own object space (a pattern is used there); the
        // transforms are conjugated to match: world = v R (R^-1 T R) ... .
        node.transform = toMatrix3(p.node->mTransformation);
        if (p.topLevel) node.transform = node.transform * rootFold;
        node.transform = fromZUp * node.transform * toZUp;

        std::vector<const aiMesh*> parts;
        for (unsigned i = 0; p.node->mMeshes && i < p.node->mNumMeshes; ++i) {
            const unsigned m = p.node->mMeshes[i];
            if (m < scene.mNumMeshes && scene.mMeshes[m]) parts.push_back(scene.mMeshes[m]);
        }
        if (!parts.empty()) node.mesh = buildNodeMesh(parts, toZUp, dropped);

        out.nodes.push_back(std::move(node));
        pushChildren(p.node, static_cast<int>(out.nodes.size()) - 1, false);
    }
}

}  // namespace

ImportedScene importMeshFile(const fs::path& file, bool withEmbeddedTextures) {
    checkReadable(file);

    Assimp::Importer importer;
    // Points and lines are no surface to tile over.
    importer.SetPropertyInteger(AI_CONFIG_PP_SBP_REMOVE,
                                aiPrimitiveType_POINT | aiPrimitiveType_LINE);
    // No normal generation: the host derives missing normals from smoothing
    // groups. Reading and processing are split so that bad faces can be taken
    // out in between.
    constexpr unsigned kSteps = aiProcess_Triangulate | aiProcess_SortByPType |
                                aiProcess_JoinIdenticalVertices | aiProcess_ValidateDataStructure;
    auto assimpError = [&](const char* what) {
        const std::string why = importer.GetErrorString();
        return std::string(what) + (why.empty() ? std::string("unknown error") : why);
    };
    size_t dropped = 0;
    const aiScene* scene = nullptr;
    try {
        scene = importer.ReadFile(file.string(), 0);
        if (!scene) fail(file, assimpError("Assimp could not read it: "));
        if (!scene->mRootNode || scene->mNumMeshes == 0 || !scene->mMeshes) {
            fail(file, "contains no meshes");
        }
        // The importer owns the scene and lets post-processing change it in place.
        dropped = dropBadFaces(*const_cast<aiScene*>(scene));
        scene = importer.ApplyPostProcessing(kSteps);
        if (!scene) {
            std::string why = assimpError("Assimp could not process it: ");
            if (dropped > 0) {
                why += " (" + std::to_string(dropped) +
                       " faces with non-finite positions or bad indices dropped)";
            }
            fail(file, why);
        }
    } catch (const ImportError&) {
        throw;
    } catch (const std::exception& e) {
        fail(file, std::string("Assimp failed: ") + e.what());
    }
    if (!scene->mRootNode || scene->mNumMeshes == 0 || !scene->mMeshes) {
        fail(file, "contains no meshes after removing points and lines");
    }

    ImportedScene out;
    try {
        for (unsigned i = 0; scene->mMaterials && i < scene->mNumMaterials; ++i) {
            const aiMaterial* mat = scene->mMaterials[i];
            out.materials.push_back(mat ? readMaterial(*scene, *mat) : ImportedMaterial{});
        }
        std::string ext = file.extension().string();
        std::transform(ext.begin(), ext.end(), ext.begin(),
                       [](unsigned char c) { return std::tolower(c); });
        if (ext == ".gltf" || ext == ".glb") applyGltfMaterials(file, out.materials);
        for (unsigned i = 0; withEmbeddedTextures && scene->mTextures && i < scene->mNumTextures;
             ++i) {
            const aiTexture* t = scene->mTextures[i];
            out.embeddedTextures.push_back(t ? copyEmbedded(*t) : EmbeddedTexture{});
        }
        walkNodes(*scene, dropped, out);
    } catch (const std::bad_alloc&) {
        fail(file, "out of memory");
    } catch (const std::length_error&) {
        fail(file, "out of memory");
    }

    const bool anyFaces = std::any_of(out.nodes.begin(), out.nodes.end(),
                                      [](const ImportedNode& n) { return n.mesh != nullptr; });
    if (!anyFaces) {
        fail(file, dropped == 0 ? std::string("contains no triangles")
                                : "contains no usable triangles (" + std::to_string(dropped) +
                                      " with bad indices or non-finite positions dropped)");
    }
    return out;
}

bool isImportableMeshFile(const fs::path& file) {
    const std::string ext = file.extension().string();
    if (ext.size() < 2) return false;
    // Building an importer registers every reader, so one is kept; calls are serialised.
    static std::mutex mutex;
    static const Assimp::Importer importer;
    const std::lock_guard lock(mutex);
    return importer.IsExtensionSupported(ext.c_str());
}

}  // namespace mq
