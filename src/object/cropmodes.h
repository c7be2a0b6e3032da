// The viewport modes that move, rotate and scale an object's crop box. Each
// holds the object and the interface it was made for, and is its own mouse
// callback: a gizmo at the box centre, along the box's axes, of a fixed size
// on screen.
//
// Protocol (what the viewport sends, what the mode does):
//   FreeMove           the part under the cursor is highlighted (RedrawViews)
//   Point, point 0     on a part: theHold.Begin() and the drag starts
//   Move               "Crop_Transfrom" / "Crop_Size" written live, always
//                      computed from the values at the press
//   Point, point >= 1  the drag ends: one undo step named name(), or none
//                      when nothing changed
//   Abort              the hold is cancelled: the box is as before the press
// ExitMode cancels a drag in progress as Abort does. Scales change
// "Crop_Size", never the transform's scale: a scaled transform would
// squeeze the pattern inside the tile rather than cut more or less of it.
#pragma once

#include "host/interface.h"
#include "host/math.h"
#include "host/viewport.h"
#include "object/viewport.h"

#include <vector>

namespace mosaiq {

class Mosaiq;

// The part of a gizmo under the cursor: an axis of the box, or the centre
// (move: free in the view plane; scale: uniform).
enum class GizmoPart { None = -1, X = 0, Y = 1, Z = 2, Center = 3 };

class CropBoxCMode : public mq::CommandMode, public mq::MouseCallBack {
public:
    enum class Kind { Move, Rotate, UScale, NUScale, Squash };
    // The gizmo's size on screen in pixels, and how near the cursor must come.
    static constexpr float kGizmoPixels = 80.0f;
    static constexpr float kPickPixels = 6.0f;
    // A uniform scale by dragging the centre doubles the box per this many pixels up.
    static constexpr float kPixelsPerDoubling = 100.0f;

    CropBoxCMode(Mosaiq* obj, mq::HostInterface* ip, Kind kind) : obj_(obj), ip_(ip), kind_(kind) {}
    Mosaiq* object() const { return obj_; }
    mq::HostInterface* ip() const { return ip_; }
    Kind kind() const { return kind_; }

    mq::MouseCallBack* MouseProc() override { return this; }
    void ExitMode() override { cancelDrag(); }
    bool proc(mq::ViewExp& vpt, mq::MouseMsg msg, int point, int flags, mq::IPoint2 pixel) override;
    void display(mq::ViewExp& vpt) override;

    // The part under pixel, None when the cursor is on none.
    GizmoPart pick(mq::ViewExp& vpt, mq::IPoint2 pixel) const;
    GizmoPart highlighted() const { return dragging_ ? part_ : hover_; }
    bool dragging() const { return dragging_; }

private:
    // The node that holds the object, for a file pattern's position; may be null.
    mq::Node* objectNode() const;
    // World segments (point pairs) of one part of the gizmo at frame's centre.
    void partSegments(const mq::ViewExp& vpt, const CropFrame& frame, GizmoPart part,
                      std::vector<mq::Point3>& out) const;
    float gizmoLength(const mq::ViewExp& vpt, const CropFrame& frame) const;
    bool beginDrag(mq::ViewExp& vpt, mq::IPoint2 pixel);
    void dragTo(mq::ViewExp& vpt, mq::IPoint2 pixel);
    void endDrag();
    void cancelDrag();
    // Where along the part's axis (from the centre at the press) the cursor's ray passes; false
    // when the ray runs along the axis.
    bool axisParam(mq::ViewExp& vpt, mq::IPoint2 pixel, float& s) const;
    // Where the cursor's ray meets the plane through the press centre with normal n.
    bool planeHit(mq::ViewExp& vpt, mq::IPoint2 pixel, const mq::Point3& n, mq::Point3& hit) const;
    // Scale the size at the press by factor along exponents (per axis), kept in range.
    mq::Point3 scaledSize(float factor, const mq::Point3& exponents) const;

    Mosaiq* obj_;
    mq::HostInterface* ip_;
    Kind kind_;
    GizmoPart hover_ = GizmoPart::None;

    // The drag, from the press on.
    bool dragging_ = false;
    bool changed_ = false;
    GizmoPart part_ = GizmoPart::None;
    mq::IPoint2 startPixel_;
    CropFrame startFrame_;
    mq::Matrix3 startTransform_;   // "Crop_Transfrom" at the press
    float startParam_ = 0;         // axis drags: axisParam at the press
    mq::Point3 startHit_;          // free moves and rotations: the plane point at the press
    bool rotateOnScreen_ = false;  // the ring was edge-on at the press
};

class MoveModBoxCMode : public CropBoxCMode {
public:
    MoveModBoxCMode(Mosaiq* obj, mq::HostInterface* ip) : CropBoxCMode(obj, ip, Kind::Move) {}
    const char* name() const override { return "Move Crop Box"; }
};

class RotateModBoxCMode : public CropBoxCMode {
public:
    RotateModBoxCMode(Mosaiq* obj, mq::HostInterface* ip) : CropBoxCMode(obj, ip, Kind::Rotate) {}
    const char* name() const override { return "Rotate Crop Box"; }
};

// Every part scales all three sizes by one factor.
class UScaleModBoxCMode : public CropBoxCMode {
public:
    UScaleModBoxCMode(Mosaiq* obj, mq::HostInterface* ip) : CropBoxCMode(obj, ip, Kind::UScale) {}
    const char* name() const override { return "Uniform Scale Crop Box"; }
};

// An axis scales its size alone; the centre scales all three.
class NUScaleModBoxCMode : public CropBoxCMode {
public:
    NUScaleModBoxCMode(Mosaiq* obj, mq::HostInterface* ip) : CropBoxCMode(obj, ip, Kind::NUScale) {}
    const char* name() const override { return "Non-uniform Scale Crop Box"; }
};

// An axis scales by s and the other two by 1 / sqrt(s): the volume stays.
// No centre part.
class SquashModBoxCMode : public CropBoxCMode {
public:
    SquashModBoxCMode(Mosaiq* obj, mq::HostInterface* ip) : CropBoxCMode(obj, ip, Kind::Squash) {}
    const char* name() const override { return "Squash Crop Box"; }
};

}  // namespace mosaiq
