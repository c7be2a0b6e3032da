// The Mosaiq object in the viewports: its logo, crop box and point cloud,
// its hit test and its creation by click and drag.
#include "object/viewport.h"

#include "host/check.h"
#include "host/node.h"
#include "object/mosaiq.h"
#include "object/params.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace mosaiq {

using namespace mq;

namespace {

// A tile: a square footprint on z = 0 rising to a smaller top, 10 triangles.
void addTile(std::vector<Point3>& verts, std::vector<int>& indices, float cx, float cy,
             float halfWidth, float bevel, float height) {
    const int base = int(verts.size());
    const float sx[4] = {-1, 1, 1, -1}, sy[4] = {-1, -1, 1, 1};  // counter-clockwise from above
    for (int k = 0; k < 4; ++k)
        verts.push_back({cx + sx[k] * halfWidth, cy + sy[k] * halfWidth, 0});
    const float top = halfWidth - bevel;
    for (int k = 0; k < 4; ++k) verts.push_back({cx + sx[k] * top, cy + sy[k] * top, height});
    // Top face, then the four bevels, all wound to face outwards.
    for (int i : {4, 5, 6, 4, 6, 7}) indices.push_back(base + i);
    for (int k = 0; k < 4; ++k) {
        const int k1 = (k + 1) % 4;
        for (int i : {k, k1, 4 + k1, k, 4 + k1, 4 + k}) indices.push_back(base + i);
    }
}

LogoMesh buildLogo() {
    static std::vector<Point3> verts;
    static std::vector<int> indices;
    // The grout: one square plate the tiles stand on, facing up.
    for (const Point3& p : {Point3(-0.5f, -0.5f, 0), Point3(0.5f, -0.5f, 0), Point3(0.5f, 0.5f, 0),
                            Point3(-0.5f, 0.5f, 0)})
        verts.push_back(p);
    for (int i : {0, 1, 2, 0, 2, 3}) indices.push_back(i);
    // 3 x 3 tiles with checkered heights, so the patch reads as a mosaic at any angle.
    constexpr float kPitch = 1.0f / 3.0f, kGap = 0.035f;
    for (int j = 0; j < 3; ++j)
        for (int i = 0; i < 3; ++i)
            addTile(verts, indices, (i - 1) * kPitch, (j - 1) * kPitch, kPitch * 0.5f - kGap * 0.5f,
                    0.04f, (i + j) % 2 ? 0.09f : 0.14f);
    return {verts, indices};
}

Matrix3 logoToWorld(Node* node, TimeValue t, float dummySize) {
    const Matrix3 objectToWorld = node ? node->GetObjectTM(t) : Matrix3();
    return ScaleMatrix({dummySize, dummySize, dummySize}) * objectToWorld;
}

}  // namespace

const LogoMesh& logoMesh() {
    static const LogoMesh logo = buildLogo();
    return logo;
}

Point3 CropFrame::axis(int i) const {
    const Point3 row = boxToWorld.GetRow(i);
    const float len = Length(row);
    if (len > 0) return row / len;
    Point3 fallback;
    fallback[i] = 1;
    return fallback;
}

void cropBoxEdges(const Matrix3& boxToWorld, const Point3& size, Point3 out[24]) {
    Point3 corner[8];
    for (int c = 0; c < 8; ++c) {
        const Point3 local{c & 1 ? 0.5f : -0.5f, c & 2 ? 0.5f : -0.5f, c & 4 ? 0.5f : -0.5f};
        corner[c] = Point3(local.x * size.x, local.y * size.y, local.z * size.z) * boxToWorld;
    }
    // Each edge joins two corners that differ in one bit.
    int n = 0;
    for (int c = 0; c < 8; ++c)
        for (int bit : {1, 2, 4})
            if (!(c & bit)) {
                out[n++] = corner[c];
                out[n++] = corner[c | bit];
            }
}

CropFrame Mosaiq::cropFrame(Node* node) const {
    CropFrame f;
    if (!pblock_) return f;
    for (int i = 0; i < 3; ++i) f.size[i] = pblock_->GetFloat(kCropSize, 0, i);
    // A picked node places the box at its object's pivot, as the capture
    // does; otherwise the Mosaiq node's position stands in.
    Node* pattern = pblock_->GetInt(kPatternSource, 0) == kSourceScene
                        ? pblock_->GetINode(kPattern, 0)
                        : nullptr;
    if (pattern) {
        f.pointsToWorld = pattern->GetObjectTM(0);
        f.patternToWorld = TransMatrix(f.pointsToWorld.GetTrans());
    } else {
        if (node) f.patternToWorld = TransMatrix(node->GetNodeTM(0).GetTrans());
        f.pointsToWorld = f.patternToWorld;
    }
    f.boxToWorld = pblock_->GetMatrix3(kCropTransform, 0) * f.patternToWorld;
    return f;
}

void Mosaiq::drawLogoAndBox(GraphicsWindow& gw, Node* node, TimeValue t, bool selected) {
    const LogoMesh& logo = logoMesh();
    gw.setTransform(logoToWorld(node, t, pblock_->GetFloat(kDummySize, 0)));
    gw.setColor(selected ? kLogoSelColor : kLogoColor);
    gw.triangles(logo.verts.data(), int(logo.verts.size()), logo.indices.data(),
                 logo.triangleCount());
    Point3 edges[24];
    const CropFrame frame = cropFrame(node);
    cropBoxEdges(frame.boxToWorld, frame.size, edges);
    gw.setTransform(Matrix3());
    gw.setColor(selected ? kBoxSelColor : kBoxColor);
    gw.segments(edges, 24);
}

int Mosaiq::Display(TimeValue t, Node* node, ViewExp& vpt, int flags) {
    if (!pblock_) return 0;
    // Runs every frame for every view: only reads, nothing is built.
    MQ_BOUNDARY_BEGIN
    GraphicsWindow& gw = vpt.getGW();
    const bool selected = flags & DISP_SELECTED;
    drawLogoAndBox(gw, node, t, selected);

    // Only the points of the pattern now chosen: a store sampled from
    // another node, or loaded from a file, would show in the wrong place.
    const bool fromScene = pblock_->GetInt(kPatternSource, 0) == kSourceScene;
    const Node* pattern = fromScene ? pblock_->GetINode(kPattern, 0) : nullptr;
    const bool storeMatches =
        fromScene ? pattern && pattern->GetHandle() == sampledNodeHandle_ : sampledNodeHandle_ == 0;
    if (patternStore_->valid && storeMatches) {
        gw.setTransform(cropFrame(node).pointsToWorld);
        gw.setColor(selected ? kPointSelColor : kPointColor);
        gw.points(patternStore_->points.data(), PatternPointCloud::kPointCount, 1.5f);
    }
    MQ_BOUNDARY_END(reportError)
    return 0;
}

int Mosaiq::HitTest(TimeValue t, Node* node, int flags, ViewExp& vpt) {
    if (!pblock_) return 0;
    MQ_BOUNDARY_BEGIN
    // The same calls as Display, so what is hit is what is drawn; the
    // points are left out: 10,000 dots would make the whole box a target.
    GraphicsWindow& gw = vpt.getGW();
    gw.clearHitCode();
    drawLogoAndBox(gw, node, t, false);
    return gw.checkHitCode() ? 1 : 0;
    MQ_BOUNDARY_END(reportError)
    return 0;
}

bool PatternCreateCallBack::drag(ViewExp& vpt, IPoint2 pixel) {
    Point3 p;
    if (!vpt.mapScreenToConstructionPlane(float(pixel.x), float(pixel.y), p)) return false;
    const ParamDef* def = patternPBDesc().GetParamDef(kDummySize);
    float size = std::get<float>(def->defaultValue);
    const float dx = float(pixel.x - startPixel_.x), dy = float(pixel.y - startPixel_.y);
    // A click, or a hand that shook, keeps the default icon size.
    if (std::sqrt(dx * dx + dy * dy) >= kClickPixels)
        size = std::clamp(Length(p - start_), float(*def->rangeMin), float(*def->rangeMax));
    obj_->GetParamBlock(0)->SetValue(kDummySize, 0, size);
    return true;
}

int PatternCreateCallBack::proc(ViewExp& vpt, MouseMsg msg, int point, int flags, IPoint2 pixel,
                                Matrix3& tm) {
    if (!obj_->GetParamBlock(0)) return CREATE_ABORT;
    MQ_BOUNDARY_BEGIN
    switch (msg) {
        case MouseMsg::Abort:
            return CREATE_ABORT;
        case MouseMsg::FreeMove:
            return CREATE_CONTINUE;
        case MouseMsg::Point:
            if (point == 0) {
                // A press off the plane (the sky in perspective) places nothing.
                if (!vpt.mapScreenToConstructionPlane(float(pixel.x), float(pixel.y), start_))
                    return CREATE_ABORT;
                startPixel_ = pixel;
                tm.IdentityMatrix();
                tm.SetTrans(start_);
                return CREATE_CONTINUE;
            }
            drag(vpt, pixel);
            tm.SetTrans(start_);
            return CREATE_STOP;
        case MouseMsg::Move:
            drag(vpt, pixel);
            tm.SetTrans(start_);
            return CREATE_CONTINUE;
    }
    MQ_BOUNDARY_END(reportError)
    return CREATE_ABORT;
}

}  // namespace mosaiq
