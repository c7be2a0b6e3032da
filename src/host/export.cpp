// Writing meshes as Wavefront OBJ and binary glTF, streamed straight from the
// host mesh. Assimp's exporters were the first choice, but they copy the
// whole scene and weld its vertices again before writing (about a kilobyte
// per triangle at peak, and 16 s for a 1.2M-triangle OBJ), which baked meshes
// of tens of millions of triangles cannot afford; these writers add nothing
// but a fixed buffer. Both formats are Y-up: (x, y, z) is written (x, z, -y).
#include "host/export.h"

#include "host/atomic_file.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>
#include <vector>

namespace mq {

namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(const fs::path& file, const std::string& reason) {
    throw ExportError(file.string() + ": " + reason);
}

std::string lowerExtension(const fs::path& file) {
    std::string ext = file.extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    return ext;
}

static_assert(sizeof(Point3) == 12, "positions are written as three packed floats");

// Z-up to the files' Y-up, the inverse of the importer's turn.
Point3 toYUp(const Point3& p) { return {p.x, p.z, -p.y}; }

// Buffered writes that remember the first failure.
class Writer {
public:
    explicit Writer(const fs::path& file) : file_(std::fopen(file.c_str(), "wb")) {
        if (!file_) error_ = std::strerror(errno);
        buffer_.reserve(kBufferSize);
    }
    ~Writer() {
        if (file_) std::fclose(file_);
    }
    Writer(const Writer&) = delete;
    Writer& operator=(const Writer&) = delete;

    void bytes(const void* data, size_t size) {
        const char* p = static_cast<const char*>(data);
        if (buffer_.size() + size > kBufferSize) flush();
        if (size > kBufferSize) {
            put(p, size);
            return;
        }
        buffer_.insert(buffer_.end(), p, p + size);
    }
    void text(std::string_view s) { bytes(s.data(), s.size()); }
    template <class T>
    void value(const T& v) {
        bytes(&v, sizeof v);
    }
    // Shortest text that reads back as the same float.
    void number(float f) {
        char buf[32];
        const auto res = std::to_chars(buf, buf + sizeof buf, f);
        bytes(buf, size_t(res.ptr - buf));
    }
    void number(uint64_t n) {
        char buf[24];
        const auto res = std::to_chars(buf, buf + sizeof buf, n);
        bytes(buf, size_t(res.ptr - buf));
    }

    // The reason for the first failure so far, empty when none.
    const std::string& error() const { return error_; }
    // Flushes and closes; the reason for the first failure, empty when none.
    std::string finish() {
        flush();
        if (file_ && std::fclose(file_) != 0 && error_.empty()) error_ = std::strerror(errno);
        file_ = nullptr;
        return error_;
    }

private:
    static constexpr size_t kBufferSize = size_t(1) << 20;

    void flush() {
        put(buffer_.data(), buffer_.size());
        buffer_.clear();
    }
    void put(const char* data, size_t size) {
        if (!file_ || !error_.empty() || size == 0) return;
        if (std::fwrite(data, 1, size, file_) != size) error_ = std::strerror(errno);
    }

    std::FILE* file_ = nullptr;
    std::string error_;
    std::vector<char> buffer_;
};

// The channels that go into the file, checked against the mesh.
struct Channels {
    const MeshNormalSpec* normals = nullptr;
    const MeshMap* uvs = nullptr;
    bool sharedIndex = false;  // every corner uses one index into all channels
};

Channels channelsOf(const Mesh& mesh, const fs::path& file) {
    const size_t faceCount = mesh.faces.size();
    const size_t vertexCount = mesh.verts.size();
    for (const Face& f : mesh.faces) {
        for (uint32_t v : f.v) {
            if (v >= vertexCount) fail(file, "the mesh has a vertex index out of range");
        }
    }
    Channels ch;
    const MeshNormalSpec* nspec = mesh.GetSpecifiedNormals();
    if (nspec && size_t(nspec->GetNumFaces()) == faceCount && nspec->GetNumNormals() > 0) {
        bool inRange = true;
        for (size_t f = 0; f < faceCount && inRange; ++f) {
            for (int c = 0; c < 3; ++c) {
                const int n = nspec->GetNormalIndex(int(f), c);
                inRange = inRange && n >= 0 && n < nspec->GetNumNormals();
            }
        }
        if (inRange) ch.normals = nspec;
    }
    if (mesh.mapSupport(1) && mesh.Map(1).faces.size() == faceCount) {
        const MeshMap& map = mesh.Map(1);
        bool inRange = true;
        for (size_t f = 0; f < faceCount && inRange; ++f) {
            for (uint32_t t : map.faces[f].t) inRange = inRange && t < map.verts.size();
        }
        if (inRange) ch.uvs = &map;
    }

    bool shared = (!ch.normals || size_t(ch.normals->GetNumNormals()) == vertexCount) &&
                  (!ch.uvs || ch.uvs->verts.size() == vertexCount);
    for (size_t f = 0; f < faceCount && shared; ++f) {
        for (int c = 0; c < 3; ++c) {
            const uint32_t v = mesh.faces[f].v[c];
            shared = shared && (!ch.normals || ch.normals->GetNormalIndex(int(f), c) == int(v)) &&
                     (!ch.uvs || ch.uvs->faces[f].t[c] == v);
        }
    }
    ch.sharedIndex = shared;
    return ch;
}

// glTF wants one index per vertex for all attributes: the mesh's own
// vertices when its channels share their indexing, otherwise one vertex per
// face corner.
struct GltfVertices {
    const Mesh& mesh;
    const Channels& ch;

    size_t count() const { return ch.sharedIndex ? mesh.verts.size() : mesh.faces.size() * 3; }
    Point3 position(size_t i) const {
        return mesh.verts[ch.sharedIndex ? i : mesh.faces[i / 3].v[i % 3]];
    }
    Point3 normal(size_t i) const {
        return ch.normals->Normal(
            ch.sharedIndex ? int(i) : ch.normals->GetNormalIndex(int(i / 3), int(i % 3)));
    }
    Point3 uv(size_t i) const {
        return ch.uvs->verts[ch.sharedIndex ? i : ch.uvs->faces[i / 3].t[i % 3]];
    }
    uint32_t index(size_t f, int c) const {
        return ch.sharedIndex ? mesh.faces[f].v[c] : uint32_t(f * 3 + size_t(c));
    }
};

void writeGlb(const Mesh& mesh, const Channels& ch, const std::string& name, Writer& out,
              const fs::path& file) {
    const GltfVertices vertices{mesh, ch};
    const uint64_t vertexCount = vertices.count();
    const uint64_t faceCount = mesh.faces.size();
    if (vertexCount > std::numeric_limits<uint32_t>::max())
        fail(file, "too many vertices for 32-bit indices; write .obj instead");

    // Bounds of the positions as written; glTF requires them.
    Point3 lo(std::numeric_limits<float>::max(), std::numeric_limits<float>::max(),
              std::numeric_limits<float>::max());
    Point3 hi = lo * -1.0f;
    for (size_t i = 0; i < vertexCount; ++i) {
        const Point3 p = toYUp(vertices.position(i));
        if (!isFinite(p)) fail(file, "the mesh has a non-finite vertex position");
        for (int a = 0; a < 3; ++a) {
            lo[a] = std::min(lo[a], p[a]);
            hi[a] = std::max(hi[a], p[a]);
        }
    }

    using json = nlohmann::ordered_json;
    json views = json::array(), accessors = json::array(), attributes = json::object();
    uint64_t binLength = 0;
    auto addView = [&](uint64_t length, int target, int componentType, uint64_t count,
                       const char* type) {
        views.push_back(
            {{"buffer", 0}, {"byteOffset", binLength}, {"byteLength", length}, {"target", target}});
        accessors.push_back({{"bufferView", views.size() - 1},
                             {"componentType", componentType},
                             {"count", count},
                             {"type", type}});
        binLength += length;
        return accessors.size() - 1;
    };
    constexpr int kArrayBuffer = 34962, kElementBuffer = 34963;
    constexpr int kFloat = 5126, kUnsignedInt = 5125;
    attributes["POSITION"] = addView(vertexCount * 12, kArrayBuffer, kFloat, vertexCount, "VEC3");
    accessors.back()["min"] = {lo.x, lo.y, lo.z};
    accessors.back()["max"] = {hi.x, hi.y, hi.z};
    if (ch.normals)
        attributes["NORMAL"] = addView(vertexCount * 12, kArrayBuffer, kFloat, vertexCount, "VEC3");
    if (ch.uvs)
        attributes["TEXCOORD_0"] =
            addView(vertexCount * 8, kArrayBuffer, kFloat, vertexCount, "VEC2");
    const size_t indices =
        addView(faceCount * 12, kElementBuffer, kUnsignedInt, faceCount * 3, "SCALAR");

    const json document = {
        {"asset", {{"version", "2.0"}, {"generator", "mosaiq"}}},
        {"scene", 0},
        {"scenes", json::array({{{"nodes", {0}}}})},
        {"nodes", json::array({{{"name", name}, {"mesh", 0}}})},
        {"meshes",
         json::array(
             {{{"name", name},
               {"primitives",
                json::array({{{"attributes", attributes}, {"indices", indices}, {"mode", 4}}})}}})},
        {"buffers", json::array({{{"byteLength", binLength}}})},
        {"bufferViews", views},
        {"accessors", accessors}};
    // A file name need not be UTF-8; the node name then loses what is not.
    std::string text = document.dump(-1, ' ', false, json::error_handler_t::replace);
    text.resize((text.size() + 3) / 4 * 4, ' ');  // chunks are 4-byte aligned

    const uint64_t total = 12 + 8 + text.size() + 8 + binLength;
    if (total > std::numeric_limits<uint32_t>::max())
        fail(file, "the mesh needs " + std::to_string(total) +
                       " bytes, more than a .glb file can hold (4 GiB); write .obj instead");
    out.value(uint32_t(0x46546C67));  // "glTF"
    out.value(uint32_t(2));
    out.value(uint32_t(total));
    out.value(uint32_t(text.size()));
    out.value(uint32_t(0x4E4F534A));  // "JSON"
    out.text(text);
    out.value(uint32_t(binLength));
    out.value(uint32_t(0x004E4942));  // "BIN"

    for (size_t i = 0; i < vertexCount; ++i) out.value(toYUp(vertices.position(i)));
    if (ch.normals) {
        for (size_t i = 0; i < vertexCount; ++i) {
            Point3 n = Normalize(toYUp(vertices.normal(i)));
            if (!isFinite(n) || LengthSquared(n) == 0.0f) n = Point3(0, 1, 0);  // glTF wants unit
            out.value(n);
        }
    }
    if (ch.uvs) {
        // glTF's V runs down the image.
        for (size_t i = 0; i < vertexCount; ++i) {
            const Point3 uv = vertices.uv(i);
            out.value(std::array<float, 2>{uv.x, 1.0f - uv.y});
        }
    }
    for (size_t f = 0; f < faceCount; ++f) {
        out.value(std::array<uint32_t, 3>{vertices.index(f, 0), vertices.index(f, 1),
                                          vertices.index(f, 2)});
    }
}

// OBJ indexes each channel on its own, so the mesh goes out as it is.
void writeObj(const Mesh& mesh, const Channels& ch, const std::string& name, Writer& out) {
    out.text("# Written by mosaiq (Z-up scene turned Y-up)\no ");
    std::string safeName = name;
    std::replace_if(
        safeName.begin(), safeName.end(), [](unsigned char c) { return std::isspace(c) != 0; },
        '_');
    out.text(safeName.empty() ? "mesh" : safeName);
    out.text("\n");
    auto point = [&](const char* tag, const Point3& p, int components) {
        out.text(tag);
        for (int a = 0; a < components; ++a) {
            out.text(" ");
            out.number(p[a]);
        }
        out.text("\n");
    };
    for (const Point3& p : mesh.verts) point("v", toYUp(p), 3);
    if (ch.uvs) {
        for (const Point3& uv : ch.uvs->verts) point("vt", uv, 2);
    }
    if (ch.normals) {
        for (int i = 0; i < ch.normals->GetNumNormals(); ++i)
            point("vn", toYUp(ch.normals->Normal(i)), 3);
    }
    for (size_t f = 0; f < mesh.faces.size(); ++f) {
        out.text("f");
        for (int c = 0; c < 3; ++c) {
            out.text(" ");
            out.number(uint64_t(mesh.faces[f].v[c]) + 1);
            if (ch.uvs || ch.normals) out.text("/");
            if (ch.uvs) out.number(uint64_t(ch.uvs->faces[f].t[c]) + 1);
            if (ch.normals) {
                out.text("/");
                out.number(uint64_t(ch.normals->GetNormalIndex(int(f), c)) + 1);
            }
        }
        out.text("\n");
    }
}

}  // namespace

bool isExportableMeshFile(const fs::path& file) {
    const std::string ext = lowerExtension(file);
    return ext == ".obj" || ext == ".glb";
}

void exportMesh(const Mesh& mesh, const fs::path& file) {
    if (!isExportableMeshFile(file)) {
        fail(file,
             "unsupported mesh format \"" + file.extension().string() + "\" (use .obj or .glb)");
    }
    if (mesh.faces.empty()) fail(file, "the mesh has no triangles to write");
    const Channels ch = channelsOf(mesh, file);
    try {
        writeFileAtomically(file, [&](const fs::path& temporary) {
            Writer out(temporary);
            if (!out.error().empty()) fail(file, "cannot write: " + out.error());
            if (lowerExtension(file) == ".glb") {
                writeGlb(mesh, ch, file.stem().string(), out, file);
            } else {
                writeObj(mesh, ch, file.stem().string(), out);
            }
            if (const std::string why = out.finish(); !why.empty())
                fail(file, "cannot write: " + why);
        });
    } catch (const FileWriteError& e) {
        throw ExportError(e.what());
    }
}

}  // namespace mq
