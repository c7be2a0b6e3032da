// What an object shows in the host's viewports and how the mouse reaches
// it there. An object describes lines, points and triangles through a
// GraphicsWindow; the viewport draws them, or, with a hit region set, tests
// them against a few pixels around the cursor instead. Creation callbacks
// and command modes receive the viewport's mouse messages.
#pragma once

#include "host/math.h"

namespace mq {

class Node;

struct IPoint2 {
    int x = 0, y = 0;
};

// A world-space ray; dir has unit length.
struct Ray {
    Point3 p;
    Point3 dir;
};

// The pixels a hit test looks at: a square of radius pixels around (x, y),
// in pixels from the viewport's top left.
struct HitRegion {
    int x = 0, y = 0;
    int radius = 4;
};

// Display flags.
inline constexpr int DISP_SELECTED = 1;  // the node is selected: draw highlighted

// Drawing and hit testing go through the same calls, so that what is hit is
// what is drawn. Points are in the space setTransform names.
class GraphicsWindow {
public:
    virtual ~GraphicsWindow() = default;

    // Object space to world space for the primitives that follow.
    virtual void setTransform(const Matrix3& objectToWorld) = 0;
    // Colour (0..1) of the primitives that follow.
    virtual void setColor(const Point3& rgb) = 0;
    // A line strip; closed joins the last point to the first.
    virtual void polyline(const Point3* points, int count, bool closed) = 0;
    // Separate segments, two points each; count is the number of points.
    virtual void segments(const Point3* points, int count) = 0;
    // Dots of size pixels.
    virtual void points(const Point3* points, int count, float size = 1.0f) = 0;
    // A shaded mesh, lit by its face normals; indices hold three per triangle.
    virtual void triangles(const Point3* verts, int vertCount, const int* indices,
                           int triangleCount) = 0;

    // Hit testing: null while drawing. Otherwise the primitives above draw
    // nothing and note whether any of them touches the region.
    virtual const HitRegion* hitRegion() const = 0;
    // Whether a primitive touched the region since the last clearHitCode.
    virtual bool checkHitCode() const = 0;
    virtual void clearHitCode() = 0;
    // Distance from the eye of the nearest touch since the last clear.
    virtual float hitDistance() const = 0;
};

// One viewport as objects, creation callbacks and command modes see it.
class ViewExp {
public:
    virtual ~ViewExp() = default;

    virtual GraphicsWindow& getGW() = 0;
    // The ray from the eye through a pixel (pixels from the top left).
    virtual Ray mapScreenToWorldRay(float x, float y) const = 0;
    // A world point's pixel; false when it is behind the eye.
    virtual bool mapWorldToScreen(const Point3& p, float& x, float& y) const = 0;
    // The world length one pixel covers at p, for gizmos of a fixed screen size.
    virtual float pixelSizeAt(const Point3& p) const = 0;
    // The camera: view space (x right, y up, looking down -z) to world.
    virtual Matrix3 viewToWorld() const = 0;
    virtual bool isPerspective() const = 0;
    // The plane a creation click lands on: the ground (z = 0) in the
    // perspective view, the view plane through the origin in the others.
    // False when the ray runs parallel to it.
    virtual bool mapScreenToConstructionPlane(float x, float y, Point3& world) const = 0;
};

// Mouse messages. Point is a button press or release that counts as a
// click (point numbers them from 0), Move a drag with the button down,
// FreeMove a move with no button, Abort a right click or Escape.
enum class MouseMsg { Point, Move, FreeMove, Abort };

// Modifier flags of a mouse message.
inline constexpr int MOUSE_SHIFT = 1;
inline constexpr int MOUSE_CTRL = 2;
inline constexpr int MOUSE_ALT = 4;

// What a creation callback returns.
inline constexpr int CREATE_CONTINUE = 1;
inline constexpr int CREATE_STOP = 0;    // the object is made
inline constexpr int CREATE_ABORT = -1;  // the host deletes the node

// An object's creation in a viewport: each mouse message may set the new
// node's transform (tm) and the object's parameters.
class CreateMouseCallBack {
public:
    virtual ~CreateMouseCallBack() = default;
    virtual int proc(ViewExp& vpt, MouseMsg msg, int point, int flags, IPoint2 pixel,
                     Matrix3& tm) = 0;
};

// A command mode's handling of the mouse; returns false to leave the mode.
class MouseCallBack {
public:
    virtual ~MouseCallBack() = default;
    virtual bool proc(ViewExp& vpt, MouseMsg msg, int point, int flags, IPoint2 pixel) = 0;
    // Draws the mode's gizmo over the scene, and hit tests it the same way.
    virtual void display(ViewExp& vpt) {}
};

}  // namespace mq
