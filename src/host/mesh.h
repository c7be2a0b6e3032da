// Triangle meshes with smoothing groups, material ids, map channels and
// specified normals.
#pragma once

#include "host/math.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace mq {

// Channel bits for Mesh::DeepCopy.
inline constexpr uint32_t TOPO_CHANNEL = 1u << 0;    // faces, smoothing groups, flags
inline constexpr uint32_t GEOM_CHANNEL = 1u << 1;    // vertex positions
inline constexpr uint32_t TEXMAP_CHANNEL = 1u << 2;  // map channels 1..99
inline constexpr uint32_t MTL_CHANNEL = 1u << 3;     // material ids (high 16 bits of flags)
inline constexpr uint32_t SELECT_CHANNEL = 1u << 4;
inline constexpr uint32_t SUBSEL_TYPE_CHANNEL = 1u << 5;
inline constexpr uint32_t DISP_ATTRIB_CHANNEL = 1u << 6;
inline constexpr uint32_t VERTCOLOR_CHANNEL = 1u << 7;  // map channel 0
inline constexpr uint32_t GFX_DATA_CHANNEL = 1u << 8;
inline constexpr uint32_t DISP_APPROX_CHANNEL = 1u << 9;
inline constexpr uint32_t EXTENSION_CHANNEL = 1u << 13;  // specified normals
inline constexpr uint32_t ALL_CHANNELS = 0xffffffffu;

inline constexpr int MAX_MESHMAPS = 100;

struct Face {
    uint32_t v[3] = {0, 0, 0};
    uint32_t smGroup = 0;
    // Low 16 bits: edge visibility and other flags; high 16 bits: material id.
    uint32_t flags = 0;

    uint16_t getMatID() const { return static_cast<uint16_t>(flags >> 16); }
    void setMatID(uint16_t id) { flags = (flags & 0xffffu) | (uint32_t(id) << 16); }
};

// Indices of a face's three corners into a map channel's vertices.
struct TVFace {
    uint32_t t[3] = {0, 0, 0};
};

struct MeshMap {
    bool supported = false;
    std::vector<Point3> verts;  // UVW
    std::vector<TVFace> faces;  // one per mesh face when supported
};

class Mesh;

// Per-corner normals: a pool of normals and, for each face, the index of each
// corner's normal in that pool.
class MeshNormalSpec {
public:
    void SetParent(Mesh* mesh) { parent_ = mesh; }
    Mesh* GetParent() const { return parent_; }

    int GetNumNormals() const { return static_cast<int>(normals_.size()); }
    int GetNumFaces() const { return static_cast<int>(faceIndices_.size()); }
    Point3& Normal(int i) { return normals_[i]; }
    const Point3& Normal(int i) const { return normals_[i]; }
    int GetNormalIndex(int face, int corner) const { return faceIndices_[face][corner]; }

    // Explicit normals, from a file. Each face's corners index into normals.
    void SetNormals(std::vector<Point3> normals, std::vector<std::array<int, 3>> faceIndices);
    // True when the normals were given explicitly rather than computed.
    bool IsExplicit() const { return explicit_; }
    void Clear();

    // Make the normals consistent with the parent mesh: explicit normals that
    // still fit the mesh (one index triple per face, every index in range)
    // are kept; otherwise normals are computed per vertex and smoothing group,
    // area weighted. A face with smoothing group 0 is flat.
    void CheckNormals();

private:
    Mesh* parent_ = nullptr;
    bool explicit_ = false;
    std::vector<Point3> normals_;
    std::vector<std::array<int, 3>> faceIndices_;
};

class Mesh {
public:
    Mesh() = default;
    Mesh(const Mesh& other);
    Mesh& operator=(const Mesh& other);
    // Moves hand the normal set over and point it at the new mesh.
    Mesh(Mesh&& other) noexcept;
    Mesh& operator=(Mesh&& other) noexcept;

    int getNumVerts() const { return static_cast<int>(verts.size()); }
    int getNumFaces() const { return static_cast<int>(faces.size()); }
    void setNumVerts(int n) { verts.resize(n); }
    void setNumFaces(int n) { faces.resize(n); }
    Point3& getVert(int i) { return verts[i]; }
    const Point3& getVert(int i) const { return verts[i]; }
    void setVert(int i, const Point3& p) { verts[i] = p; }

    // Map channels 0..99; channel 0 is vertex colour, 1 the default UVs.
    // getNumMaps is one past the highest channel in use.
    int getNumMaps() const;
    bool mapSupport(int channel) const;
    void setMapSupport(int channel, bool support = true);
    int getNumMapVerts(int channel) const;
    Point3* mapVerts(int channel);
    const Point3* mapVerts(int channel) const;
    TVFace* mapFaces(int channel);
    const TVFace* mapFaces(int channel) const;
    MeshMap& Map(int channel) { return maps_[channel]; }
    const MeshMap& Map(int channel) const { return maps_[channel]; }

    // Creates the (empty) per-corner normals if the mesh has none.
    void SpecifyNormals();
    void ClearSpecifiedNormals() { normalSpec_.reset(); }
    MeshNormalSpec* GetSpecifiedNormals() { return normalSpec_.get(); }
    const MeshNormalSpec* GetSpecifiedNormals() const { return normalSpec_.get(); }

    // Replace this mesh's channels selected by channelMask (the *_CHANNEL
    // bits) with copies of other's. Unselected channels are left as they are.
    void DeepCopy(const Mesh& other, uint32_t channelMask);

    // Bounds of the vertices, optionally transformed.
    Box3 getBoundingBox(const Matrix3* tm = nullptr) const;

    // Problems that would make the mesh unsafe to use: out-of-range vertex or
    // map indices, non-finite positions. Empty when the mesh is sound.
    std::vector<std::string> validate() const;

    std::vector<Point3> verts;
    std::vector<Face> faces;

private:
    std::array<MeshMap, MAX_MESHMAPS> maps_;
    std::unique_ptr<MeshNormalSpec> normalSpec_;
};

// Built-in primitive meshes, with UVs on map channel 1 and smoothing groups.
// Sizes are in scene units; segment counts are clamped to at least the
// minimum that gives a closed shape.
Mesh makePlaneMesh(float length, float width, int lengthSegs, int widthSegs);
Mesh makeBoxMesh(float length, float width, float height, int lengthSegs, int widthSegs,
                 int heightSegs);
Mesh makeSphereMesh(float radius, int segments);
Mesh makeTorusMesh(float radius1, float radius2, int segments, int sides);
Mesh makeCylinderMesh(float radius, float height, int heightSegs, int sides);

}  // namespace mq
