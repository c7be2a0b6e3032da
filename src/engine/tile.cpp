// Pattern capture: the pattern mesh (a scene node's, or the first mesh of a
// merged file) carried into tile space, with per-face intersection data and
// the octree over the faces.
#include "engine/tile.h"

#include "engine/octree.h"
#include "host/interface.h"
#include "host/node.h"
#include "host/object.h"
#include "host/paramblock.h"
#include "plugin/params.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <exception>
#include <string>

namespace mq {

namespace {

// Channels copied from the pattern's mesh: topology, geometry, all maps,
// material ids, selections, display data and the specified normals.
constexpr uint32_t kCaptureChannels = 0x23FF;

// Stand-ins for references a broken mesh cannot supply.
const Point3 kCollapsedCorner{0.0f, 0.0f, 0.0f};
const Point3 kFallbackNormal{0.0f, 0.0f, 1.0f};
const Point3 kZeroUVW{0.0f, 0.0f, 0.0f};

// The mesh of the "Pattern" node and its object transform at t.
bool sceneMesh(ParamBlock& pblock, TimeValue t, Mesh& mesh, Matrix3& nodeTM) {
    Node* node = pblock.GetINode(mosaiq::kPattern, 0);
    if (!node) return false;
    const ObjectState state = node->EvalWorldState(t, true);
    if (!state.obj) return false;
    nodeTM = node->GetObjectTM(t);
    if (!copyTriangleMesh(state.obj, t, mesh, kCaptureChannels)) return false;
    return mesh.getNumFaces() > 0;
}

// Merges "Pattern_File", takes the mesh of the first top-level node that
// converts, and deletes every merged node again. A file mesh may have no faces.
bool fileMesh(ParamBlock& pblock, Mesh& mesh) {
    HostInterface* ip = GetCOREInterface();
    if (!ip) return false;
    const std::string path = ip->ResolveAssetPath(pblock.GetStr(mosaiq::kPatternFile, 0));
    if (!ip->DoesFileExist(path)) return false;
    Node* root = ip->GetRootNode();
    if (!root) return false;
    const int rootChildCount = root->NumberOfChildren();
    if (!ip->MergeFromFile(path, true, false, false, MERGE_DUPS_RENAME, nullptr,
                           MERGE_DUP_MTL_RENAME, MERGE_REPARENT_ALWAYS))
        return false;

    // Child rootChildCount is always the first merged node left; a deleted
    // node's children move up under the root and are visited in turn.
    bool taken = false;
    std::exception_ptr error;
    while (root->NumberOfChildren() > rootChildCount) {
        Node* child = root->GetChildNode(rootChildCount);
        if (!taken && !error) {
            try {
                const ObjectState state = child->EvalWorldState(0, true);
                taken = copyTriangleMesh(state.obj, 0, mesh, kCaptureChannels);
            } catch (...) {
                error = std::current_exception();  // still clean up the merge
            }
        }
        ip->DeleteNode(child, false);
        // A host that refused the deletion would keep us here for ever.
        if (root->NumberOfChildren() > rootChildCount &&
            root->GetChildNode(rootChildCount) == child)
            break;
    }
    if (error) std::rethrow_exception(error);
    return taken;
}

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

bool PatternTile::capture(ParamBlock* pblock, TimeValue t) {
    if (built) return true;
    failure.clear();
    if (!pblock) return false;
    try {
        Mesh mesh;
        Matrix3 nodeTM;
        const bool fromScene = pblock->GetInt(mosaiq::kPatternSource, 0) == mosaiq::kSourceScene;
        if (fromScene ? !sceneMesh(*pblock, t, mesh, nodeTM) : !fileMesh(*pblock, mesh))
            return false;

        const Point3 size(pblock->GetFloat(mosaiq::kCropSize, 0, 0),
                          pblock->GetFloat(mosaiq::kCropSize, 0, 1),
                          pblock->GetFloat(mosaiq::kCropSize, 0, 2));
        const int segU = pblock->GetInt(mosaiq::kRandomSegmentCount, 0, 0);
        const int segV = pblock->GetInt(mosaiq::kRandomSegmentCount, 0, 1);
        Matrix3 crop = pblock->GetMatrix3(mosaiq::kCropTransform, 0);

        Matrix3 toTile;
        if (fromScene) {
            // The stored crop box is relative to the pattern node's position.
            crop.SetTrans(crop.GetTrans() + nodeTM.GetTrans());
            toTile = nodeTM * Inverse(crop);
        } else {
            // A file pattern stays in its own object space: its node
            // transform is ignored on purpose.
            toTile = Inverse(crop);
        }
        build(mesh, toTile, size, segU, segV);
        built = true;
        return true;
    } catch (const OctreeTooLarge& e) {
        release();
        failure = e.what();
        return false;
    } catch (...) {
        release();
        return false;
    }
}

void PatternTile::build(Mesh& mesh, const Matrix3& toTileIn, const Point3& cropSize_, int segU,
                        int segV, int threadLimit) {
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
    octreeBuild.threadLimit = threadLimit < 0 ? defaultBuildThreadLimit() : threadLimit;
    octreeBuild.nodeLimit = OctreeBuild::nodeLimitFor(faceCount);
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

}  // namespace mq
