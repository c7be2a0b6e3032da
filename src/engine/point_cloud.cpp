// Area-weighted point sampling of the pattern mesh: a face is chosen with
// probability proportional to its area, then a uniform point on it.
#include "engine/point_cloud.h"

#include "host/object.h"

#include <cmath>

namespace mq {

namespace {

constexpr uint32_t kCloudSeed = 123456;

// The three corners of face f. A face naming a vertex out of range collapses
// onto vertex 0 (the origin without vertices), so it has no area.
void faceCorners(const Mesh& mesh, int f, Point3& a, Point3& b, Point3& c) {
    const Face& face = mesh.faces[f];
    const uint32_t vertexCount = static_cast<uint32_t>(mesh.verts.size());
    if (face.v[0] < vertexCount && face.v[1] < vertexCount && face.v[2] < vertexCount) {
        a = mesh.verts[face.v[0]];
        b = mesh.verts[face.v[1]];
        c = mesh.verts[face.v[2]];
        return;
    }
    a = b = c = vertexCount > 0 ? mesh.verts[0] : Point3();
}

}  // namespace

bool FaceDistributor::build(const Mesh& mesh) {
    clear();
    if (mesh.getNumFaces() == 0) return false;
    faceCount = mesh.getNumFaces();
    cumulative.resize(static_cast<size_t>(faceCount) + 1);
    cumulative[0] = 0.0;
    for (int f = 0; f < faceCount; ++f) {
        Point3 a, b, c;
        faceCorners(mesh, f, a, b, c);
        // Twice the area, in single precision; only the sum is double.
        const float weight = Length(CrossProd(b - a, c - a));
        // A non-finite weight would make every later pick meaningless.
        const double w = std::isfinite(weight) ? static_cast<double>(weight) : 0.0;
        cumulative[f + 1] = cumulative[f] + w;
    }
    total = cumulative[faceCount];
    return true;
}

int FaceDistributor::pick(float u) const {
    const double x = static_cast<double>(u) * total;
    int lo = 0;
    int hi = faceCount;
    while (hi - lo >= 2) {
        const int mid = (lo + hi) / 2;
        // Strictly greater: x on a boundary stays with the lower face.
        if (x > cumulative[mid])
            lo = mid;
        else
            hi = mid;
    }
    return lo;
}

void FaceDistributor::clear() {
    faceCount = 0;
    cumulative.clear();
    cumulative.shrink_to_fit();
    total = 0.0;
}

bool sample(PatternPointCloud& cloud, Object* triObject) {
    cloud.valid = false;
    auto* tri = dynamic_cast<TriObject*>(triObject);
    if (!tri) return false;
    const Mesh& mesh = tri->GetMesh();

    FaceDistributor distributor;
    if (!distributor.build(mesh)) return false;

    // A fixed seed, and one draw thrown away, so the same mesh always gives
    // the same cloud.
    RandGenerator rng;
    rng.srand(kCloudSeed);
    rng.rand();
    for (Point3& p : cloud.points) {
        const int face = distributor.pick(rng.Rand01());
        float a = rng.Rand01();
        float b = rng.Rand01();
        // Fold the far half of the unit square back onto the triangle.
        if (a + b > 1.0f) {
            a = 1.0f - a;
            b = 1.0f - b;
        }
        const float c = 1.0f - a - b;
        Point3 c0, c1, c2;
        faceCorners(mesh, face, c0, c1, c2);
        p = c0 * a + c1 * b + c2 * c;
    }
    distributor.clear();

    cloud.box = tri->objectBounds(0);
    cloud.valid = true;
    return true;
}

}  // namespace mq
