// Analysis of the surface mesh before the surface mapping builds its prisms:
// a stretch factor per mesh normal, three edge flags per face that choose how
// the face's prism is cut (so neighbouring prisms share their diagonals), and
// the UV island of each face.
#pragma once

#include "host/math.h"
#include "host/mesh.h"

#include <array>
#include <cstdint>
#include <vector>

namespace mq {

// Built once per frame from the world-space surface mesh and released after
// use. Not thread-safe while building; read-only afterwards.
struct surfDist {
    // Passes of the cycle-breaking step before it gives up. An edge shared
    // by three or more faces can make the pass flip the same flags for ever;
    // this guard only stops such meshes, which keep flags as they stand.
    static constexpr int kMaxCycleBreakingPasses = 10000;

    struct FaceRecord {
        uint32_t v[3] = {0, 0, 0};
        // Flag k belongs to the edge from corner k to corner (k + 1) mod 3;
        // 0 or 1. Shared edges of a consistently oriented mesh carry
        // complementary flags.
        uint8_t edge[3] = {0, 0, 0};
    };

    int32_t vertexCount = 0;
    int32_t faceCount = 0;
    // Per vertex, the faces using it, flat: vertex v's faces are
    // vertexFaces[vertexFaceStart[v] .. vertexFaceStart[v + 1]), from the
    // highest face index to the lowest (a face using a vertex twice is there
    // twice).
    std::vector<int32_t> vertexFaceStart;
    std::vector<int32_t> vertexFaces;
    std::vector<FaceRecord> faces;
    // The mesh's specified normals, made present and checked by build; owned
    // by the mesh, which must outlive every read of normalScale through it.
    const MeshNormalSpec* normals = nullptr;
    // Per face: 1 when its UV edges span an area (its scale was measured).
    std::vector<uint8_t> faceValid;
    // Per normal: the factor w applied to Shift and height along it, the
    // mean scale of the face corners using it. Unmeasured faces count as 0;
    // a normal used by no corner gets 0.
    std::vector<float> normalScale;
    // Per map vertex: the smallest map-vertex index of its UV island.
    std::vector<int32_t> islandLabel;
    // Per face: its three map vertices, i.e. indices into islandLabel.
    std::vector<std::array<int32_t, 3>> faceLabels;
    // Cycle-breaking passes of the last build (the last one changed nothing
    // unless the guard stopped it), and whether the guard stopped it.
    int32_t cycleBreakingPasses = 0;
    bool cycleBreakingCapped = false;

    // Analyse mesh on mapChannel with the tile period (U, V, unused) that
    // scales UV edges into tile units. Makes the mesh's normals specified and
    // checked. False, with nothing built, when the channel is out of range or
    // not supported, or when the mesh's vertex or map indices do not fit it
    // (a guard: such a mesh could not be read safely).
    bool build(Mesh& mesh, int mapChannel, const Point3& tilePeriod);
    // Frees every array; the structure can be built again.
    void release();

    // The seed of every piece of face f: the island label of its first map vertex.
    int32_t faceValue(int f) const { return islandLabel[faceLabels[f][0]]; }
    // The face across edge k of face f: the first face in the walk of corner
    // k's vertex, other than f, that also uses corner (k + 1)'s vertex; -1
    // when none.
    int32_t neighbour(int f, int k) const;
    // Number of distinct island labels over all faces.
    int32_t islandCount() const;

private:
    // Corner of face g holding vertex v (the first such corner); -1 when none.
    int cornerOf(int g, uint32_t v) const;
};

}  // namespace mq
