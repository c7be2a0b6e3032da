#include "host/view_camera.h"

#include <algorithm>
#include <cmath>

namespace mq {

namespace {

float aspectOf(const ViewCamera& c) { return float(std::max(c.width, 1)) / std::max(c.height, 1); }

// Distance from q to the segment ab in the plane, and where along ab (0..1).
float segmentDistance2D(float qx, float qy, float ax, float ay, float bx, float by, float& along) {
    const float dx = bx - ax, dy = by - ay;
    const float len2 = dx * dx + dy * dy;
    along = len2 > 0 ? std::clamp(((qx - ax) * dx + (qy - ay) * dy) / len2, 0.0f, 1.0f) : 0.0f;
    const float px = ax + along * dx - qx, py = ay + along * dy - qy;
    return std::sqrt(px * px + py * py);
}

}  // namespace

ViewCamera ViewCamera::lookAt(const Point3& eye, const Point3& target) {
    ViewCamera c;
    Point3 back = eye - target;
    back = LengthSquared(back) > 0 ? Normalize(back) : Point3(0, -1, 0);
    const Point3 up = std::abs(back.z) > 0.999f ? Point3(0, 1, 0) : Point3(0, 0, 1);
    const Point3 right = Normalize(CrossProd(up, back));
    c.viewToWorld = Matrix3(right, CrossProd(back, right), back, eye);
    return c;
}

Ray ViewCamera::screenRay(float x, float y) const {
    const float nx = 2.0f * x / std::max(width, 1) - 1.0f;
    const float ny = 1.0f - 2.0f * y / std::max(height, 1);
    const float aspect = aspectOf(*this);
    if (perspective) {
        const float t = std::tan(fovY * 0.5f);
        const Point3 dir = viewToWorld.VectorTransform({nx * t * aspect, ny * t, -1.0f});
        return {eye(), Normalize(dir)};
    }
    const float h = orthoHeight * 0.5f;
    return {viewToWorld.PointTransform({nx * h * aspect, ny * h, 0.0f}),
            -1.0f * viewToWorld.GetRow(2)};
}

bool ViewCamera::project(const Point3& p, float& x, float& y, float* depth) const {
    const Point3 v = Inverse(viewToWorld).PointTransform(p);
    const float d = -v.z;
    if (depth) *depth = d;
    const float aspect = aspectOf(*this);
    float nx, ny;
    if (perspective) {
        if (d <= 1e-6f) return false;
        const float t = std::tan(fovY * 0.5f);
        nx = v.x / (d * t * aspect);
        ny = v.y / (d * t);
    } else {
        const float h = orthoHeight * 0.5f;
        nx = v.x / (h * aspect);
        ny = v.y / h;
    }
    x = (nx + 1.0f) * 0.5f * width;
    y = (1.0f - ny) * 0.5f * height;
    return true;
}

float ViewCamera::pixelSizeAt(const Point3& p) const {
    if (!perspective) return orthoHeight / std::max(height, 1);
    const float d = std::max(-Inverse(viewToWorld).PointTransform(p).z, nearClip);
    return d * 2.0f * std::tan(fovY * 0.5f) / std::max(height, 1);
}

void ViewCamera::viewMatrix(float out[16]) const {
    // Row vectors times our matrix are column vectors times its transpose,
    // which column-major storage of the transpose lays out row by row.
    const Matrix3 m = Inverse(viewToWorld);
    for (int r = 0; r < 4; ++r) {
        out[r * 4 + 0] = m.GetRow(r).x;
        out[r * 4 + 1] = m.GetRow(r).y;
        out[r * 4 + 2] = m.GetRow(r).z;
        out[r * 4 + 3] = r == 3 ? 1.0f : 0.0f;
    }
}

void ViewCamera::projectionMatrix(float out[16]) const {
    std::fill(out, out + 16, 0.0f);
    const float aspect = aspectOf(*this);
    if (perspective) {
        const float f = 1.0f / std::tan(fovY * 0.5f);
        out[0] = f / aspect;
        out[5] = f;
        out[10] = (farClip + nearClip) / (nearClip - farClip);
        out[11] = -1.0f;
        out[14] = 2.0f * farClip * nearClip / (nearClip - farClip);
    } else {
        // Symmetric depth range: the orthographic eye sees what lies behind it too.
        const float h = orthoHeight * 0.5f;
        out[0] = 1.0f / (h * aspect);
        out[5] = 1.0f / h;
        out[10] = -1.0f / farClip;
        out[15] = 1.0f;
    }
}

bool CameraViewExp::mapScreenToConstructionPlane(float x, float y, Point3& world) const {
    const Ray r = camera_.screenRay(x, y);
    const Point3 n = camera_.perspective ? Point3(0, 0, 1) : camera_.viewToWorld.GetRow(2);
    const float along = DotProd(n, r.dir);
    if (std::abs(along) < 1e-6f) return false;
    const float t = -DotProd(n, r.p) / along;
    if (camera_.perspective && t < 0) return false;
    world = r.p + r.dir * t;
    return true;
}

// ---- Hit testing ----

void HitTestWindow::setHitRegion(const HitRegion* region) {
    hasRegion_ = region != nullptr;
    if (region) region_ = *region;
}

void HitTestWindow::touch(float distance) {
    hit_ = true;
    hitDistance_ = std::min(hitDistance_, distance);
}

void HitTestWindow::polyline(const Point3* points, int count, bool closed) {
    for (int i = 0; i + 1 < count; ++i) segment(points[i], points[i + 1]);
    if (closed && count > 2) segment(points[count - 1], points[0]);
}

void HitTestWindow::segments(const Point3* points, int count) {
    for (int i = 0; i + 1 < count; i += 2) segment(points[i], points[i + 1]);
}

void HitTestWindow::points(const Point3* points, int count, float size) {
    for (int i = 0; i < count; ++i) dot(points[i], size);
}

void HitTestWindow::triangles(const Point3* verts, int vertCount, const int* indices,
                              int triangleCount) {
    for (int i = 0; i < triangleCount; ++i) {
        const int* t = indices + 3 * i;
        if (t[0] < 0 || t[1] < 0 || t[2] < 0 || t[0] >= vertCount || t[1] >= vertCount ||
            t[2] >= vertCount)
            continue;
        triangle(verts[t[0]], verts[t[1]], verts[t[2]]);
    }
}

void HitTestWindow::segment(const Point3& a0, const Point3& b0) {
    Point3 a = tm_.PointTransform(a0), b = tm_.PointTransform(b0);
    if (!hasRegion_) {
        ++drawn_.segments;
        drawn_.bounds += a;
        drawn_.bounds += b;
        drawn_.lastColor = color_;
        return;
    }
    // Clip to the near plane so a segment through the eye still projects.
    if (camera_.perspective) {
        const Matrix3 toView = Inverse(camera_.viewToWorld);
        const float da = -toView.PointTransform(a).z, db = -toView.PointTransform(b).z;
        const float nearZ = camera_.nearClip;
        if (da < nearZ && db < nearZ) return;
        if (da < nearZ) a = a + (b - a) * ((nearZ - da) / (db - da));
        if (db < nearZ) b = b + (a - b) * ((nearZ - db) / (da - db));
    }
    float ax, ay, bx, by, da, db;
    if (!camera_.project(a, ax, ay, &da) || !camera_.project(b, bx, by, &db)) return;
    float along;
    const float d = segmentDistance2D(region_.x + 0.5f, region_.y + 0.5f, ax, ay, bx, by, along);
    if (d <= region_.radius) touch(da + (db - da) * along);
}

void HitTestWindow::dot(const Point3& p0, float size) {
    const Point3 p = tm_.PointTransform(p0);
    if (!hasRegion_) {
        ++drawn_.points;
        drawn_.bounds += p;
        drawn_.lastColor = color_;
        return;
    }
    float x, y, depth;
    if (!camera_.project(p, x, y, &depth)) return;
    const float reach = region_.radius + size * 0.5f;
    if (std::abs(x - (region_.x + 0.5f)) <= reach && std::abs(y - (region_.y + 0.5f)) <= reach)
        touch(depth);
}

void HitTestWindow::triangle(const Point3& a0, const Point3& b0, const Point3& c0) {
    const Point3 a = tm_.PointTransform(a0), b = tm_.PointTransform(b0), c = tm_.PointTransform(c0);
    if (!hasRegion_) {
        ++drawn_.triangles;
        drawn_.bounds += a;
        drawn_.bounds += b;
        drawn_.bounds += c;
        drawn_.lastColor = color_;
        return;
    }
    // The ray through the region's centre, then the edges within its reach.
    const Ray r = camera_.screenRay(region_.x + 0.5f, region_.y + 0.5f);
    const Point3 e1 = b - a, e2 = c - a;
    const Point3 pv = CrossProd(r.dir, e2);
    const float det = DotProd(e1, pv);
    if (std::abs(det) > 1e-12f) {
        const Point3 tv = r.p - a;
        const float u = DotProd(tv, pv) / det;
        const Point3 qv = CrossProd(tv, e1);
        const float v = DotProd(r.dir, qv) / det;
        const float t = DotProd(e2, qv) / det;
        if (u >= 0 && v >= 0 && u + v <= 1 && t > 0) {
            // As a depth along the view axis, like the other primitives'.
            touch(t * -DotProd(r.dir, camera_.viewToWorld.GetRow(2)));
            return;
        }
    }
    segment(a0, b0);
    segment(b0, c0);
    segment(c0, a0);
}

}  // namespace mq
