// The Mosaiq scene object: holds the parameter block and a working copy of
// the settings that the pattern engine and the renderer read.
//
// Every setting lives in the parameter block (reference 0); the object saves
// nothing of its own. The working copy is valid only after ObjectValidity
// has run for the current time.
#pragma once

#include "host/interface.h"
#include "host/mesh.h"
#include "host/object.h"
#include "host/paramblock.h"

#include <array>
#include <cstdint>
#include <memory>

namespace mosaiq {

class Mosaiq : public mq::GeomObject {
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

    // Set when the pattern store holds a captured pattern; the renderer makes
    // instances only then.
    bool renderReady() const { return renderReady_; }
    // The About page while the object is being edited, 0 otherwise.
    int aboutPage() const { return aboutPage_; }
    // The interface of the object being edited, null otherwise.
    static mq::HostInterface* editInterface();

    // The node picked as "Pattern" (PatternPBAccessor).
    void setPatternNode(mq::Node* node) { patternNode_ = node; }
    // Fit the crop box to the pattern, with identity rotation. withUndo wraps
    // it in an undo step "Reset Crop Box".
    void resetCropBox(bool withUndo);
    // Read "Pattern_File" into the pattern store. False when nothing was loaded.
    bool loadPatternFile();
    // How often loadPatternFile ran.
    int loadPatternFileCalls() const { return loadPatternFileCalls_; }

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
    void ReleaseInterface(uint32_t id, void* i) override;
    mq::IOResult Save(mq::ISave* isave) override;
    mq::IOResult Load(mq::ILoad* iload) override;
    void BeginEditParams(mq::HostInterface* ip, uint32_t flags, mq::Animatable* prev) override;
    void EndEditParams(mq::HostInterface* ip, uint32_t flags, mq::Animatable* next) override;
    int NumParamBlocks() override { return 1; }
    mq::ParamBlock* GetParamBlock(int i) override { return pblock_; }
    mq::ParamBlock* GetParamBlockByID(mq::BlockID id) override;

private:
    void refreshWorkingCopy(mq::TimeValue t);

    mq::Mesh renderMesh_;
    float shift_ = 0.0f;
    int32_t patternSource_ = 0;
    mq::Matrix3 cropTransform_;
    mq::Point3 cropSize_{20.0f, 10.0f, 10.0f};
    std::array<int32_t, 2> segmentCounts_{1, 1};
    mq::Node* patternNode_ = nullptr;
    mq::Matrix3 patternNodeTM_;
    // The pattern store (the captured tile) goes here.
    float dummySize_ = 1.0f;
    int32_t patternEnabled_ = 1;
    mq::ParamBlock* pblock_ = nullptr;
    int aboutPage_ = 0;

    bool renderReady_ = false;
    int loadPatternFileCalls_ = 0;
    // Move, rotate, uniform scale, non-uniform scale, squash; while editing.
    std::array<std::unique_ptr<mq::CommandMode>, 5> cropModes_;
};

}  // namespace mosaiq
