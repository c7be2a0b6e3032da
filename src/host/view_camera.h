// A viewport's camera as plain math: where it is, how it projects, and the
// mapping between pixels and world rays. The studio's OpenGL viewport and
// the headless viewport of tests share it, so a scripted drag in a test
// moves things by what the same drag moves on screen.
#pragma once

#include "host/viewport.h"

#include <memory>

namespace mq {

struct ViewCamera {
    // View space (x right, y up, looking down -z) to world; rows are unit
    // axes, no scale.
    Matrix3 viewToWorld;
    bool perspective = true;
    float fovY = 0.785398f;   // vertical field of view in radians (perspective)
    float orthoHeight = 100;  // world height the window shows (orthographic)
    int width = 640, height = 480;
    float nearClip = 0.1f, farClip = 100000.0f;

    // A camera at eye looking at target, z up (y up when looking along z).
    static ViewCamera lookAt(const Point3& eye, const Point3& target);

    Point3 eye() const { return viewToWorld.GetTrans(); }
    Ray screenRay(float x, float y) const;
    // A world point's pixel and its depth in front of the eye; false behind it.
    bool project(const Point3& p, float& x, float& y, float* depth = nullptr) const;
    float pixelSizeAt(const Point3& p) const;
    // Column-major 4x4 matrices for OpenGL: world to view, view to clip.
    void viewMatrix(float out[16]) const;
    void projectionMatrix(float out[16]) const;
};

// A ViewExp over a camera and a graphics window the caller owns.
class CameraViewExp : public ViewExp {
public:
    CameraViewExp(const ViewCamera& camera, GraphicsWindow& gw) : camera_(camera), gw_(gw) {}

    GraphicsWindow& getGW() override { return gw_; }
    Ray mapScreenToWorldRay(float x, float y) const override { return camera_.screenRay(x, y); }
    bool mapWorldToScreen(const Point3& p, float& x, float& y) const override {
        return camera_.project(p, x, y);
    }
    float pixelSizeAt(const Point3& p) const override { return camera_.pixelSizeAt(p); }
    Matrix3 viewToWorld() const override { return camera_.viewToWorld; }
    bool isPerspective() const override { return camera_.perspective; }
    bool mapScreenToConstructionPlane(float x, float y, Point3& world) const override;
    const ViewCamera& camera() const { return camera_; }

private:
    ViewCamera camera_;
    GraphicsWindow& gw_;
};

// A graphics window that draws nothing: it hit tests the primitives against
// its region through the camera, or, with no region, records them, so tests
// can see what an object drew.
class HitTestWindow : public GraphicsWindow {
public:
    explicit HitTestWindow(const ViewCamera& camera) : camera_(camera) {}

    void setHitRegion(const HitRegion* region);
    void setTransform(const Matrix3& objectToWorld) override { tm_ = objectToWorld; }
    void setColor(const Point3& rgb) override { color_ = rgb; }
    void polyline(const Point3* points, int count, bool closed) override;
    void segments(const Point3* points, int count) override;
    void points(const Point3* points, int count, float size) override;
    void triangles(const Point3* verts, int vertCount, const int* indices,
                   int triangleCount) override;
    const HitRegion* hitRegion() const override { return hasRegion_ ? &region_ : nullptr; }
    bool checkHitCode() const override { return hit_; }
    void clearHitCode() override {
        hit_ = false;
        hitDistance_ = 1e30f;
    }
    float hitDistance() const override { return hitDistance_; }

    // What was drawn with no region set, in world space.
    struct Drawn {
        int segments = 0, points = 0, triangles = 0;
        Box3 bounds;
        Point3 lastColor;
    };
    const Drawn& drawn() const { return drawn_; }

private:
    void segment(const Point3& a, const Point3& b);
    void dot(const Point3& p, float size);
    void triangle(const Point3& a, const Point3& b, const Point3& c);
    void touch(float distance);

    ViewCamera camera_;
    Matrix3 tm_;
    Point3 color_;
    HitRegion region_;
    bool hasRegion_ = false;
    bool hit_ = false;
    float hitDistance_ = 1e30f;
    Drawn drawn_;
};

}  // namespace mq
