#include "object/mosaiq.h"

#include "host/node.h"
#include "object/cropmodes.h"
#include "object/pattern_store.h"
#include "plugin/about.h"
#include "plugin/classdesc.h"
#include "plugin/entry.h"
#include "plugin/params.h"
#include "plugin/postload.h"
#include "plugin/resource.h"
#include "plugin/stringtable.h"
#include "render/instance.h"

#include <new>

namespace mosaiq {

using namespace mq;

namespace {

// The interface of the object being edited.
HostInterface* gEditIp = nullptr;

}  // namespace

Mosaiq::Mosaiq() : patternStore_(std::make_unique<PatternPointCloud>()) {
    gEditIp = nullptr;
    GetMosaiqDesc().MakeAutoParamBlocks(this);
    aboutPage_ = 0;
    if (pblock_) {
        pblock_->SetValue(kCropTransform, 0, Matrix3());
        // Deliberately a bare root, not a file: nothing loads until one is chosen.
        pblock_->SetValue(kPatternFile, 0, "/");
    }
    // No current interface counts as running without one.
    const HostInterface* core = GetCOREInterface();
    if (core && !core->RunningWithoutUI()) InitParamBlockUI(&patternPBDesc());
}

Mosaiq::~Mosaiq() {
    ClearParamBlockUI(&patternPBDesc());
    DeleteAllRefs();
}

HostInterface* Mosaiq::editInterface() { return gEditIp; }

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
    ++loadPatternFileCalls_;
    try {
        if (!pblock_) {
            lastPatternError_ = "Pattern file: the object has no parameter block";
            return false;
        }
        const std::string path = pblock_->GetStr(kPatternFile, 0);
        auto cloud = std::make_unique<PatternPointCloud>();
        std::string error;
        if (!loadPatternStore(*cloud, path, &error)) {
            lastPatternError_ = error;
            return false;
        }
        lastPatternError_.clear();
        sampledNodeHandle_ = 0;
        adoptPatternStore(std::move(cloud));
        return true;
    } catch (...) {
        // Called from the UI and the post-load callback: nothing leaves it.
        lastPatternError_ = "Pattern file: out of memory";
        return false;
    }
}

bool Mosaiq::browseAndLoadPatternFile(
    const std::function<std::optional<std::string>(const std::string& start)>& chooseFile) {
    lastPatternError_.clear();
    if (!pblock_ || !chooseFile) return false;
    std::optional<std::string> chosen;
    try {
        chosen = chooseFile(pblock_->GetStr(kPatternFile, 0));
        if (!chosen) return false;
        pblock_->SetValue(kPatternFile, 0, *chosen);
        patternPBDesc().InvalidateUI(kPatternFile);
    } catch (...) {
        lastPatternError_ = "Pattern file: the file could not be chosen";
        return false;
    }
    return loadPatternFile();
}

Animatable* Mosaiq::SubAnim(int i) { return pblock_; }

std::string Mosaiq::SubAnimName(int i) {
    const char* name = GetString(kStrBaseParameters);
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
    try {
        auto* copy = new Mosaiq();
        copy->ReplaceReference(0, remap.CloneRef(pblock_));
        BaseClone(this, copy, remap);
        return copy;
    } catch (...) {
        return nullptr;
    }
}

Interval Mosaiq::ObjectValidity(TimeValue t) {
    try {
        refreshWorkingCopy(t);
    } catch (...) {
        // A host callback: nothing leaves it; the copy keeps what it had.
    }
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
        if (ParamMap2UserDlgProc* proc = patternPBDesc().GetUserDlgProc(map)) proc->Update(t);

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

tracer::RenderInstance* Mosaiq::newRenderInstance(Node* node, tracer::RenderCore& core,
                                                  int renderId) {
    try {
        if (!renderReady_) {
            const std::string name = node ? "\"" + node->GetName() + "\"" : "a Mosaiq node";
            const std::string why = lastPatternError().empty()
                                        ? "no pattern has been loaded or picked"
                                        : lastPatternError();
            core.warning(name + " renders nothing: " + why);
            return nullptr;
        }
        return new (std::nothrow) MosaiqInstance(this, node, &core, renderId);
    } catch (...) {
        return nullptr;
    }
}

void Mosaiq::deleteRenderInstance(tracer::RenderInstance* instance) {
    // The flag is never cleared, so every instance made is deleted here.
    if (renderReady_) delete instance;
}

IOResult Mosaiq::Save(ISave* isave) { return IO_OK; }

IOResult Mosaiq::Load(ILoad* iload) {
    if (!iload) return IO_OK;
    try {
        iload->RegisterPostLoadCallback(new MQPostLoadCallback(this));
    } catch (...) {
        // Out of memory: the file pattern is not reloaded.
    }
    return IO_OK;
}

void Mosaiq::BeginEditParams(HostInterface* ip, uint32_t flags, Animatable* prev) {
    if (!ip) return;
    try {
        gEditIp = ip;
        GetMosaiqDesc().BeginEditParams(ip, this, flags, prev);
        // The rollouts' dialog procedures (surface, base, preview) go here.

        aboutPage_ = ip->AddRollupPage(kDlgAbout, "About", aboutDlgProc(), APPENDROLL_CLOSED,
                                       kAboutRollupCategory);
        ip->SetDlgItemText(aboutPage_, kCtlAboutText, aboutText());
        ip->RegisterDlgWnd(aboutPage_);

        std::array<std::unique_ptr<CommandMode>, 5> modes = {
            std::make_unique<MoveModBoxCMode>(this, ip),
            std::make_unique<RotateModBoxCMode>(this, ip),
            std::make_unique<UScaleModBoxCMode>(this, ip),
            std::make_unique<NUScaleModBoxCMode>(this, ip),
            std::make_unique<SquashModBoxCMode>(this, ip),
        };
        cropModes_ = std::move(modes);
        for (const auto& mode : cropModes_) ip->AddCommandMode(mode.get());
    } catch (...) {
        // A host callback: nothing leaves it; what was opened is closed by EndEditParams.
    }
}

void Mosaiq::EndEditParams(HostInterface* ip, uint32_t flags, Animatable* next) {
    if (!ip) return;
    try {
        GetMosaiqDesc().EndEditParams(ip, this, flags, next);
        if (aboutPage_) {
            ip->UnRegisterDlgWnd(aboutPage_);
            ip->DeleteRollupPage(aboutPage_);
            aboutPage_ = 0;
        }
        for (auto& mode : cropModes_) {
            if (!mode) continue;
            ip->DeleteMode(mode.get());
            mode.reset();
        }
        gEditIp = nullptr;
    } catch (...) {
        // A host callback: nothing leaves it.
    }
}

ParamBlock* Mosaiq::GetParamBlockByID(BlockID id) {
    // Block ids compare as 16-bit signed numbers.
    if (!pblock_ || static_cast<int16_t>(pblock_->ID()) != static_cast<int16_t>(id)) return nullptr;
    return pblock_;
}

}  // namespace mosaiq
