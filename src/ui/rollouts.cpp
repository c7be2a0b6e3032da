#include "ui/rollouts.h"

#include "host/check.h"
#include "host/node.h"
#include "host/pattern_tools.h"
#include "object/mosaiq.h"
#include "object/params.h"
#include "ui/library_browser.h"
#include "ui/templates.h"

#include <utility>

namespace mosaiq {

using mq::ui::DialogWindow;
using mq::ui::Message;

namespace {

constexpr const char* kMakePreviewCaption = "Make Preview Texture";
constexpr const char* kInProgressCaption = "In Progress...";

// The node a parameter names at time 0; null for none or a deleted one.
mq::Node* nodeOf(mq::ParamBlock* pb, mq::ParamID id) { return pb ? pb->GetINode(id, 0) : nullptr; }

// The check box of a node's renderable flag: greyed without a node.
void showRenderable(DialogWindow& window, int box, const mq::Node* node) {
    window.enable(box, node != nullptr);
    if (node) window.setChecked(box, node->Renderable());
}

// Flip the node's flag from its own state, not the box's: they can differ
// when the node was changed elsewhere.
void toggleRenderable(DialogWindow& window, int box, mq::Node* node) {
    if (!node) return;
    const bool on = !node->Renderable();
    node->SetRenderable(on);
    window.setChecked(box, on);
}

}  // namespace

// ---- Every rollout ----

void PatternRolloutDlgProc::bind(Mosaiq* obj, mq::HostInterface* ip) {
    obj_ = obj;
    ip_ = ip;
}

mq::ParamBlock* PatternRolloutDlgProc::block() const {
    return obj_ ? obj_->GetParamBlock(0) : nullptr;
}

void PatternRolloutDlgProc::warn(const std::string& text) const noexcept {
    try {
        if (ip_ && ip_->ui()) {
            ip_->ui()->messageBox(text, "Mosaiq", mq::ui::MessageBoxButtons::Ok,
                                  mq::ui::MessageBoxIcon::Warning);
            return;
        }
    } catch (...) {
        // No box could be shown: the warning goes where reportError sends it.
    }
    mq::reportError(text);
}

bool PatternRolloutDlgProc::DlgProc(mq::TimeValue t, mq::ui::ParamMap& map, DialogWindow& window,
                                    Message msg, int control, mq::ui::Notify notify) {
    MQ_BOUNDARY_BEGIN
    switch (msg) {
        case Message::Init:
            window_ = &window;
            // Unbound, the procedure waits for the Init its installation sends.
            if (obj_) {
                obj_->setRolloutWindow(map_, &window);
                init();
            }
            break;
        case Message::Destroy:
            if (obj_) obj_->setRolloutWindow(map_, nullptr);
            window_ = nullptr;
            break;
        case Message::Command:
            if (window_ && obj_) command(control);
            break;
        default:
            break;
    }
    MQ_BOUNDARY_END([this](const std::string& what) {
        warn(std::string("The \"") + title_ + "\" rollout could not finish: " + what);
    })
    return false;
}

void PatternRolloutDlgProc::Update(mq::TimeValue t) {
    if (!window_ || !obj_) return;
    // Called from the object's evaluation, which must go on.
    MQ_BOUNDARY_BEGIN
    refresh();
    MQ_BOUNDARY_END(mq::reportError)
}

// ---- Base Parameters ----

PatternBaseDlgProc::PatternBaseDlgProc() : PatternRolloutDlgProc(kBaseMap, "Base Parameters") {}

void PatternBaseDlgProc::init() { refresh(); }

void PatternBaseDlgProc::refresh() {
    showRenderable(*window_, base::kPatternRenderable, nodeOf(block(), kPattern));
    updateSourceControls();
}

void PatternBaseDlgProc::command(int control) {
    switch (control) {
        case base::kFitCropBox:
            obj_->fitCropBox();
            break;
        case base::kResetCropBox:
            obj_->resetCropBox(true);
            break;
        case base::kPatternRenderable:
            toggleRenderable(*window_, base::kPatternRenderable, nodeOf(block(), kPattern));
            break;
        case base::kFromScene:
        case base::kFromFile:
            // The map has stored the new source already.
            updateSourceControls();
            break;
        case base::kBrowse:
            browse();
            break;
        case base::kUpdateFile:
            updateFile();
            break;
        default:
            break;
    }
}

void PatternBaseDlgProc::updateSourceControls() {
    mq::ParamBlock* pb = block();
    // A value that is neither leaves every source control greyed.
    const int source = pb ? pb->GetInt(kPatternSource, 0) : -1;
    window_->enable(base::kPatternPick, source == kSourceScene);
    for (int id : {base::kPatternFile, base::kBrowse, base::kUpdateFile})
        window_->enable(id, source == kSourceFile);
}

void PatternBaseDlgProc::browse() {
    if (!ip_) return;
    mq::HostInterface& ip = *ip_;
    // Stores the choice, shows it in the file edit and loads it.
    if (obj_->browseAndLoadPatternFile(
            [&ip](const std::string& start) { return browseLibrary(ip, start); }))
        return;
    // Cancelled leaves no reason: nothing changed.
    if (!obj_->lastPatternError().empty()) warn(obj_->lastPatternError());
}

void PatternBaseDlgProc::updateFile() {
    if (obj_->loadPatternFile()) return;
    std::string why = obj_->lastPatternError();
    if (why.empty()) {
        mq::ParamBlock* pb = block();
        why = "Pattern file \"" + (pb ? pb->GetStr(kPatternFile, 0) : std::string()) +
              "\" could not be loaded";
    }
    warn(why);
}

// ---- Surface ----

PatternSurfaceDlgProc::PatternSurfaceDlgProc() : PatternRolloutDlgProc(kSurfaceMap, "Surface") {}

void PatternSurfaceDlgProc::init() {
    refresh();
    applyTilingEditKind();
}

void PatternSurfaceDlgProc::refresh() {
    showRenderable(*window_, surface::kSurfaceRenderable, nodeOf(block(), kSurface));
}

void PatternSurfaceDlgProc::command(int control) {
    switch (control) {
        case surface::kSurfaceRenderable:
            toggleRenderable(*window_, surface::kSurfaceRenderable, nodeOf(block(), kSurface));
            break;
        case surface::kRealWorldScale:
            // The map has stored the new check state already.
            applyTilingEditKind();
            break;
        default:
            break;
    }
}

void PatternSurfaceDlgProc::applyTilingEditKind() {
    mq::ParamBlock* pb = block();
    const bool world = pb && pb->GetInt(kRealWorldScale, 0) != 0;
    const mq::EditSpinnerType kind = world ? mq::EDITTYPE_UNIVERSE : mq::EDITTYPE_FLOAT;
    const std::pair<int, int> pairs[] = {{surface::kTilingUEdit, surface::kTilingUSpinner},
                                         {surface::kTilingVEdit, surface::kTilingVSpinner}};
    for (const auto& [edit, spinner] : pairs)
        if (mq::ui::Spinner* s = window_->spinner(spinner)) s->linkToEdit(edit, kind);
}

// ---- Preview ----

PatternPreviewDlgProc::PatternPreviewDlgProc() : PatternRolloutDlgProc(kPreviewMap, "Preview") {}

void PatternPreviewDlgProc::command(int control) {
    if (control != preview::kMakePreviewTexture) return;
    // Painted at once: the work blocks the interface until it is done.
    window_->setText(preview::kMakePreviewTexture, kInProgressCaption);
    window_->redraw(preview::kMakePreviewTexture);
    MQ_BOUNDARY_BEGIN
    makePreviewTexture();
    MQ_BOUNDARY_END(
        [this](const std::string& what) { warn("The preview texture could not be made: " + what); })
    window_->setText(preview::kMakePreviewTexture, kMakePreviewCaption);
}

void PatternPreviewDlgProc::makePreviewTexture() {
    mq::IPatternTools* tools = obj_->patternTools();
    if (!ip_ || !tools) return;
    mq::PreviewImage preview;
    std::string error;
    if (!tools->previewTexture(ip_->GetTime(), preview, error)) {
        warn("The preview texture could not be made: " + error);
        return;
    }
    if (mq::ui::HostUI* ui = ip_->ui())
        ui->showImage({preview.width, preview.height, std::move(preview.rgba)}, "");
}

}  // namespace mosaiq
