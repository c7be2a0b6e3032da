// An area-weighted cloud of points on the pattern mesh, for fitting the
// crop box without a full capture.
#pragma once

#include "host/math.h"
#include "host/mesh.h"

#include <array>
#include <cstdint>
#include <vector>

namespace mq {

class Object;

struct PatternPointCloud {
    static constexpr int kPointCount = 10000;
    bool valid = false;
    Box3 box;  // the object's own bounds at time 0
    // In the mesh's object space. Always kPointCount entries; all of them are
    // meaningful once valid.
    std::array<Point3, kPointCount> points{};
};

// Picks faces with probability proportional to their area.
class FaceDistributor {
public:
    // False (and an empty table) for a mesh without faces. A face's weight is
    // |(B - A) x (C - A)| in single precision, summed in double. Faces with a
    // vertex index out of range, or whose weight is not finite, weigh 0.
    bool build(const Mesh& mesh);
    // Face for u in [0, 1): the lowest i with u * total <= cumulative[i + 1],
    // so a value on a boundary goes to the lower face. Zero-weight faces are
    // never returned, except face 0 for u * total == 0. 0 when unbuilt.
    int pick(float u) const;
    void clear();

    int32_t faceCount = 0;
    std::vector<double> cumulative;  // faceCount + 1 entries, cumulative[0] = 0
    double total = 0.0;
};

// Fill the cloud from the mesh of a triangle object (a TriObject the caller
// has converted); box is the object's bounds at time 0. False, with the cloud
// marked not valid, for anything but a triangle object or a mesh without faces.
// The points are the same for the same mesh on every call and platform. A face
// with a vertex index out of range has all three corners on vertex 0 (on the
// origin when there are no vertices), as in the captured tile.
bool sample(PatternPointCloud& cloud, Object* triObject);

}  // namespace mq
