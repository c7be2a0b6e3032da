// The Mosaiq scene object: holds the parameter block and a working copy of
// the settings that the pattern engine and the renderer read.
//
// Every setting lives in the parameter block (reference 0); the object saves
// nothing of its own. The working copy is valid only after ObjectValidity
// has run for the current time.
#pragma once

#include "engine/point_cloud.h"
#include "host/interface.h"
#include "host/mesh.h"
#include "host/node.h"
#include "host/object.h"
#include "host/paramblock.h"
#include "host/pattern_tools.h"
#include "object/viewport.h"
#include "render/settings.h"
#include "tracer/protocol.h"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace mosaiq {

// Names the class in every saved scene: never change it.
inline constexpr mq::ClassId kMosaiqClassId{0x4E307640, 0x2A77304F};

class Mosaiq : public mq::GeomObject, public mq::tracer::RenderObject {
public:
    Mosaiq();
    ~Mosaiq() override;
    Mosaiq(const Mosaiq&) = delete;
    Mosaiq& operator=(const Mosaiq&) = delete;

    // Working copy, refreshed by ObjectValidity.
    float shift() const { return shift_; }
    int32_t patternSource() const { return patternSource_; }
    const mq::Matrix3& cropTransform() const { return cropTransform_; }
    const mq::Point3& cropSize() const { return cropSize_; }
    // U and V.
    const std::array<int32_t, 2>& segmentCounts() const { return segmentCounts_; }
    // May be null; not owned.
    mq::Node* patternNode() const { return patternNode_; }
    // A pure translation to the pattern node's position.
    const mq::Matrix3& patternNodeTM() const { return patternNodeTM_; }
    float dummySize() const { return dummySize_; }
    int32_t patternEnabled() const { return patternEnabled_; }

    // Set when the pattern store first holds a captured pattern (a pattern
    // file loaded, or a picked "Pattern" node sampled); the renderer makes
    // instances only then. Never cleared: a failed load keeps the store, and
    // with it the flag, as they were.
    bool renderReady() const { return renderReady_; }
    // The About page while the object is being edited, 0 otherwise; kept
    // by the panels that open it.
    int aboutPage() const { return aboutPage_; }
    void setAboutPage(int page) { aboutPage_ = page; }
    // The window of each parameter rollout (by map: base, surface, preview)
    // while it is open, null while closed; set and cleared by the rollouts'
    // procedures. Not owned. Other maps read as null and are not kept.
    mq::ui::DialogWindow* rolloutWindow(mq::MapID map) const;
    void setRolloutWindow(mq::MapID map, mq::ui::DialogWindow* window);
    // The interface of the object being edited, null otherwise.
    static mq::HostInterface* editInterface();

    // The pattern store: the point-cloud summary of the current pattern that
    // the crop-box operations read (the renderer captures the full tile
    // itself). Not valid until a pattern was sampled or loaded.
    const mq::PatternPointCloud& patternStore() const { return *patternStore_; }

    // The node picked as "Pattern" (PatternPBAccessor). With a scene pattern
    // its mesh is sampled into the pattern store; a node without a mesh
    // leaves the store as it was.
    void setPatternNode(mq::Node* node);

    // Undo step names of the crop-box operations.
    static constexpr const char* kResetCropBoxUndo = "Reset Crop Box";
    static constexpr const char* kFitCropBoxUndo = "Fit Crop Box";
    // Make the crop box enclose the whole pattern with identity rotation:
    // the picked node's mesh (its pivot's position plays no part) or the
    // pattern store, by the working copy's pattern source. withUndo makes it
    // one undo step "Reset Crop Box"; without, the writes make no step of
    // their own (they join a hold the caller has open). False, with both
    // parameters unchanged, when there is no pattern to fit to.
    bool resetCropBox(bool withUndo);
    // Keep the crop box's rotation (scale and position dropped) and fit its
    // size and centre to the pattern; one undo step "Fit Crop Box". False,
    // with both parameters unchanged, when there is no pattern.
    bool fitCropBox();

    // Read "Pattern_File" (time 0) into the pattern store through the
    // current host interface. False, with lastPatternError() saying why,
    // when nothing was loaded: the store keeps what it had, except that a
    // file whose mesh has no faces empties it. Main thread only.
    bool loadPatternFile();
    // Let chooseFile pick a pattern file, starting from "Pattern_File"; when
    // it returns a path, write it to "Pattern_File", refresh that
    // parameter's controls and load it. False when nothing was chosen (with
    // an empty lastPatternError()) or the load failed.
    bool browseAndLoadPatternFile(
        const std::function<std::optional<std::string>(const std::string& start)>& chooseFile);
    // Why the last pattern-file load failed, naming the file; empty after a
    // successful load.
    const std::string& lastPatternError() const { return lastPatternError_; }

    // The crop box as the viewports show it, from the parameter block at
    // time 0; node is the Mosaiq object's own node (null: the origin).
    CropFrame cropFrame(mq::Node* node) const;
    // Write "Crop_Size" (each at least the parameter's minimum) and
    // "Crop_Transfrom" at time 0, and the working copy; no hold of its own.
    void setCropBox(const mq::Point3& size, const mq::Matrix3& transform) {
        writeCropBox(size, transform);
    }

    // What a render reads of the object, from the parameter block at time 0.
    mq::MosaiqSettings renderSettings() const;

    // The crop-box operations and tile statistics for hosts that see the
    // object only through GetInterface(mq::kPatternToolsInterfaceId)
    // (pattern_tools.cpp). Made on first use and owned by the object; null
    // when it cannot be allocated.
    mq::IPatternTools* patternTools();

    // Animatable
    int NumSubs() override { return 1; }
    mq::Animatable* SubAnim(int i) override;
    std::string SubAnimName(int i) override;
    mq::ClassId ClassID() const override;
    std::string GetClassName() const override { return "Mosaiq"; }

    // ReferenceMaker: the one reference is the parameter block, whatever i is.
    int NumRefs() override { return 1; }
    mq::ReferenceTarget* GetReference(int i) override;
    void SetReference(int i, mq::ReferenceTarget* target) override;

    // ReferenceTarget: a new object with a clone of the block; the working
    // copy is rebuilt from it at the next ObjectValidity. Null on failure.
    mq::ReferenceTarget* Clone(mq::RemapDir& remap) override;

    // Object
    int CanConvertToType(mq::ClassId cid) override { return 0; }
    mq::Object* ConvertToType(mq::TimeValue t, mq::ClassId cid) override { return nullptr; }
    void GetCollapseTypes(std::vector<mq::ClassId>& types,
                          std::vector<std::string>& names) override {}
    // Refreshes the working copy; valid for the instant t only.
    mq::Interval ObjectValidity(mq::TimeValue t) override;
    // The empty render mesh: the host's own renderers see no geometry.
    mq::Mesh* GetRenderMesh(mq::TimeValue t, mq::Node* node, mq::View& view,
                            bool& needDelete) override;
    void* GetInterface(uint32_t id) override;
    // Viewports (viewport.cpp): the logo under the node's transform scaled
    // by "Dummy_Size", the crop box and the pattern's point cloud. Cheap:
    // nothing is built per call. The hit test sees the logo and the box.
    bool hasOwnDisplay() const override { return true; }
    int Display(mq::TimeValue t, mq::Node* node, mq::ViewExp& vpt, int flags) override;
    int HitTest(mq::TimeValue t, mq::Node* node, int flags, mq::ViewExp& vpt) override;
    // The logo and the crop box, which both drawing and hit testing go through.
    void drawLogoAndBox(mq::GraphicsWindow& gw, mq::Node* node, mq::TimeValue t, bool selected);
    mq::CreateMouseCallBack* GetCreateMouseCallBack() override { return &createCallBack_; }
    void ReleaseInterface(uint32_t id, void* i) override;
    mq::IOResult Save(mq::ISave* isave) override;
    mq::IOResult Load(mq::ILoad* iload) override;
    void BeginEditParams(mq::HostInterface* ip, uint32_t flags, mq::Animatable* prev) override;
    void EndEditParams(mq::HostInterface* ip, uint32_t flags, mq::Animatable* next) override;
    int NumParamBlocks() override { return 1; }
    mq::ParamBlock* GetParamBlock(int i) override { return pblock_; }
    mq::ParamBlock* GetParamBlockByID(mq::BlockID id) override;

    // RenderObject, reached through GetInterface(mq::tracer::kRenderObjectInterfaceId).
    // Instances are made only while renderReady(); null otherwise or when
    // allocation fails. Never throws.
    bool init(mq::tracer::RenderCore& core) override { return true; }
    mq::tracer::RenderInstance* newRenderInstance(mq::Node* node, mq::tracer::RenderCore& core,
                                                  int renderId) override;
    void deleteRenderInstance(mq::tracer::RenderInstance* instance) override;

private:
    void refreshWorkingCopy(mq::TimeValue t);
    // The pattern node if it still exists: the pointer may outlive a deleted node.
    mq::Node* livePatternNode() const;
    // Sample node's mesh into the pattern store; the store is kept on failure.
    void samplePatternNode(mq::Node* node);
    // Take a freshly filled cloud as the pattern store.
    void adoptPatternStore(std::unique_ptr<mq::PatternPointCloud> cloud);
    // Write "Crop_Size" (element by element) and "Crop_Transfrom" at time 0,
    // and the working copy.
    void writeCropBox(const mq::Point3& size, const mq::Matrix3& transform);

    mq::Mesh renderMesh_;
    float shift_ = 0.0f;
    int32_t patternSource_ = 0;
    mq::Matrix3 cropTransform_;
    mq::Point3 cropSize_{20.0f, 10.0f, 10.0f};
    std::array<int32_t, 2> segmentCounts_{1, 1};
    mq::Node* patternNode_ = nullptr;
    mq::Node::Handle patternNodeHandle_ = 0;
    mq::Matrix3 patternNodeTM_;
    // Always allocated; replaced whole, never modified in place.
    std::unique_ptr<mq::PatternPointCloud> patternStore_;
    // The node last sampled into the store (successfully or not), so each
    // pick is sampled once; 0 after a file load.
    mq::Node::Handle sampledNodeHandle_ = 0;
    float dummySize_ = 1.0f;
    int32_t patternEnabled_ = 1;
    mq::ParamBlock* pblock_ = nullptr;
    int aboutPage_ = 0;
    std::array<mq::ui::DialogWindow*, 3> rolloutWindows_{};

    bool renderReady_ = false;
    std::string lastPatternError_;
    std::unique_ptr<mq::IPatternTools> patternTools_;
    PatternCreateCallBack createCallBack_{this};
    // Move, rotate, uniform scale, non-uniform scale, squash; while editing.
    std::array<std::unique_ptr<mq::CommandMode>, 5> cropModes_;
};

}  // namespace mosaiq
