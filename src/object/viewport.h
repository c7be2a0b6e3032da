// How a Mosaiq object shows in the host's viewports: its logo, its crop box
// and the pattern's point cloud, the frame the crop box lives in, and the
// click-and-drag that creates the object.
#pragma once

#include "host/math.h"
#include "host/viewport.h"

#include <span>

namespace mq {
class Node;
}

namespace mosaiq {

class Mosaiq;

// The logo: a 3 x 3 patch of bevelled tiles, one unit wide, centred on the
// origin in x and y, standing on z = 0. Built once, never freed.
struct LogoMesh {
    std::span<const mq::Point3> verts;
    std::span<const int> indices;  // three per triangle
    int triangleCount() const { return int(indices.size() / 3); }
};
const LogoMesh& logoMesh();

// The crop box where the viewport shows it. The box is relative to the
// pattern's position: a scene pattern's pivot (as the capture places it) or,
// for a file pattern, the Mosaiq node's position, since a file pattern has no
// place in the scene. Axes stay the world's: only positions count.
struct CropFrame {
    mq::Matrix3 patternToWorld;  // a pure translation to the pattern's position
    mq::Matrix3 boxToWorld;      // "Crop_Transfrom" then patternToWorld
    mq::Point3 size;             // "Crop_Size"
    // The point cloud's space (the pattern object's) to world.
    mq::Matrix3 pointsToWorld;

    mq::Point3 center() const { return boxToWorld.GetTrans(); }
    // Unit axis i of the box in world space (x for a degenerate row).
    mq::Point3 axis(int i) const;
};

// Display colours: normal and selected (brighter).
inline const mq::Point3 kLogoColor{0.30f, 0.62f, 0.85f}, kLogoSelColor{0.55f, 0.85f, 1.0f};
inline const mq::Point3 kBoxColor{0.85f, 0.50f, 0.12f}, kBoxSelColor{1.0f, 0.64f, 0.18f};
// Points stay muted: 10,000 of them would drown the box and the gizmos.
inline const mq::Point3 kPointColor{0.30f, 0.44f, 0.32f}, kPointSelColor{0.42f, 0.66f, 0.44f};

// The 12 edges of a box of size centred on boxToWorld's origin, as 24 world points.
void cropBoxEdges(const mq::Matrix3& boxToWorld, const mq::Point3& size, mq::Point3 out[24]);

// Creation: press places the node on the construction plane, dragging sets
// "Dummy_Size" to the distance dragged on that plane, release finishes. A
// click (under kClickPixels of drag) keeps the default "Dummy_Size".
class PatternCreateCallBack : public mq::CreateMouseCallBack {
public:
    static constexpr float kClickPixels = 3.0f;
    explicit PatternCreateCallBack(Mosaiq* obj) : obj_(obj) {}
    int proc(mq::ViewExp& vpt, mq::MouseMsg msg, int point, int flags, mq::IPoint2 pixel,
             mq::Matrix3& tm) override;

private:
    // Writes "Dummy_Size" for the cursor at pixel; false when off the plane.
    bool drag(mq::ViewExp& vpt, mq::IPoint2 pixel);

    Mosaiq* obj_;
    mq::Point3 start_;
    mq::IPoint2 startPixel_;
};

}  // namespace mosaiq
