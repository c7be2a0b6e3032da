// The crop-box command modes: their gizmos, picking and drags.
#include "object/cropmodes.h"

#include "host/check.h"
#include "host/hold.h"
#include "host/node.h"
#include "object/mosaiq.h"
#include "object/params.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace mosaiq {

using namespace mq;

namespace {

constexpr int kRingSegments = 48;
// Rotation per pixel when a ring is seen edge-on and its plane gives no angle.
constexpr float kRadiansPerPixel = 0.01f;

const Point3 kAxisColors[3] = {{0.9f, 0.2f, 0.2f}, {0.2f, 0.8f, 0.2f}, {0.25f, 0.4f, 1.0f}};
const Point3 kCenterColor{0.85f, 0.85f, 0.85f};
// Paler than the selected box's orange, so a lit handle never reads as the box.
const Point3 kHighlightColor{1.0f, 1.0f, 0.45f};

// Rotation by angle (radians, right-handed) about the unit axis a, for row vectors.
Matrix3 axisRotation(const Point3& a, float angle) {
    const float c = std::cos(angle), s = std::sin(angle);
    Matrix3 r;
    for (int j = 0; j < 3; ++j) {
        Point3 e;
        e[j] = 1;
        r.SetRow(j, e * c + CrossProd(a, e) * s + a * (DotProd(a, e) * (1 - c)));
    }
    r.NoTrans();
    return r;
}

// Pixel distance from q to the segment ab, both projected; false when behind the eye.
bool screenDistance(const ViewExp& vpt, const Point3& a, const Point3& b, float qx, float qy,
                    float& d) {
    float ax, ay, bx, by;
    if (!vpt.mapWorldToScreen(a, ax, ay) || !vpt.mapWorldToScreen(b, bx, by)) return false;
    const float dx = bx - ax, dy = by - ay, len2 = dx * dx + dy * dy;
    const float along =
        len2 > 0 ? std::clamp(((qx - ax) * dx + (qy - ay) * dy) / len2, 0.f, 1.f) : 0.0f;
    d = std::hypot(ax + along * dx - qx, ay + along * dy - qy);
    return true;
}

}  // namespace

Node* CropBoxCMode::objectNode() const {
    Node* found = nullptr;
    if (!ip_) return found;
    ip_->GetRootNode()->forEach([&](Node* n) {
        if (!found && n->GetObjectRef() == obj_) found = n;
    });
    return found;
}

float CropBoxCMode::gizmoLength(const ViewExp& vpt, const CropFrame& frame) const {
    return kGizmoPixels * vpt.pixelSizeAt(frame.center());
}

void CropBoxCMode::partSegments(const ViewExp& vpt, const CropFrame& frame, GizmoPart part,
                                std::vector<Point3>& out) const {
    const float len = gizmoLength(vpt, frame);
    const Point3 c = frame.center();
    const Matrix3 view = vpt.viewToWorld();
    const Point3 right = Normalize(view.GetRow(0)), up = Normalize(view.GetRow(1));
    auto add = [&](const Point3& a, const Point3& b) {
        out.push_back(a);
        out.push_back(b);
    };
    // A square facing the viewer, of half side h around p.
    auto square = [&](const Point3& p, float h) {
        const Point3 q[4] = {p + (right + up) * h, p + (up - right) * h, p - (right + up) * h,
                             p + (right - up) * h};
        for (int k = 0; k < 4; ++k) add(q[k], q[(k + 1) % 4]);
    };
    if (part == GizmoPart::Center) {
        if (kind_ == Kind::Move) {
            square(c, 0.12f * len);
        } else if (kind_ != Kind::Rotate && kind_ != Kind::Squash) {
            // The uniform-scale triangle across the three axes.
            const Point3 p[3] = {c + frame.axis(0) * (0.3f * len), c + frame.axis(1) * (0.3f * len),
                                 c + frame.axis(2) * (0.3f * len)};
            for (int k = 0; k < 3; ++k) add(p[k], p[(k + 1) % 3]);
        }
        return;
    }
    const int i = int(part);
    const Point3 a = frame.axis(i), u = frame.axis((i + 1) % 3), v = frame.axis((i + 2) % 3);
    switch (kind_) {
        case Kind::Move: {
            const Point3 tip = c + a * len, back = tip - a * (0.2f * len);
            add(c, tip);
            for (const Point3& side : {u, u * -1.0f, v, v * -1.0f})
                add(tip, back + side * (0.07f * len));
            break;
        }
        case Kind::Rotate:
            for (int k = 0; k < kRingSegments; ++k) {
                const float a0 = 2 * std::numbers::pi_v<float> * k / kRingSegments;
                const float a1 = 2 * std::numbers::pi_v<float> * (k + 1) / kRingSegments;
                add(c + (u * std::cos(a0) + v * std::sin(a0)) * len,
                    c + (u * std::cos(a1) + v * std::sin(a1)) * len);
            }
            break;
        default:
            add(c, c + a * len);
            square(c + a * len, 0.06f * len);
            break;
    }
}

void CropBoxCMode::display(ViewExp& vpt) {
    MQ_BOUNDARY_BEGIN
    const CropFrame frame = obj_->cropFrame(objectNode());
    GraphicsWindow& gw = vpt.getGW();
    gw.setTransform(Matrix3());
    std::vector<Point3> segments;
    for (GizmoPart part : {GizmoPart::X, GizmoPart::Y, GizmoPart::Z, GizmoPart::Center}) {
        segments.clear();
        partSegments(vpt, frame, part, segments);
        if (segments.empty()) continue;
        gw.setColor(part == highlighted()       ? kHighlightColor
                    : part == GizmoPart::Center ? kCenterColor
                                                : kAxisColors[int(part)]);
        gw.segments(segments.data(), int(segments.size()));
    }
    MQ_BOUNDARY_END(reportError)
}

GizmoPart CropBoxCMode::pick(ViewExp& vpt, IPoint2 pixel) const {
    const CropFrame frame = obj_->cropFrame(objectNode());
    const float qx = pixel.x + 0.5f, qy = pixel.y + 0.5f;
    GizmoPart best = GizmoPart::None;
    float bestDistance = kPickPixels;
    std::vector<Point3> segments;
    // The centre first: where the axes meet it, it wins the tie.
    for (GizmoPart part : {GizmoPart::Center, GizmoPart::X, GizmoPart::Y, GizmoPart::Z}) {
        segments.clear();
        partSegments(vpt, frame, part, segments);
        for (size_t k = 0; k + 1 < segments.size(); k += 2) {
            float d;
            if (screenDistance(vpt, segments[k], segments[k + 1], qx, qy, d) &&
                (d < bestDistance || (d <= bestDistance && best == GizmoPart::None))) {
                best = part;
                bestDistance = d;
            }
        }
    }
    // Inside the free-move square counts as on it.
    if (kind_ == Kind::Move && best != GizmoPart::Center) {
        float cx, cy;
        const float half = 0.12f * kGizmoPixels;
        if (vpt.mapWorldToScreen(frame.center(), cx, cy) && std::abs(qx - cx) <= half &&
            std::abs(qy - cy) <= half)
            best = GizmoPart::Center;
    }
    return best;
}

bool CropBoxCMode::axisParam(ViewExp& vpt, IPoint2 pixel, float& s) const {
    // Closest points of the axis line and the cursor's ray.
    const Ray ray = vpt.mapScreenToWorldRay(pixel.x + 0.5f, pixel.y + 0.5f);
    const Point3 a = startFrame_.axis(int(part_));
    const Point3 w = startFrame_.center() - ray.p;
    const float b = DotProd(a, ray.dir);
    const float denom = 1.0f - b * b;
    if (denom < 1e-4f) return false;
    s = (b * DotProd(ray.dir, w) - DotProd(a, w)) / denom;
    return true;
}

bool CropBoxCMode::planeHit(ViewExp& vpt, IPoint2 pixel, const Point3& n, Point3& hit) const {
    const Ray ray = vpt.mapScreenToWorldRay(pixel.x + 0.5f, pixel.y + 0.5f);
    const float along = DotProd(n, ray.dir);
    if (std::abs(along) < 1e-4f) return false;
    const float t = DotProd(n, startFrame_.center() - ray.p) / along;
    if (t < 0) return false;
    hit = ray.p + ray.dir * t;
    return true;
}

Point3 CropBoxCMode::scaledSize(float factor, const Point3& exponents) const {
    const ParamDef* def = patternPBDesc().GetParamDef(kCropSize);
    const float minSize = float(*def->rangeMin), maxSize = float(*def->rangeMax);
    // The factor's range that keeps every size in the parameter's range.
    float lo = 0, hi = std::numeric_limits<float>::max();
    for (int i = 0; i < 3; ++i) {
        const float e = exponents[i], s = startFrame_.size[i];
        if (e == 0) continue;
        float a = std::pow(minSize / s, 1 / e), b = std::pow(maxSize / s, 1 / e);
        if (a > b) std::swap(a, b);
        lo = std::max(lo, a);
        hi = std::min(hi, b);
    }
    factor = std::clamp(factor, lo, std::max(lo, hi));
    Point3 size;
    for (int i = 0; i < 3; ++i)
        size[i] = exponents[i] == 0   ? startFrame_.size[i]
                  : exponents[i] == 1 ? startFrame_.size[i] * factor
                                      : startFrame_.size[i] * std::pow(factor, exponents[i]);
    return size;
}

bool CropBoxCMode::beginDrag(ViewExp& vpt, IPoint2 pixel) {
    const GizmoPart part = pick(vpt, pixel);
    if (part == GizmoPart::None || !obj_->GetParamBlock(0)) return false;
    part_ = part;
    startPixel_ = pixel;
    startFrame_ = obj_->cropFrame(objectNode());
    startTransform_ = obj_->GetParamBlock(0)->GetMatrix3(kCropTransform, 0);
    rotateOnScreen_ = false;
    const bool axisDrag = part != GizmoPart::Center && kind_ != Kind::Rotate;
    if (axisDrag) {
        // Scales need a start away from the centre to divide by.
        if (!axisParam(vpt, pixel, startParam_)) return false;
        if (kind_ != Kind::Move && std::abs(startParam_) < 1e-6f * gizmoLength(vpt, startFrame_))
            return false;
    } else if (kind_ == Kind::Move) {
        if (!planeHit(vpt, pixel, vpt.viewToWorld().GetRow(2), startHit_)) return false;
    } else if (kind_ == Kind::Rotate) {
        // A ring seen edge-on turns by the vertical drag instead.
        const Point3 a = startFrame_.axis(int(part));
        const Ray ray = vpt.mapScreenToWorldRay(pixel.x + 0.5f, pixel.y + 0.5f);
        rotateOnScreen_ =
            std::abs(DotProd(a, ray.dir)) < 0.1f || !planeHit(vpt, pixel, a, startHit_);
    }
    theHold.Begin();
    dragging_ = true;
    changed_ = false;
    return true;
}

void CropBoxCMode::dragTo(ViewExp& vpt, IPoint2 pixel) {
    Point3 size = startFrame_.size;
    Matrix3 transform = startTransform_;
    const bool axisDrag = part_ != GizmoPart::Center;
    const int axis = int(part_);
    float s = 0;
    switch (kind_) {
        case Kind::Move:
            if (axisDrag) {
                if (!axisParam(vpt, pixel, s)) return;
                transform.SetTrans(startTransform_.GetTrans() +
                                   startFrame_.axis(axis) * (s - startParam_));
            } else {
                Point3 hit;
                if (!planeHit(vpt, pixel, vpt.viewToWorld().GetRow(2), hit)) return;
                transform.SetTrans(startTransform_.GetTrans() + (hit - startHit_));
            }
            break;
        case Kind::Rotate: {
            const Point3 a = startFrame_.axis(axis);
            float angle;
            if (rotateOnScreen_) {
                angle = (startPixel_.y - pixel.y) * kRadiansPerPixel;
            } else {
                Point3 hit;
                if (!planeHit(vpt, pixel, a, hit)) return;
                const Point3 v0 = startHit_ - startFrame_.center(), v1 = hit - startFrame_.center();
                angle = std::atan2(DotProd(a, CrossProd(v0, v1)), DotProd(v0, v1));
            }
            // About the box's own axis through its centre: the centre stays.
            transform.NoTrans();
            transform = transform * axisRotation(a, angle);
            transform.SetTrans(startTransform_.GetTrans());
            break;
        }
        default: {
            float factor;
            if (axisDrag) {
                if (!axisParam(vpt, pixel, s)) return;
                factor = s / startParam_;
            } else {
                factor = std::exp2((startPixel_.y - pixel.y) / kPixelsPerDoubling);
            }
            Point3 exponents{1, 1, 1};
            if (axisDrag && kind_ != Kind::UScale) {
                const float others = kind_ == Kind::Squash ? -0.5f : 0.0f;
                exponents = {others, others, others};
                exponents[axis] = 1;
            }
            size = scaledSize(factor, exponents);
            break;
        }
    }
    obj_->setCropBox(size, transform);
    changed_ = true;
}

void CropBoxCMode::endDrag() {
    if (!dragging_) return;
    dragging_ = false;
    // A click on a handle that moved nothing leaves no empty undo step.
    if (changed_)
        theHold.Accept(name());
    else
        theHold.Cancel();
}

void CropBoxCMode::cancelDrag() {
    if (!dragging_) return;
    dragging_ = false;
    theHold.Cancel();
    // The block is restored; the working copy follows it.
    obj_->ObjectValidity(0);
    if (ip_) ip_->RedrawViews();
}

bool CropBoxCMode::proc(ViewExp& vpt, MouseMsg msg, int point, int flags, IPoint2 pixel) {
    MQ_BOUNDARY_BEGIN
    switch (msg) {
        case MouseMsg::FreeMove: {
            const GizmoPart part = pick(vpt, pixel);
            if (part != hover_) {
                hover_ = part;
                if (ip_) ip_->RedrawViews();
            }
            break;
        }
        case MouseMsg::Point:
            if (point == 0 && !dragging_) {
                beginDrag(vpt, pixel);
            } else {
                if (dragging_) dragTo(vpt, pixel);
                endDrag();
            }
            break;
        case MouseMsg::Move:
            if (dragging_) dragTo(vpt, pixel);
            break;
        case MouseMsg::Abort:
            cancelDrag();
            break;
    }
    MQ_BOUNDARY_END([this](const std::string& what) {
        cancelDrag();
        reportError(std::string("\"") + name() + "\" failed: " + what);
    })
    return true;
}

}  // namespace mosaiq
