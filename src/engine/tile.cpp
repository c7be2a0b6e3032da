// Pattern capture: the pattern mesh (a scene node's, or the first mesh of a
// merged file) carried into tile space, with per-face intersection data and
// the octree over the faces.
#include "engine/tile.h"

#include "engine/octree.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace mq {

namespace {

// Stand-ins for references a broken mesh cannot supply.
const Point3 kCollapsedCorner{0.0f, 0.0f, 0.0f};
const Point3 kFallbackNormal{0.0f, 0.0f, 1.0f};
const Point3 kZeroUVW{0.0f, 0.0f, 0.0f};

}  // namespace

void precomputeFace(PatternFace& face) {
    const Point3& a = *face.vertex[0];
    const Point3& b = *face.vertex[1];
    const Point3& c = *face.vertex[2];
    const Point3 e1 = b - a;
    const Point3 e2 = c - a;
    const Point3 n = CrossProd(e1, e2);
    const float length = Length(n);
    if (length <= 0.0f) {
        // Degenerate: the zero normal makes every ray test fail.
        face.faceNormal = n;
        return;
    }
    face.faceNormal = n / length;
    face.centre = (a + b + c) / 3.0f;
    face.planeDistance = DotProd(face.centre, face.faceNormal);

    // Project along the largest normal component; ties fall to the later choice.
    const float ax = std::fabs(face.faceNormal.x);
    const float ay = std::fabs(face.faceNormal.y);
    const float az = std::fabs(face.faceNormal.z);
    if (az > ax && az > ay) {
        face.axisU = 0;
        face.axisV = 1;
    } else if (ax > ay) {
        face.axisU = 1;
        face.axisV = 2;
    } else {
        face.axisU = 2;
        face.axisV = 0;
    }

    face.originU = a[face.axisU];
    face.originV = a[face.axisV];
    face.edgeU1 = b[face.axisU] - face.originU;
    face.edgeV1 = b[face.axisV] - face.originV;
    face.edgeU2 = c[face.axisU] - face.originU;
    face.edgeV2 = c[face.axisV] - face.originV;
    const float det = face.edgeU1 * face.edgeV2 - face.edgeU2 * face.edgeV1;
    face.edgeU1 /= det;
    face.edgeV1 /= det;
    face.edgeU2 /= det;
    face.edgeV2 /= det;
}

PatternTile::PatternTile() = default;

PatternTile::~PatternTile() { release(); }

void PatternTile::release() {
    // The tree first: its leaves refer to the faces.
    tree.reset();
    faces = {};
    vertices = {};
    normals = {};
    for (int channel = 0; channel < MAX_MESHMAPS; ++channel) {
        mapFaces[channel] = {};
        mapVertices[channel] = {};
    }
    faceCount = 0;
    vertexCount = 0;
    built = false;
}

bool PatternTile::capture(PatternMesh& pattern, const CropBox& crop, std::string& why) {
    if (built) return true;
    Matrix3 toTile;
    if (pattern.fromScene) {
        // The stored crop box is relative to the pattern node's position.
        Matrix3 box = crop.transform;
        box.SetTrans(box.GetTrans() + pattern.nodeTM.GetTrans());
        toTile = pattern.nodeTM * Inverse(box);
    } else {
        // A file pattern stays in its own object space: its node transform
        // is ignored on purpose.
        toTile = Inverse(crop.transform);
    }
    try {
        build(pattern.mesh, toTile, crop.size, crop.segmentCountU, crop.segmentCountV);
    } catch (const OctreeTooLarge& e) {
        why = e.what();
        return false;
    }
    built = true;
    return true;
}

bool capturePattern(PatternTile& tile, const PatternSource& source, const CropBox& crop,
                    TimeValue t, std::string& why) {
    if (tile.built) return true;
    PatternMesh pattern;
    return takePatternMesh(source, t, pattern, why) && tile.capture(pattern, crop, why);
}

void PatternTile::build(Mesh& mesh, const Matrix3& toTileIn, const Point3& cropSize_, int segU,
                        int segV, const OctreeLimits& limits) {
    release();
    cropSize = cropSize_;
    segmentCountU = segU;
    segmentCountV = segV;

    // Move the crop box's centre to cropSize / 2: the box becomes (0,0,0)..cropSize.
    Matrix3 toTile = toTileIn;
    toTile.SetTrans(toTile.GetTrans() + cropSize * 0.5f);
    const bool mirrored = DotProd(CrossProd(toTile[0], toTile[1]), toTile[2]) < 0.0f;
    // Applied as a vector transform only: the translation row never matters.
    const Matrix3 normalMatrix = Transpose3(Inverse(toTile));

    vertexCount = mesh.getNumVerts();
    vertices.resize(vertexCount);
    for (int i = 0; i < vertexCount; ++i) vertices[i] = mesh.verts[i] * toTile;

    mesh.SpecifyNormals();
    MeshNormalSpec* normalSpec = mesh.GetSpecifiedNormals();
    normalSpec->SetParent(&mesh);
    normalSpec->CheckNormals();
    const int normalCount = normalSpec->GetNumNormals();
    normals.resize(normalCount);
    for (int i = 0; i < normalCount; ++i) {
        const Point3 n = Normalize(normalMatrix.VectorTransform(normalSpec->Normal(i)));
        // Mirroring turns the geometric normals (which follow the unchanged
        // winding) around; the shading normals turn with them.
        normals[i] = mirrored ? -n : n;
    }

    faceCount = mesh.getNumFaces();
    faces.assign(faceCount, PatternFace{});
    const int normalFaces = normalSpec->GetNumFaces();
    const uint32_t vertexLimit = static_cast<uint32_t>(vertexCount);
    for (int f = 0; f < faceCount; ++f) {
        const Face& meshFace = mesh.faces[f];
        PatternFace& face = faces[f];
        const bool inRange = meshFace.v[0] < vertexLimit && meshFace.v[1] < vertexLimit &&
                             meshFace.v[2] < vertexLimit;
        const Point3* collapsed = vertexCount > 0 ? &vertices[0] : &kCollapsedCorner;
        for (int c = 0; c < 3; ++c) {
            face.vertex[c] = inRange ? &vertices[meshFace.v[c]] : collapsed;
            const int n = f < normalFaces ? normalSpec->GetNormalIndex(f, c) : -1;
            face.normal[c] = n >= 0 && n < normalCount ? &normals[n] : &kFallbackNormal;
        }
        face.materialId = meshFace.flags >> 16;
        face.faceIndex = f;
        precomputeFace(face);
    }

    // Tree bounds: the whole crop box, grown by these two odd factors (the
    // second step measured with the grown max). Kept exactly, so saved scenes
    // hit the same leaves and render the same.
    Point3 boundsMin(0.0f, 0.0f, 0.0f);
    Point3 boundsMax = cropSize;
    boundsMax += (boundsMax - boundsMin) * 0.012345679f;
    boundsMin -= (boundsMax - boundsMin) * 0.0023456789f;

    std::vector<const PatternFace*> all(faceCount);
    for (int f = 0; f < faceCount; ++f) all[f] = &faces[f];
    OctreeBuild octreeBuild;
    octreeBuild.threadLimit =
        limits.threadLimit < 0 ? defaultBuildThreadLimit() : limits.threadLimit;
    octreeBuild.memoryBudget = limits.memoryBudget < 0 ? octreeMemoryBudget() : limits.memoryBudget;
    octreeBuild.faceCount = faceCount;
    try {
        tree = std::make_unique<PatternOctreeNode>(Box3(boundsMin, boundsMax), std::move(all), 0, 0,
                                                   octreeBuild);
    } catch (...) {
        release();
        throw;
    }
    linkNeighbours(tree.get());

    // Every channel the mesh supports, with each face's three corners.
    const int channels = std::min(mesh.getNumMaps(), MAX_MESHMAPS);
    for (int channel = 0; channel < channels; ++channel) {
        if (!mesh.mapSupport(channel)) continue;
        const MeshMap& map = mesh.Map(channel);
        std::vector<Point3>& uvw = mapVertices[channel];
        uvw = map.verts;
        std::vector<std::array<const Point3*, 3>>& corners = mapFaces[channel];
        corners.resize(faceCount);
        for (int f = 0; f < faceCount; ++f) {
            for (int c = 0; c < 3; ++c) {
                const size_t i = static_cast<size_t>(f) < map.faces.size()
                                     ? map.faces[f].t[c]
                                     : static_cast<size_t>(-1);
                corners[f][c] = i < uvw.size() ? &uvw[i] : &kZeroUVW;
            }
        }
    }

    segmentSize =
        cropSize * Point3(1.0f / static_cast<float>(segU), 1.0f / static_cast<float>(segV), 1.0f);
}

std::array<int32_t, 6> facesOnCropFaces(const PatternTile& tile) {
    std::array<int32_t, 6> counts{};
    for (const PatternFace& face : tile.faces) {
        for (int axis = 0; axis < 3; ++axis) {
            const float size = tile.cropSize[axis];
            const float tolerance = 1e-6f * std::fabs(size);
            for (int high = 0; high < 2; ++high) {
                const float plane = high ? size : 0.0f;
                bool on = true;
                for (int c = 0; c < 3 && on; ++c)
                    on = std::fabs((*face.vertex[c])[axis] - plane) <= tolerance;
                if (on) ++counts[size_t(2 * axis + high)];
            }
        }
    }
    return counts;
}

const char* cropFaceName(int side) {
    static const char* const kNames[6] = {"left", "right", "front", "back", "bottom", "top"};
    return side >= 0 && side < 6 ? kNames[side] : "?";
}

std::string cropFaceWarning(const std::array<int32_t, 6>& counts) {
    // Only the bottom and top: faces in the sides are walls seen edge-on
    // where tiles meet, and rounding there shows nothing.
    const int32_t bottom = counts[4], top = counts[5];
    if (bottom + top == 0) return {};
    std::string where;
    if (top) where = std::to_string(top) + " in its top";
    if (bottom) where += (where.empty() ? "" : ", ") + std::to_string(bottom) + " in its bottom";
    const int32_t total = bottom + top;
    return std::to_string(total) + (total == 1 ? " pattern face lies" : " pattern faces lie") +
           " exactly in a face of the crop box (" + where +
           "): on curved surfaces they show holes along the surface's triangles";
}

}  // namespace mq
