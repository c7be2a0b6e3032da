#include "object/mosaiq.h"

#include "host/check.h"
#include "host/node.h"
#include "object/cropmodes.h"
#include "object/panels.h"
#include "object/params.h"
#include "object/pattern_store.h"
#include "object/postload.h"
#include "object/resource.h"
#include "render/instance.h"

#include <new>

namespace mosaiq {

using namespace mq;

namespace {

// The interface of the object being edited.
HostInterface* gEditIp = nullptr;
MosaiqPanels* gPanels = nullptr;

}  // namespace

void installMosaiqPanels(MosaiqPanels* panels) { gPanels = panels; }

MosaiqPanels* mosaiqPanels() { return gPanels; }

Mosaiq::Mosaiq() : patternStore_(std::make_unique<PatternPointCloud>()) {
    gEditIp = nullptr;
    mosaiqClassDesc().MakeAutoParamBlocks(this);
    aboutPage_ = 0;
    if (pblock_) {
        pblock_->SetValue(kCropTransform, 0, Matrix3());
        // Deliberately a bare root, not a file: nothing loads until one is chosen.
        pblock_->SetValue(kPatternFile, 0, "/");
    }
    // No current interface counts as running without one.
    const HostInterface* core = GetCOREInterface();
    if (core && !core->RunningWithoutUI()) bindPatternControls(&patternPBDesc());
}

Mosaiq::~Mosaiq() {
    MQ_BOUNDARY_BEGIN
    // As ClearParamBlockUI does: the shared descriptor keeps its controls for
    // the objects still alive.
    bindPatternControls(&patternPBDesc());
    MQ_BOUNDARY_END(reportError)
    DeleteAllRefs();
}

HostInterface* Mosaiq::editInterface() { return gEditIp; }

ui::DialogWindow* Mosaiq::rolloutWindow(MapID map) const {
    return map >= 0 && size_t(map) < rolloutWindows_.size() ? rolloutWindows_[size_t(map)]
                                                            : nullptr;
}

void Mosaiq::setRolloutWindow(MapID map, ui::DialogWindow* window) {
    if (map >= 0 && size_t(map) < rolloutWindows_.size()) rolloutWindows_[size_t(map)] = window;
}

void Mosaiq::setPatternNode(Node* node) {
    patternNode_ = node;
    patternNodeHandle_ = node ? node->GetHandle() : 0;
    // A file pattern's store stays until another file is loaded.
    if (node && patternSource_ == kSourceScene) samplePatternNode(node);
}

Node* Mosaiq::livePatternNode() const {
    return patternNodeHandle_ ? Node::fromHandle(patternNodeHandle_) : nullptr;
}

void Mosaiq::samplePatternNode(Node* node) {
    // Noted first: evaluating the node may evaluate this object again.
    sampledNodeHandle_ = node->GetHandle();
    std::optional<Mesh> mesh = patternNodeMesh(node);
    if (!mesh) return;
    // The summary's box is the object's own bounds, as for a file pattern.
    TriObject pattern(std::move(*mesh));
    auto cloud = std::make_unique<PatternPointCloud>();
    if (sample(*cloud, &pattern)) adoptPatternStore(std::move(cloud));
}

void Mosaiq::adoptPatternStore(std::unique_ptr<PatternPointCloud> cloud) {
    patternStore_ = std::move(cloud);
    // The one place the flag is set; nothing clears it (see renderReady()).
    renderReady_ = true;
}

bool Mosaiq::loadPatternFile() {
    MQ_BOUNDARY_BEGIN
    if (!pblock_) {
        lastPatternError_ = "Pattern file: the object has no parameter block";
        return false;
    }
    auto cloud = std::make_unique<PatternPointCloud>();
    const StoreLoad result =
        loadPatternStore(*cloud, pblock_->GetStr(kPatternFile, 0), lastPatternError_);
    if (result == StoreLoad::Failed) return false;
    sampledNodeHandle_ = 0;
    if (result == StoreLoad::Emptied) {
        // The file's pattern replaces the old one even without faces: its
        // empty store leaves no crop box to fit.
        patternStore_ = std::move(cloud);
        if (HostInterface* ip = GetCOREInterface()) ip->RedrawViews();
        return false;
    }
    lastPatternError_.clear();
    adoptPatternStore(std::move(cloud));
    // The viewports show the store's points; no parameter changed to tell them.
    if (HostInterface* ip = GetCOREInterface()) ip->RedrawViews();
    return true;
    MQ_BOUNDARY_END(
        [this](const std::string& what) { lastPatternError_ = "Pattern file: " + what; })
    return false;
}

bool Mosaiq::browseAndLoadPatternFile(
    const std::function<std::optional<std::string>(const std::string& start)>& chooseFile) {
    lastPatternError_.clear();
    if (!pblock_ || !chooseFile) return false;
    MQ_BOUNDARY_BEGIN
    const std::optional<std::string> chosen = chooseFile(pblock_->GetStr(kPatternFile, 0));
    if (!chosen) return false;
    pblock_->SetValue(kPatternFile, 0, *chosen);
    patternPBDesc().InvalidateUI(kPatternFile);
    return loadPatternFile();
    MQ_BOUNDARY_END([this](const std::string& what) {
        lastPatternError_ = "Pattern file: the file could not be chosen: " + what;
    })
    return false;
}

Animatable* Mosaiq::SubAnim(int i) { return pblock_; }

std::string Mosaiq::SubAnimName(int i) {
    const char* name = mosaiqClassDesc().GetRsrcString(kStrBaseParameters);
    return name ? name : "";
}

ClassId Mosaiq::ClassID() const { return kMosaiqClassId; }

ReferenceTarget* Mosaiq::GetReference(int i) { return pblock_; }

void Mosaiq::SetReference(int i, ReferenceTarget* target) {
    pblock_ = dynamic_cast<ParamBlock*>(target);
    // A cloned or loaded block may still name another owner; its accessor must reach us.
    if (pblock_) pblock_->SetOwner(this);
}

ReferenceTarget* Mosaiq::Clone(RemapDir& remap) {
    MQ_BOUNDARY_BEGIN
    auto* copy = new Mosaiq();
    copy->ReplaceReference(0, remap.CloneRef(pblock_));
    BaseClone(this, copy, remap);
    return copy;
    MQ_BOUNDARY_END([](const std::string& what) {
        reportError("The Mosaiq object could not be cloned: " + what);
    })
    return nullptr;
}

Interval Mosaiq::ObjectValidity(TimeValue t) {
    // A host callback: on failure the copy keeps what it had.
    MQ_BOUNDARY_BEGIN
    refreshWorkingCopy(t);
    MQ_BOUNDARY_END([](const std::string& what) {
        reportError("The Mosaiq object could not read its parameters: " + what);
    })
    return Interval(t, t);
}

// Every setting except the pattern node is read at time 0: none is animatable.
void Mosaiq::refreshWorkingCopy(TimeValue t) {
    if (!pblock_) return;
    Interval valid = FOREVER;
    pblock_->GetValue(kDummySize, 0, dummySize_, valid);
    pblock_->GetValue(kPatternOn, 0, patternEnabled_, valid);

    // Rollouts that show derived state refresh their controls.
    for (MapID map : {kSurfaceMap, kBaseMap})
        if (ui::ParamMap2UserDlgProc* proc = patternPBDesc().GetUserDlgProc(map)) proc->Update(t);

    pblock_->GetValue(kPatternSource, 0, patternSource_, valid);
    if (patternSource_ == kSourceScene) {
        Node* node = nullptr;
        pblock_->GetValue(kPattern, t, node, valid);
        patternNode_ = node;
        patternNodeHandle_ = node ? node->GetHandle() : 0;
        // Only the node's position counts, not its rotation or scale.
        if (node) {
            patternNodeTM_.IdentityMatrix();
            patternNodeTM_.SetTrans(node->GetNodeTM(0).GetTrans());
        }
        // A node set past the accessor (a loaded scene, an undone pick) is
        // sampled here, once.
        if (node && node->GetHandle() != sampledNodeHandle_) samplePatternNode(node);
    }

    pblock_->GetValue(kCropTransform, 0, cropTransform_, valid);
    for (int i = 0; i < 3; ++i) pblock_->GetValue(kCropSize, 0, cropSize_[i], valid, i);
    for (int i = 0; i < 2; ++i)
        pblock_->GetValue(kRandomSegmentCount, 0, segmentCounts_[i], valid, i);
    pblock_->GetValue(kShift, 0, shift_, valid);
}

Mesh* Mosaiq::GetRenderMesh(TimeValue t, Node* node, View& view, bool& needDelete) {
    needDelete = false;
    return &renderMesh_;
}

void* Mosaiq::GetInterface(uint32_t id) {
    // Handed out as the interface's own pointer, so callers cast void* back to it.
    if (id == kPatternToolsInterfaceId) return static_cast<IPatternTools*>(patternTools());
    if (id == tracer::kRenderObjectInterfaceId) return static_cast<tracer::RenderObject*>(this);
    return GeomObject::GetInterface(id);
}

void Mosaiq::ReleaseInterface(uint32_t id, void* i) {
    // The render-object part is this object itself: nothing to release.
    if (id == tracer::kRenderObjectInterfaceId) return;
    GeomObject::ReleaseInterface(id, i);
}

MosaiqSettings Mosaiq::renderSettings() const {
    MosaiqSettings s;
    if (!pblock_) return s;
    ParamBlock& pb = *pblock_;
    s.pattern.fromFile = pb.GetInt(kPatternSource, 0) != kSourceScene;
    const Node* pattern = pb.GetINode(kPattern, 0);
    s.pattern.node = pattern ? pattern->GetHandle() : 0;
    s.pattern.file = pb.GetStr(kPatternFile, 0);
    s.crop.transform = pb.GetMatrix3(kCropTransform, 0);
    s.crop.size = Point3(pb.GetFloat(kCropSize, 0, 0), pb.GetFloat(kCropSize, 0, 1),
                         pb.GetFloat(kCropSize, 0, 2));
    s.crop.segmentCountU = pb.GetInt(kRandomSegmentCount, 0, 0);
    s.crop.segmentCountV = pb.GetInt(kRandomSegmentCount, 0, 1);
    const Node* surface = pb.GetINode(kSurface, 0);
    s.surface.surface = surface ? surface->GetHandle() : 0;
    s.surface.poliIdFrom = pb.GetInt(kPoliId, 0, 0);
    s.surface.poliIdTo = pb.GetInt(kPoliId, 0, 1);
    s.surface.height = pb.GetFloat(kHeight, 0);
    s.surface.shift = pb.GetFloat(kShift, 0);
    s.surface.mapChannel = pb.GetInt(kMapChannel, 0);
    s.surface.realWorldScale = pb.GetInt(kRealWorldScale, 0) != 0;
    s.surface.tilingU = pb.GetFloat(kTiling, 0, 0);
    s.surface.tilingV = pb.GetFloat(kTiling, 0, 1);
    s.useSurfaceMapping = pb.GetInt(kUseSurfaceMapping, 0) != 0;
    return s;
}

tracer::RenderInstance* Mosaiq::newRenderInstance(Node* node, tracer::RenderCore& core,
                                                  int renderId) {
    MQ_BOUNDARY_BEGIN
    if (!renderReady_) {
        const std::string name = node ? "\"" + node->GetName() + "\"" : "a Mosaiq node";
        const std::string why = lastPatternError().empty() ? "no pattern has been loaded or picked"
                                                           : lastPatternError();
        core.warning(name + " renders nothing: " + why);
        return nullptr;
    }
    return new (std::nothrow) MosaiqInstance(renderSettings(), this, node, &core, renderId);
    MQ_BOUNDARY_END([&](const std::string& what) {
        core.warning((node ? "\"" + node->GetName() + "\"" : std::string("a Mosaiq node")) +
                     " renders nothing: " + what);
    })
    return nullptr;
}

void Mosaiq::deleteRenderInstance(tracer::RenderInstance* instance) {
    // The flag is never cleared, so every instance made is deleted here.
    if (renderReady_) delete instance;
}

IOResult Mosaiq::Save(ISave* isave) { return IO_OK; }

IOResult Mosaiq::Load(ILoad* iload) {
    if (!iload) return IO_OK;
    MQ_BOUNDARY_BEGIN
    iload->RegisterPostLoadCallback(new MQPostLoadCallback(this));
    MQ_BOUNDARY_END([](const std::string& what) {
        reportError("The Mosaiq object's pattern file will not be reloaded: " + what);
    })
    return IO_OK;
}

void Mosaiq::BeginEditParams(HostInterface* ip, uint32_t flags, Animatable* prev) {
    if (!ip) return;
    // A host callback: what was opened is closed by EndEditParams.
    MQ_BOUNDARY_BEGIN
    gEditIp = ip;
    mosaiqClassDesc().BeginEditParams(ip, this, flags, prev);
    if (MosaiqPanels* panels = mosaiqPanels()) panels->open(*this, *ip);

    std::array<std::unique_ptr<CommandMode>, 5> modes = {
        std::make_unique<MoveModBoxCMode>(this, ip),
        std::make_unique<RotateModBoxCMode>(this, ip),
        std::make_unique<UScaleModBoxCMode>(this, ip),
        std::make_unique<NUScaleModBoxCMode>(this, ip),
        std::make_unique<SquashModBoxCMode>(this, ip),
    };
    cropModes_ = std::move(modes);
    for (const auto& mode : cropModes_) ip->AddCommandMode(mode.get());
    MQ_BOUNDARY_END([](const std::string& what) {
        reportError("The Mosaiq panels could not be opened: " + what);
    })
}

void Mosaiq::EndEditParams(HostInterface* ip, uint32_t flags, Animatable* next) {
    if (!ip) return;
    MQ_BOUNDARY_BEGIN
    mosaiqClassDesc().EndEditParams(ip, this, flags, next);
    if (MosaiqPanels* panels = mosaiqPanels()) panels->close(*this, *ip);
    for (auto& mode : cropModes_) {
        if (!mode) continue;
        ip->DeleteMode(mode.get());
        mode.reset();
    }
    gEditIp = nullptr;
    MQ_BOUNDARY_END([](const std::string& what) {
        reportError("The Mosaiq panels could not be closed: " + what);
    })
}

ParamBlock* Mosaiq::GetParamBlockByID(BlockID id) {
    // Block ids compare as 16-bit signed numbers.
    if (!pblock_ || static_cast<int16_t>(pblock_->ID()) != static_cast<int16_t>(id)) return nullptr;
    return pblock_;
}

}  // namespace mosaiq
