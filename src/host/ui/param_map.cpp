#include "host/ui/param_map.h"

#include "host/hold.h"
#include "host/interface.h"
#include "host/node.h"

#include <vector>

namespace mq::ui {

namespace {

TimeValue currentTime() {
    const HostInterface* ip = GetCOREInterface();
    return ip ? ip->GetTime() : 0;
}

// A spinner binding's edit and spinner ids of one table element.
int editOf(const ParamUIBinding& b, int element) { return b.controls[size_t(2 * element)]; }
int spinnerOf(const ParamUIBinding& b, int element) { return b.controls[size_t(2 * element + 1)]; }
int elementCount(const ParamUIBinding& b) { return int(b.controls.size() / 2); }

// Open maps of every block, for what concerns them all (the scene's unit).
std::vector<ParamMap*>& openMaps() {
    static std::vector<ParamMap*> maps;
    return maps;
}

}  // namespace

ParamMap::ParamMap(ParamBlock& block, MapID map, ParamMap2UserDlgProc* proc)
    : block_(&block), map_(map), proc_(proc) {
    block.GetDesc()->addOpenMap(this);
    openMaps().push_back(this);
}

ParamMap::~ParamMap() {
    block_->GetDesc()->removeOpenMap(this);
    std::erase(openMaps(), this);
}

void showWorldFieldsAgain() {
    for (ParamMap* map : openMaps()) {
        for (const ParamDef& def : map->GetParamBlock()->GetDesc()->params()) {
            // Every spinner: a procedure may have linked a float field as a world one.
            if (def.ui && def.ui->control == TYPE_SPINNER) map->Invalidate(def.id);
        }
    }
}

void ParamMap::SetUserDlgProc(ParamMap2UserDlgProc* proc) {
    proc_ = proc;
    if (proc_ && window_)
        proc_->DlgProc(currentTime(), *this, *window_, Message::Init, 0, Notify::Clicked);
}

void ParamMap::Invalidate() {
    for (const ParamDef& def : block_->GetDesc()->params()) show(def, -1);
}

void ParamMap::Invalidate(ParamID id, int tabIndex) {
    if (const ParamDef* def = block_->GetDesc()->GetParamDef(id)) show(*def, tabIndex);
}

void ParamMap::show(const ParamDef& def, int tabIndex) {
    if (!window_ || !def.ui || def.ui->map != map_) return;
    const ParamUIBinding& b = *def.ui;
    DialogWindow& w = *window_;
    const TimeValue t = currentTime();
    switch (b.control) {
        case TYPE_SPINNER:
            for (int e = 0; e < elementCount(b); ++e) {
                if (tabIndex >= 0 && e != tabIndex) continue;
                if (Spinner* s = w.spinner(spinnerOf(b, e))) {
                    const bool integer = def.type == TYPE_INT || def.type == TYPE_BOOL;
                    s->setValue(integer ? double(block_->GetInt(def.id, t, e))
                                        : double(block_->GetFloat(def.id, t, e)));
                }
            }
            break;
        case TYPE_SINGLECHEKBOX:
            w.setChecked(b.controls[0], block_->GetInt(def.id, t) != 0);
            break;
        case TYPE_RADIO: {
            const int value = block_->GetInt(def.id, t);
            for (size_t i = 0; i < b.controls.size() && i < b.radioValues.size(); ++i)
                w.setChecked(b.controls[i], b.radioValues[i] == value);
            break;
        }
        case TYPE_PICKNODEBUTTON: {
            const Node* node = block_->GetINode(def.id, t);
            w.setPickedNode(b.controls[0], node ? node->GetHandle() : 0);
            w.setText(b.controls[0], node ? node->GetName() : "None");
            break;
        }
        case TYPE_EDITBOX:
            w.setText(b.controls[0], block_->GetStr(def.id, t));
            break;
        default:
            break;
    }
}

bool ParamMap::store(int control) {
    DialogWindow& w = *window_;
    const TimeValue t = currentTime();
    for (const ParamDef& def : block_->GetDesc()->params()) {
        if (!def.ui || def.ui->map != map_) continue;
        const ParamUIBinding& b = *def.ui;
        int element = -1;
        if (b.control == TYPE_SPINNER) {
            for (int e = 0; e < elementCount(b); ++e)
                if (editOf(b, e) == control || spinnerOf(b, e) == control) element = e;
        } else {
            for (size_t i = 0; i < b.controls.size(); ++i)
                if (b.controls[i] == control) element = int(i);
        }
        if (element < 0) continue;

        // One undo step per edit, named after the parameter.
        theHold.Begin();
        switch (b.control) {
            case TYPE_SPINNER:
                if (const Spinner* s = w.spinner(spinnerOf(b, element))) {
                    if (def.type == TYPE_INT || def.type == TYPE_BOOL)
                        block_->SetValue(def.id, t, int(s->value()), element);
                    else
                        block_->SetValue(def.id, t, float(s->value()), element);
                }
                break;
            case TYPE_SINGLECHEKBOX:
                block_->SetValue(def.id, t, w.isChecked(control) ? 1 : 0);
                break;
            case TYPE_RADIO:
                if (size_t(element) < b.radioValues.size())
                    block_->SetValue(def.id, t, b.radioValues[size_t(element)]);
                break;
            case TYPE_PICKNODEBUTTON: {
                const Node::Handle handle = w.pickedNode(control);
                block_->SetValue(def.id, t, handle ? Node::fromHandle(handle) : nullptr);
                break;
            }
            case TYPE_EDITBOX:
                block_->SetValue(def.id, t, w.text(control));
                break;
            default:
                break;
        }
        theHold.Accept(def.internalName);
        // The block may have changed the value (an accessor, a range).
        show(def, b.control == TYPE_SPINNER ? element : -1);
        return true;
    }
    return false;
}

bool ParamMap::message(DialogWindow& window, Message msg, int control, Notify notify) {
    const TimeValue t = currentTime();
    if (msg == Message::Init) {
        window_ = &window;
        // Spinners are linked once: a procedure may re-link them afterwards.
        for (const ParamDef& def : block_->GetDesc()->params()) {
            if (!def.ui || def.ui->map != map_ || def.ui->control != TYPE_SPINNER) continue;
            for (int e = 0; e < elementCount(*def.ui); ++e) {
                Spinner* s = window.spinner(spinnerOf(*def.ui, e));
                if (!s) continue;
                s->linkToEdit(editOf(*def.ui, e), def.ui->spinnerType);
                s->setLimits(def.rangeMin.value_or(-1e30), def.rangeMax.value_or(1e30));
                s->setAutoScale(def.ui->autoScale);
            }
        }
        Invalidate();
    } else if (msg == Message::Command && window_) {
        store(control);
    }
    if (proc_) proc_->DlgProc(t, *this, window, msg, control, notify);
    if (msg == Message::Destroy) window_ = nullptr;
    return true;
}

}  // namespace mq::ui
