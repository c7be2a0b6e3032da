// "Reset Crop Box" and "Fit Crop Box": the crop box recomputed from the
// pattern, from the picked node's mesh or from the pattern store.
#include "host/check.h"
#include "host/hold.h"
#include "object/mosaiq.h"
#include "object/params.h"
#include "object/pattern_store.h"

#include <algorithm>

namespace mosaiq {

using namespace mq;

namespace {

// An undo hold around one crop-box edit. Every path that opened it closes
// it: accept() when the edit is complete, otherwise Cancel, which also
// reverts what was written. A hold left open would swallow the user's next
// changes into this step.
class CropHold {
public:
    explicit CropHold(bool open) : open_(open) {
        if (open_) theHold.Begin();
    }
    ~CropHold() {
        if (open_) theHold.Cancel();
    }
    CropHold(const CropHold&) = delete;
    CropHold& operator=(const CropHold&) = delete;
    void accept(const char* name) {
        if (!open_) return;
        theHold.Accept(name);
        open_ = false;
    }

private:
    bool open_;
};

}  // namespace

void Mosaiq::writeCropBox(const Point3& size, const Matrix3& transform) {
    // A flat pattern has a zero extent; the block's minimum keeps the tile
    // space invertible.
    const float minSize = static_cast<float>(*patternPBDesc().GetParamDef(kCropSize)->rangeMin);
    cropSize_ = {std::max(size.x, minSize), std::max(size.y, minSize), std::max(size.z, minSize)};
    for (int i = 0; i < 3; ++i) pblock_->SetValue(kCropSize, 0, cropSize_[i], i);
    cropTransform_ = transform;
    pblock_->SetValue(kCropTransform, 0, transform);
}

bool Mosaiq::resetCropBox(bool withUndo) {
    if (!pblock_) return false;
    // Called from the UI and the "Pattern" accessor: nothing leaves it.
    MQ_BOUNDARY_BEGIN
    // Opened before looking at the pattern; the early returns cancel it.
    CropHold hold(withUndo);
    Box3 box;
    if (patternSource_ == kSourceScene) {
        Node* node = livePatternNode();
        if (!node) return false;
        std::optional<Mesh> mesh = patternNodeMesh(node);
        if (!mesh) return false;
        // Relative to the node's pivot, not in the world: the node may
        // move without the crop box moving off the pattern.
        Matrix3 objectRotation = node->GetObjectTM(0);
        objectRotation.NoTrans();
        box = mesh->getBoundingBox(&objectRotation);
    } else {
        if (!patternStore_->valid) return false;
        box = patternStore_->box;
    }
    if (box.IsEmpty()) return false;

    Matrix3 transform;  // identity rotation
    transform.SetTrans(box.Center());
    writeCropBox(box.Width(), transform);
    hold.accept(kResetCropBoxUndo);
    return true;
    MQ_BOUNDARY_END([](const std::string& what) {
        reportError(std::string("\"") + kResetCropBoxUndo + "\" failed: " + what);
    })
    return false;
}

bool Mosaiq::fitCropBox() {
    if (!pblock_) return false;
    // Called from the UI: nothing leaves it.
    MQ_BOUNDARY_BEGIN
    Node* node = nullptr;
    std::optional<Mesh> mesh;
    if (patternSource_ == kSourceScene) {
        node = livePatternNode();
        if (!node) return false;
        mesh = patternNodeMesh(node);
        if (!mesh) return false;
    } else if (!patternStore_->valid) {
        return false;
    }

    // The working copy's transform becomes the pure rotation to keep.
    Matrix3& rotation = cropTransform_;
    rotation.Orthogonalize();
    rotation.NoScale();
    rotation.NoTrans();
    Matrix3 toBox = rotation;
    // A collapsed box has no orientation left to keep.
    if (!toBox.Invert()) rotation.IdentityMatrix();

    Box3 box;
    if (node) {
        // The node's position plays no part, as in the reset.
        Matrix3 objectToBox = node->GetObjectTM(0) * toBox;
        objectToBox.NoTrans();
        box = mesh->getBoundingBox(&objectToBox);
    } else {
        // Every entry of the fixed-size array, deliberately: the store
        // always holds the full count once valid.
        for (int i = 0; i < PatternPointCloud::kPointCount; ++i)
            box += patternStore_->points[i] * toBox;
    }
    if (box.IsEmpty()) return false;

    CropHold hold(true);
    Matrix3 transform = rotation;
    transform.SetTrans(box.Center() * rotation);
    writeCropBox(box.Width(), transform);
    hold.accept(kFitCropBoxUndo);
    return true;
    MQ_BOUNDARY_END([](const std::string& what) {
        reportError(std::string("\"") + kFitCropBoxUndo + "\" failed: " + what);
    })
    return false;
}

}  // namespace mosaiq
