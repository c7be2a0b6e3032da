#include "host/mesh.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <numeric>
#include <string>
#include <utility>

namespace mq {

namespace {

bool validChannel(int channel) { return channel >= 0 && channel < MAX_MESHMAPS; }

// Copy of a normal set that belongs to `owner`.
std::unique_ptr<MeshNormalSpec> cloneSpec(const MeshNormalSpec* nspec, Mesh* owner) {
    if (!nspec) return nullptr;
    auto copy = std::make_unique<MeshNormalSpec>(*nspec);
    copy->SetParent(owner);
    return copy;
}

// Unit vector along v, or zero when v is zero or not finite. Scaling by the
// largest component first keeps tiny faces' normals from underflowing.
Point3 safeNormalize(const Point3& v) {
    const float big = std::max({std::fabs(v.x), std::fabs(v.y), std::fabs(v.z)});
    if (!(big > 0.0f) || !std::isfinite(big)) return {};
    return Normalize(v / big);
}

}  // namespace

// ---------------------------------------------------------------------------
// Mesh

Mesh::Mesh(const Mesh& other)
    : verts(other.verts),
      faces(other.faces),
      maps_(other.maps_),
      normalSpec_(cloneSpec(other.normalSpec_.get(), this)) {}

Mesh& Mesh::operator=(const Mesh& other) {
    if (this == &other) return *this;
    verts = other.verts;
    faces = other.faces;
    maps_ = other.maps_;
    normalSpec_ = cloneSpec(other.normalSpec_.get(), this);
    return *this;
}

Mesh::Mesh(Mesh&& other) noexcept
    : verts(std::move(other.verts)),
      faces(std::move(other.faces)),
      maps_(std::move(other.maps_)),
      normalSpec_(std::move(other.normalSpec_)) {
    if (normalSpec_) normalSpec_->SetParent(this);
}

Mesh& Mesh::operator=(Mesh&& other) noexcept {
    if (this == &other) return *this;
    verts = std::move(other.verts);
    faces = std::move(other.faces);
    maps_ = std::move(other.maps_);
    normalSpec_ = std::move(other.normalSpec_);
    if (normalSpec_) normalSpec_->SetParent(this);
    return *this;
}

int Mesh::getNumMaps() const {
    for (int c = MAX_MESHMAPS - 1; c >= 0; --c) {
        if (maps_[c].supported) return c + 1;
    }
    return 0;
}

bool Mesh::mapSupport(int channel) const {
    return validChannel(channel) && maps_[channel].supported;
}

void Mesh::setMapSupport(int channel, bool support) {
    if (!validChannel(channel)) return;
    MeshMap& map = maps_[channel];
    if (support) {
        // A supported channel always has one map face per mesh face.
        map.supported = true;
        map.faces.resize(faces.size());
    } else {
        map = MeshMap();
    }
}

int Mesh::getNumMapVerts(int channel) const {
    return mapSupport(channel) ? static_cast<int>(maps_[channel].verts.size()) : 0;
}

Point3* Mesh::mapVerts(int channel) {
    return mapSupport(channel) ? maps_[channel].verts.data() : nullptr;
}

const Point3* Mesh::mapVerts(int channel) const {
    return mapSupport(channel) ? maps_[channel].verts.data() : nullptr;
}

TVFace* Mesh::mapFaces(int channel) {
    return mapSupport(channel) ? maps_[channel].faces.data() : nullptr;
}

const TVFace* Mesh::mapFaces(int channel) const {
    return mapSupport(channel) ? maps_[channel].faces.data() : nullptr;
}

void Mesh::SpecifyNormals() {
    if (!normalSpec_) {
        normalSpec_ = std::make_unique<MeshNormalSpec>();
        normalSpec_->SetParent(this);
    }
}

void Mesh::DeepCopy(const Mesh& other, uint32_t channelMask) {
    if (this == &other) return;

    if (channelMask & TOPO_CHANNEL) {
        // Topology carries everything but the material id, which stays with
        // this mesh's faces unless MTL_CHANNEL is copied too.
        std::vector<Face> newFaces(other.faces);
        for (size_t f = 0; f < newFaces.size(); ++f) {
            const uint32_t oldMtl = f < faces.size() ? (faces[f].flags & 0xffff0000u) : 0u;
            newFaces[f].flags = (newFaces[f].flags & 0xffffu) | oldMtl;
        }
        faces = std::move(newFaces);
    }
    if (channelMask & MTL_CHANNEL) {
        const size_t n = std::min(faces.size(), other.faces.size());
        for (size_t f = 0; f < n; ++f) faces[f].setMatID(other.faces[f].getMatID());
    }
    if (channelMask & GEOM_CHANNEL) verts = other.verts;
    if (channelMask & VERTCOLOR_CHANNEL) maps_[0] = other.maps_[0];
    if (channelMask & TEXMAP_CHANNEL) {
        for (int c = 1; c < MAX_MESHMAPS; ++c) maps_[c] = other.maps_[c];
    }
    if (channelMask & EXTENSION_CHANNEL) normalSpec_ = cloneSpec(other.normalSpec_.get(), this);
}

Box3 Mesh::getBoundingBox(const Matrix3* tm) const {
    Box3 box;
    for (const Point3& p : verts) {
        // Non-finite positions are reported by validate(); they would only
        // blow the box up to infinity here.
        if (!isFinite(p)) continue;
        box += tm ? p * *tm : p;
    }
    return box;
}

std::vector<std::string> Mesh::validate() const {
    // A badly broken mesh could list millions of problems; keep the report readable.
    constexpr size_t kMaxReported = 100;
    std::vector<std::string> problems;
    size_t dropped = 0;
    auto report = [&](std::string msg) {
        if (problems.size() < kMaxReported) {
            problems.push_back(std::move(msg));
        } else {
            ++dropped;
        }
    };

    const size_t numVerts = verts.size();
    for (size_t i = 0; i < numVerts; ++i) {
        if (!isFinite(verts[i])) report("vertex " + std::to_string(i) + " is not finite");
    }
    for (size_t f = 0; f < faces.size(); ++f) {
        for (int c = 0; c < 3; ++c) {
            if (faces[f].v[c] >= numVerts) {
                report("face " + std::to_string(f) + " corner " + std::to_string(c) +
                       ": vertex index " + std::to_string(faces[f].v[c]) + " out of range (" +
                       std::to_string(numVerts) + " vertices)");
            }
        }
    }

    for (int ch = 0; ch < MAX_MESHMAPS; ++ch) {
        const MeshMap& map = maps_[ch];
        if (!map.supported) continue;
        const std::string name = "map channel " + std::to_string(ch);
        if (map.faces.size() != faces.size()) {
            report(name + ": " + std::to_string(map.faces.size()) + " map faces for " +
                   std::to_string(faces.size()) + " faces");
        }
        const size_t numMapVerts = map.verts.size();
        for (size_t f = 0; f < map.faces.size(); ++f) {
            for (int c = 0; c < 3; ++c) {
                if (map.faces[f].t[c] >= numMapVerts) {
                    report(name + " face " + std::to_string(f) + " corner " + std::to_string(c) +
                           ": map vertex index " + std::to_string(map.faces[f].t[c]) +
                           " out of range (" + std::to_string(numMapVerts) + " map vertices)");
                }
            }
        }
    }

    // An empty normal set is only waiting for CheckNormals; a filled one must fit.
    if (const MeshNormalSpec* nspec = normalSpec_.get()) {
        if (nspec->GetParent() != this) report("normal set belongs to another mesh");
        const int numNormalFaces = nspec->GetNumFaces();
        const int numNormals = nspec->GetNumNormals();
        if (numNormalFaces != 0 || numNormals != 0) {
            if (numNormalFaces != getNumFaces()) {
                report("normals: " + std::to_string(numNormalFaces) + " normal faces for " +
                       std::to_string(faces.size()) + " faces");
            }
            for (int f = 0; f < numNormalFaces; ++f) {
                for (int c = 0; c < 3; ++c) {
                    const int n = nspec->GetNormalIndex(f, c);
                    if (n < 0 || n >= numNormals) {
                        report("normals: face " + std::to_string(f) + " corner " +
                               std::to_string(c) + ": normal index " + std::to_string(n) +
                               " out of range (" + std::to_string(numNormals) + " normals)");
                    }
                }
            }
            for (int n = 0; n < numNormals; ++n) {
                if (!isFinite(nspec->Normal(n))) {
                    report("normals: normal " + std::to_string(n) + " is not finite");
                }
            }
        }
    }

    if (dropped > 0) problems.push_back("... and " + std::to_string(dropped) + " more problems");
    return problems;
}

// ---------------------------------------------------------------------------
// MeshNormalSpec

void MeshNormalSpec::SetNormals(std::vector<Point3> normals,
                                std::vector<std::array<int, 3>> faceIndices) {
    normals_ = std::move(normals);
    faceIndices_ = std::move(faceIndices);
    explicit_ = true;
}

void MeshNormalSpec::Clear() {
    normals_.clear();
    faceIndices_.clear();
    explicit_ = false;
}

void MeshNormalSpec::CheckNormals() {
    if (!parent_) return;
    const Mesh& mesh = *parent_;
    const size_t numFaces = mesh.faces.size();
    const size_t numVerts = mesh.verts.size();

    if (explicit_ && faceIndices_.size() == numFaces) {
        const int numNormals = GetNumNormals();
        const bool indicesOk =
            std::all_of(faceIndices_.begin(), faceIndices_.end(), [&](const auto& tri) {
                return std::all_of(tri.begin(), tri.end(),
                                   [&](int n) { return n >= 0 && n < numNormals; });
            });
        const bool normalsOk = std::all_of(normals_.begin(), normals_.end(),
                                           [](const Point3& n) { return isFinite(n); });
        if (indicesOk && normalsOk) return;
    }

    explicit_ = false;
    normals_.clear();
    faceIndices_.assign(numFaces, {0, 0, 0});
    if (numFaces == 0) return;

    // Unnormalised face normals: their length is twice the face's area, which
    // gives the area weighting. Faces with bad indices or non-finite corners
    // contribute nothing.
    std::vector<Point3> faceCross(numFaces);
    std::vector<uint8_t> faceOk(numFaces, 0);
    for (size_t f = 0; f < numFaces; ++f) {
        const Face& face = mesh.faces[f];
        if (face.v[0] >= numVerts || face.v[1] >= numVerts || face.v[2] >= numVerts) continue;
        faceOk[f] = 1;
        const Point3& p0 = mesh.verts[face.v[0]];
        const Point3 n = CrossProd(mesh.verts[face.v[1]] - p0, mesh.verts[face.v[2]] - p0);
        if (isFinite(n)) faceCross[f] = n;
    }
    auto faceNormal = [&](size_t f) {
        const Point3 n = safeNormalize(faceCross[f]);
        return n == Point3() ? Point3(0, 0, 1) : n;
    };

    // Corners grouped by vertex (counting sort): corner id = face * 3 + corner.
    std::vector<uint32_t> start(numVerts + 1, 0);
    for (size_t f = 0; f < numFaces; ++f) {
        if (!faceOk[f]) continue;
        for (int c = 0; c < 3; ++c) ++start[mesh.faces[f].v[c] + 1];
    }
    std::partial_sum(start.begin(), start.end(), start.begin());
    std::vector<uint32_t> corners(start[numVerts]);
    {
        std::vector<uint32_t> fill(start.begin(), start.end() - 1);
        for (size_t f = 0; f < numFaces; ++f) {
            if (!faceOk[f]) continue;
            for (int c = 0; c < 3; ++c) {
                corners[fill[mesh.faces[f].v[c]]++] = static_cast<uint32_t>(f * 3 + c);
            }
        }
    }

    normals_.reserve(numVerts + numFaces / 2 + 1);

    // Per vertex, union-find over its corners: corners whose faces share a
    // smoothing bit join; owner[bit] is the first corner seen with that bit.
    std::vector<uint32_t> uf;
    std::vector<int> groupNormal;
    std::vector<Point3> rootSum;
    std::vector<float> rootMag;
    std::array<int, 32> owner;
    owner.fill(-1);
    auto find = [&uf](uint32_t i) {
        while (uf[i] != i) {
            uf[i] = uf[uf[i]];
            i = uf[i];
        }
        return i;
    };

    for (size_t v = 0; v < numVerts; ++v) {
        const uint32_t begin = start[v];
        const uint32_t count = start[v + 1] - begin;
        if (count == 0) continue;
        uf.resize(count);
        std::iota(uf.begin(), uf.end(), 0u);

        uint32_t usedBits = 0;
        for (uint32_t i = 0; i < count; ++i) {
            uint32_t bits = mesh.faces[corners[begin + i] / 3].smGroup;
            usedBits |= bits;
            while (bits) {
                const int b = std::countr_zero(bits);
                bits &= bits - 1;
                if (owner[b] < 0) {
                    owner[b] = static_cast<int>(i);
                } else {
                    const uint32_t ra = find(i), rb = find(static_cast<uint32_t>(owner[b]));
                    if (ra != rb) uf[ra] = rb;
                }
            }
        }
        while (usedBits) {
            owner[std::countr_zero(usedBits)] = -1;
            usedBits &= usedBits - 1;
        }

        // Sum each group's face normals (and their lengths) at its root.
        // groupNormal holds, per root, the pool index of the group's normal,
        // -1 before it is made, or -2 when the sum vanished and each corner
        // takes its own face normal.
        for (uint32_t i = 0; i < count; ++i) uf[i] = find(i);
        rootSum.assign(count, Point3());
        rootMag.assign(count, 0.0f);
        for (uint32_t i = 0; i < count; ++i) {
            const Point3& n = faceCross[corners[begin + i] / 3];
            rootSum[uf[i]] += n;
            rootMag[uf[i]] += Length(n);
        }
        groupNormal.assign(count, -1);

        for (uint32_t i = 0; i < count; ++i) {
            const uint32_t corner = corners[begin + i];
            const uint32_t f = corner / 3;
            const uint32_t root = uf[i];
            int& slot = groupNormal[root];
            if (slot == -1) {
                // Opposed faces cancel only up to rounding: treat a sum that
                // small as zero rather than normalising the noise.
                const Point3 n = Length(rootSum[root]) > 1e-5f * rootMag[root]
                                     ? safeNormalize(rootSum[root])
                                     : Point3();
                if (n != Point3()) {
                    slot = GetNumNormals();
                    normals_.push_back(n);
                } else {
                    slot = -2;
                }
            }
            if (slot >= 0) {
                faceIndices_[f][corner % 3] = slot;
            } else {
                faceIndices_[f][corner % 3] = GetNumNormals();
                normals_.push_back(faceNormal(f));
            }
        }
    }

    // Faces that could not be used share one upward normal.
    int upIndex = -1;
    for (size_t f = 0; f < numFaces; ++f) {
        if (faceOk[f]) continue;
        if (upIndex < 0) {
            upIndex = GetNumNormals();
            normals_.emplace_back(0.0f, 0.0f, 1.0f);
        }
        faceIndices_[f] = {upIndex, upIndex, upIndex};
    }
}

}  // namespace mq
