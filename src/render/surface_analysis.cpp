#include "render/surface_analysis.h"

#include <algorithm>
#include <cmath>

namespace mq {

namespace {

// Cross products no longer than this count as degenerate, in world and UV alike.
constexpr float kMinCrossLength = 1e-30f;

}  // namespace

void surfDist::release() {
    vertexCount = 0;
    faceCount = 0;
    vertexFaceStart = {};
    vertexFaces = {};
    faces = {};
    normals = nullptr;
    faceValid = {};
    normalScale = {};
    islandLabel = {};
    faceLabels = {};
    cycleBreakingPasses = 0;
    cycleBreakingCapped = false;
}

// Callers pass a vertex of g's (g came from that vertex's face list), so the
// result is never -1 there.
int surfDist::cornerOf(int g, uint32_t v) const {
    const FaceRecord& face = faces[g];
    for (int j = 0; j < 3; ++j) {
        if (face.v[j] == v) return j;
    }
    return -1;
}

int32_t surfDist::neighbour(int f, int k) const {
    const FaceRecord& face = faces[f];
    const uint32_t a = face.v[k];
    const uint32_t b = face.v[(k + 1) % 3];
    for (int32_t i = vertexFaceStart[a], end = vertexFaceStart[a + 1]; i < end; ++i) {
        const int32_t g = vertexFaces[i];
        if (g == f) continue;
        const uint32_t* gv = faces[g].v;
        if (gv[0] == b || gv[1] == b || gv[2] == b) return g;
    }
    return -1;
}

int32_t surfDist::islandCount() const {
    std::vector<uint8_t> seen(islandLabel.size(), 0);
    int32_t count = 0;
    for (int f = 0; f < faceCount; ++f) {
        const int32_t label = faceValue(f);
        if (!seen[label]) {
            seen[label] = 1;
            ++count;
        }
    }
    return count;
}

bool surfDist::build(Mesh& mesh, int mapChannel, const Point3& tilePeriod) {
    release();

    // The map channel must exist and be supported.
    if (mapChannel < 0 || mapChannel >= mesh.getNumMaps() || !mesh.mapSupport(mapChannel))
        return false;
    const int numVerts = mesh.getNumVerts();
    const int numFaces = mesh.getNumFaces();
    const MeshMap& map = mesh.Map(mapChannel);
    const size_t numMapVerts = map.verts.size();
    // Guard: every index must fit, or nothing below could read the mesh safely.
    if (map.faces.size() < size_t(numFaces)) return false;
    for (int f = 0; f < numFaces; ++f) {
        for (int c = 0; c < 3; ++c) {
            if (mesh.faces[f].v[c] >= uint32_t(numVerts) || map.faces[f].t[c] >= numMapVerts)
                return false;
        }
    }

    // Empty face lists.
    vertexCount = numVerts;
    vertexFaceStart.assign(size_t(numVerts) + 1, 0);

    // Face records with alternating starting flags, and the vertex face
    // lists, highest face first as head insertion into linked lists gives.
    faceCount = numFaces;
    faces.resize(numFaces);
    for (int f = 0; f < numFaces; ++f) {
        FaceRecord& rec = faces[f];
        for (int k = 0; k < 3; ++k) {
            rec.v[k] = mesh.faces[f].v[k];
            rec.edge[k] = (f + k) % 2 == 0 ? 1 : 0;
            ++vertexFaceStart[rec.v[k] + 1];
        }
    }
    for (int v = 0; v < numVerts; ++v) vertexFaceStart[v + 1] += vertexFaceStart[v];
    vertexFaces.resize(size_t(numFaces) * 3);
    {
        std::vector<int32_t> cursor(vertexFaceStart.begin(), vertexFaceStart.end() - 1);
        for (int f = numFaces - 1; f >= 0; --f) {
            for (int k = 0; k < 3; ++k) vertexFaces[cursor[faces[f].v[k]]++] = f;
        }
    }

    // Normals present and checked: every face corner has a normal index.
    mesh.SpecifyNormals();
    MeshNormalSpec* nspec = mesh.GetSpecifiedNormals();
    nspec->CheckNormals();
    normals = nspec;

    // Scale per face: the geometric mean of how far UV (in tile units)
    // stretches into world along the UV frame's two axes.
    std::vector<float> faceScale(numFaces, 0.0f);
    faceValid.assign(numFaces, 0);
    for (int f = 0; f < numFaces; ++f) {
        const FaceRecord& rec = faces[f];
        const Point3& p0 = mesh.verts[rec.v[0]];
        const Point3 e1 = mesh.verts[rec.v[1]] - p0;
        const Point3 e2 = mesh.verts[rec.v[2]] - p0;
        const Point3 n = CrossProd(e1, e2);
        // A degenerate world triangle has no frame of its own; its scale stays 0.
        const bool worldValid = Length(n) > kMinCrossLength;

        const TVFace& tv = map.faces[f];
        const Point3& uv0 = map.verts[tv.t[0]];
        const Point3 t1 = (map.verts[tv.t[1]] - uv0) * tilePeriod;
        const Point3 t2 = (map.verts[tv.t[2]] - uv0) * tilePeriod;
        faceValid[f] = Length(CrossProd(t1, t2)) > kMinCrossLength ? 1 : 0;

        if (faceValid[f] && worldValid) {
            const Matrix3 worldFrame(e1, e2, Normalize(n), Point3());
            const Matrix3 uvFrame(t1, t2, Point3(0.0f, 0.0f, 1.0f), Point3());
            // Carries t1 to e1 and t2 to e2.
            const Matrix3 r = Inverse(uvFrame) * worldFrame;
            faceScale[f] =
                std::sqrt(std::sqrt(LengthSquared(r.GetRow(0)) * LengthSquared(r.GetRow(1))));
        }
    }

    // Per normal, the mean scale of the face corners that use it.
    const int numNormals = nspec->GetNumNormals();
    normalScale.assign(numNormals, 0.0f);
    {
        std::vector<int32_t> cornerCount(numNormals, 0);
        for (int f = 0; f < numFaces; ++f) {
            for (int c = 0; c < 3; ++c) {
                const int n = nspec->GetNormalIndex(f, c);
                normalScale[n] += faceScale[f];
                ++cornerCount[n];
            }
        }
        for (int n = 0; n < numNormals; ++n) {
            normalScale[n] = cornerCount[n] > 0 ? normalScale[n] / float(cornerCount[n]) : 0.0f;
        }
    }

    // Neighbour pass: each face makes its neighbours' flags on shared
    // edges complementary to its own. Later faces overwrite earlier ones.
    for (int f = 0; f < numFaces; ++f) {
        for (int k = 0; k < 3; ++k) {
            const int32_t g = neighbour(f, k);
            if (g < 0) continue;
            const uint32_t a = faces[f].v[k];
            const uint32_t b = faces[f].v[(k + 1) % 3];
            const uint32_t first = faces[f].edge[k] == 0 ? a : b;
            const uint32_t second = faces[f].edge[k] == 0 ? b : a;
            const int j = cornerOf(g, first);
            if (faces[g].v[(j + 1) % 3] == second) {
                faces[g].edge[j] = 0;
            } else {
                faces[g].edge[(j + 2) % 3] = 1;
            }
        }
    }

    // Cycle breaking: a face with three equal flags can't be cut to match
    // its neighbours; flip a random edge of it on both sides until no face
    // needs a neighbour flip. One draw per face per pass, used or not.
    RandGenerator rng;
    rng.srand(1111);
    for (bool changed = true; changed;) {
        if (cycleBreakingPasses == kMaxCycleBreakingPasses) {
            cycleBreakingCapped = true;
            break;
        }
        ++cycleBreakingPasses;
        changed = false;
        for (int f = 0; f < numFaces; ++f) {
            const int r = rng.Rand0X(3);
            FaceRecord& rec = faces[f];
            if (rec.edge[0] != rec.edge[1] || rec.edge[1] != rec.edge[2]) continue;
            const int k = r % 3;
            rec.edge[k] ^= 1;
            const int32_t g = neighbour(f, k);
            if (g < 0) continue;  // a border edge: nothing to keep in step
            const int j = cornerOf(g, rec.v[k]);
            if (faces[g].v[(j + 1) % 3] == rec.v[(k + 1) % 3]) {
                faces[g].edge[j] ^= 1;
            } else {
                faces[g].edge[(j + 2) % 3] ^= 1;
            }
            changed = true;
        }
    }

    // Island labels: each map vertex ends with the smallest map-vertex
    // index connected to it through faces.
    islandLabel.resize(numMapVerts);
    for (size_t i = 0; i < numMapVerts; ++i) islandLabel[i] = int32_t(i);
    faceLabels.resize(numFaces);
    for (int f = 0; f < numFaces; ++f) {
        for (int c = 0; c < 3; ++c) faceLabels[f][c] = int32_t(map.faces[f].t[c]);
    }
    for (bool changed = true; changed;) {
        changed = false;
        for (int f = 0; f < numFaces; ++f) {
            const std::array<int32_t, 3>& refs = faceLabels[f];
            const int32_t m = std::min(islandLabel[refs[0]],
                                       std::min(islandLabel[refs[1]], islandLabel[refs[2]]));
            for (int c = 0; c < 3; ++c) {
                if (islandLabel[refs[c]] > m) {
                    islandLabel[refs[c]] = m;
                    changed = true;
                }
            }
        }
    }

    return true;
}

}  // namespace mq
