#include "render/surface_mapping.h"

#include "host/check.h"
#include "host/node.h"
#include "host/object.h"
#include "render/surface_analysis.h"

#include <algorithm>
#include <array>
#include <optional>
#include <string>
#include <utility>

namespace mq {

namespace {

// Turns every face over by swapping corners 1 and 2, in the geometry, in
// every map channel and in explicit normals alike.
void flipFaces(Mesh& mesh) {
    for (Face& face : mesh.faces) std::swap(face.v[1], face.v[2]);
    for (int channel = 0; channel < mesh.getNumMaps(); ++channel) {
        if (!mesh.mapSupport(channel)) continue;
        for (TVFace& tv : mesh.Map(channel).faces) std::swap(tv.t[1], tv.t[2]);
    }
    MeshNormalSpec* nspec = mesh.GetSpecifiedNormals();
    if (nspec && nspec->IsExplicit()) {
        std::vector<Point3> normals(nspec->GetNumNormals());
        for (int i = 0; i < nspec->GetNumNormals(); ++i) normals[i] = nspec->Normal(i);
        std::vector<std::array<int, 3>> corners(nspec->GetNumFaces());
        for (int f = 0; f < nspec->GetNumFaces(); ++f) {
            corners[f] = {nspec->GetNormalIndex(f, 0), nspec->GetNormalIndex(f, 2),
                          nspec->GetNormalIndex(f, 1)};
        }
        nspec->SetNormals(std::move(normals), std::move(corners));
    }
}

// One prism: bottom corners 0..2 in the face's corner order, top corners
// 3..5 above them, in world and tile space.
struct Prism {
    Point3 xyzP[6];
    Point3 uvwP[6];
};

}  // namespace

bool surfaceWorldMesh(Node::Handle surface, TimeValue t, Mesh& mesh, std::string* why) {
    auto fail = [why](std::string text) {
        if (why) *why = std::move(text);
        return false;
    };
    // The one setting evaluated at the frame time.
    Node* node = surface ? Node::fromHandle(surface) : nullptr;
    if (!node) return fail("no \"Surface\" node is set");
    const std::string what = "\"Surface\" node \"" + node->GetName() + "\"";
    const ObjectState state = node->EvalWorldState(t, true);
    if (!state.obj) return fail(what + " has no object");
    std::optional<Mesh> copy = meshOfObject(state.obj, t);
    if (!copy) return fail(what + " has no mesh");
    if (copy->getNumFaces() == 0) return fail(what + " has a mesh without faces");
    mesh = std::move(*copy);

    const Matrix3 objectToWorld = node->GetObjectTM(t);
    for (Point3& p : mesh.verts) p = p * objectToWorld;
    // Explicit normals follow the surface; computed ones are redone from the
    // world mesh when the normals are checked.
    MeshNormalSpec* nspec = mesh.GetSpecifiedNormals();
    if (nspec && nspec->IsExplicit()) {
        const Matrix3 normalToWorld = Transpose3(Inverse(objectToWorld));
        for (int i = 0; i < nspec->GetNumNormals(); ++i) {
            nspec->Normal(i) = Normalize(normalToWorld.VectorTransform(nspec->Normal(i)));
        }
    }
    if (objectToWorld.Determinant() < 0.0f) flipFaces(mesh);
    return true;
}

bool SurfaceMapping::build(const SurfaceMappingSettings& settings, const PatternTile& tile,
                           TimeValue t, std::vector<MosaiqPrimitive>& primitives) {
    primitiveCount = 0;
    stats = {};
    problem.clear();
    Mesh mesh;
    if (!surfaceWorldMesh(settings.surface, t, mesh, &problem)) return false;
    return buildFromMesh(mesh, tile, settings, primitives);
}

bool SurfaceMapping::buildFromMesh(Mesh& worldMesh, const PatternTile& tile,
                                   const SurfaceMappingSettings& settings,
                                   std::vector<MosaiqPrimitive>& primitives) {
    MQ_ASSERT(tile.tree, "a surface is mapped onto a tile that was never built");
    primitiveCount = 0;
    stats = {};
    problem.clear();
    const int numFaces = worldMesh.getNumFaces();
    if (numFaces == 0) {
        problem = "the surface has no faces";
        return false;
    }
    const int channel = settings.mapChannel;
    if (channel < 0 || channel >= worldMesh.getNumMaps() || !worldMesh.mapSupport(channel)) {
        problem = "the surface has no map channel " + std::to_string(channel);
        return false;
    }

    // Poli_ID counts from 1 for the user, material ids from 0 in the mesh.
    const int idFrom = settings.poliIdFrom - 1;
    const int idTo = settings.poliIdTo - 1;
    auto inRange = [&](const Face& face) {
        const int id = face.getMatID();
        return id >= idFrom && id <= idTo;
    };
    const int32_t facesInRange =
        int32_t(std::count_if(worldMesh.faces.begin(), worldMesh.faces.end(), inRange));
    // The most one face can give; filled in place, never grown per piece.
    primitives.resize(size_t(facesInRange) * 3);

    const Point3 size = tile.cropSize;
    const float heightWorld = settings.height * (size.z * 2.0f) * 0.01f;
    tilingU = settings.tilingU;
    tilingV = settings.tilingV;
    if (settings.realWorldScale) {
        tilingU = 1.0f / tilingU;
        tilingV = 1.0f / tilingV;
    }

    surfDist dist;
    const Point3 tilePeriod(2.0f * size.x * tilingU, 2.0f * size.y * tilingV, 0.0f);
    if (!dist.build(worldMesh, settings.mapChannel, tilePeriod)) {
        problem =
            "the surface's map channel " + std::to_string(channel) + " does not cover its faces";
        return false;
    }

    // The analysis has checked the normals and every index used below.
    const float shift = settings.shift;
    const Point3* mapVerts = worldMesh.mapVerts(settings.mapChannel);
    const TVFace* mapFaces = worldMesh.mapFaces(settings.mapChannel);
    const MeshNormalSpec& normals = *dist.normals;

    float stretchMin = 0.0f, stretchMax = 0.0f;
    bool anyCorner = false;
    Prism prism;
    for (int f = 0; f < numFaces; ++f) {
        const Face& face = worldMesh.faces[f];
        if (!inRange(face)) continue;

        // The prism over the face, along the vertex normals scaled by the
        // local stretch, and over its UVs.
        for (int k = 0; k < 3; ++k) {
            const int ni = normals.GetNormalIndex(f, k);
            const Point3& n = normals.Normal(ni);
            const float w = dist.normalScale[ni];
            prism.xyzP[k] = worldMesh.verts[face.v[k]] - n * shift * w;
            prism.xyzP[k + 3] = prism.xyzP[k] + n * heightWorld * w;
            const Point3& uv = mapVerts[mapFaces[f].t[k]];
            prism.uvwP[k] = Point3(uv.x * tilingU * size.x, uv.y * tilingV * size.y, 0.0f);
            prism.uvwP[k + 3] = Point3(prism.uvwP[k].x, prism.uvwP[k].y, size.z);
            if (!anyCorner) stretchMin = stretchMax = w;
            anyCorner = true;
            stretchMin = std::min(stretchMin, w);
            stretchMax = std::max(stretchMax, w);
        }

        // Vertical direction per prism corner. The fourth entry is read only
        // when no k qualifies below, where corner index 3 (top corner 0)
        // serves as a base corner: it stands over bottom corner 0.
        Point3 nrm[4];
        for (int k = 0; k < 3; ++k) nrm[k] = Normalize(prism.xyzP[k + 3] - prism.xyzP[k]);
        nrm[3] = nrm[0];

        // The cut: base corner k is where the face's flags turn from set
        // (edge k2, into k) to clear (edge k, out of k).
        const uint8_t* e = dist.faces[f].edge;
        int k = 0, k1 = 0, k2 = 0, tk = 0, tk1 = 0, tk2 = 0;
        for (k = 0; k < 3; ++k) {
            k1 = (k + 1) % 3;
            k2 = (k + 2) % 3;
            tk = k + 3;
            tk1 = k1 + 3;
            tk2 = k2 + 3;
            if (e[k2] && !e[k]) break;
        }
        // No k qualifies only for three equal flags: k is then 3 and k1, k2,
        // tk, tk1, tk2 stay from the last pass (0, 1, 5, 3, 4). The pieces
        // are degenerate and the initialiser drops what it can't use; kept
        // so, every index stays within the six prism corners.
        // Tetrahedra as prism corner indices, and the base corner whose
        // direction each of their corners takes.
        const int corner[3][4] = {
            {k, tk1, tk2, tk}, {k, k1, e[k1] ? k2 : tk2, tk1}, {k, e[k1] ? tk1 : k1, k2, tk2}};
        const int dir[3][4] = {{k, k1, k2, k}, {k, k1, k2, k1}, {k, k1, k2, k2}};

        const int32_t faceValue = dist.faceValue(f);
        for (int tet = 0; tet < 3; ++tet) {
            Point3 xyz[4], uvw[4], dirs[4];
            for (int c = 0; c < 4; ++c) {
                xyz[c] = prism.xyzP[corner[tet][c]];
                uvw[c] = prism.uvwP[corner[tet][c]];
                dirs[c] = nrm[dir[tet][c]];
            }
            // A rejected piece leaves its slot to the next one.
            MosaiqPrimitive& piece = primitives[primitiveCount];
            piece.tile = &tile;
            if (piece.init(xyz, uvw, dirs, dirs[3], faceValue)) ++primitiveCount;
        }
    }

    if (facesInRange == 0) {
        problem = "no surface face has a material id in the \"Poli_ID\" range " +
                  std::to_string(settings.poliIdFrom) + " to " + std::to_string(settings.poliIdTo);
    } else if (primitiveCount == 0) {
        problem = "every piece over the surface is degenerate";
    }
    stats.facesInRange = facesInRange;
    stats.piecesBuilt = primitiveCount;
    stats.piecesDropped = facesInRange * 3 - primitiveCount;
    stats.islands = dist.islandCount();
    stats.stretchMin = stretchMin;
    stats.stretchMax = stretchMax;
    dist.release();
    return true;
}

}  // namespace mq
