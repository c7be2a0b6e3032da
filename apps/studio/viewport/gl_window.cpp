#include "gl_window.h"

namespace mosaiq::studio {

void BatchWindow::clear() {
    lines_.clear();
    dots_.clear();
    tris_.clear();
    runs_.clear();
    tm_.IdentityMatrix();
    color_ = {1, 1, 1};
}

BatchWindow::Vertex BatchWindow::vertex(const mq::Point3& p) const {
    const mq::Point3 w = p * tm_;
    return {{w.x, w.y, w.z}, {color_.x, color_.y, color_.z}};
}

void BatchWindow::polyline(const mq::Point3* points, int count, bool closed) {
    for (int i = 0; i + 1 < count; ++i) {
        lines_.push_back(vertex(points[i]));
        lines_.push_back(vertex(points[i + 1]));
    }
    if (closed && count > 2) {
        lines_.push_back(vertex(points[count - 1]));
        lines_.push_back(vertex(points[0]));
    }
}

void BatchWindow::segments(const mq::Point3* points, int count) {
    for (int i = 0; i + 1 < count; i += 2) {
        lines_.push_back(vertex(points[i]));
        lines_.push_back(vertex(points[i + 1]));
    }
}

void BatchWindow::points(const mq::Point3* points, int count, float size) {
    if (count <= 0) return;
    // Consecutive calls of one size share a draw.
    if (runs_.empty() || runs_.back().size != size)
        runs_.push_back({size, static_cast<int>(dots_.size()), 0});
    for (int i = 0; i < count; ++i) dots_.push_back(vertex(points[i]));
    runs_.back().count += count;
}

void BatchWindow::triangles(const mq::Point3* verts, int vertCount, const int* indices,
                            int triangleCount) {
    for (int i = 0; i < triangleCount * 3; ++i) {
        const int k = indices[i];
        if (k >= 0 && k < vertCount) tris_.push_back(vertex(verts[k]));
        // A bad index drops the whole triangle, so the triples stay aligned.
        else {
            tris_.resize(tris_.size() - i % 3);
            i += 2 - i % 3;
        }
    }
}

}  // namespace mosaiq::studio
