#include "plugin/classdesc.h"

#include "host/check.h"
#include "object/params.h"
#include "object/resource.h"
#include "plugin/module.h"
#include "plugin/stringtable.h"
#include "ui/panels.h"
#include "ui/templates.h"

namespace mosaiq {

MosaiqClassDesc::MosaiqClassDesc() {
    mq::ParamBlockDesc& pbd = patternPBDesc();
    pbd.cd = this;
    AddParamBlockDesc(&pbd);
    installMosaiqPanels(&editPanels());
}

void* MosaiqClassDesc::Create(bool loading) {
    MQ_BOUNDARY_BEGIN
    // Hand over the Object base: with more bases later its address may differ.
    return static_cast<mq::Object*>(new Mosaiq());
    MQ_BOUNDARY_END([](const std::string& what) {
        mq::reportError("A Mosaiq object could not be created: " + what);
    })
    return nullptr;
}

const char* MosaiqClassDesc::Category() { return GetString(kStrCategory); }

void* MosaiqClassDesc::HInstance() { return moduleHandle(); }

const char* MosaiqClassDesc::GetRsrcString(int id) { return GetString(id); }

const mq::ui::DialogTemplate* MosaiqClassDesc::GetDialogTemplate(int id) {
    return dialogTemplate(id);
}

void MosaiqClassDesc::SetUserDlgProc(mq::ui::ParamMap2UserDlgProc* proc) {
    mq::ClassDesc::SetUserDlgProc(&patternPBDesc(), kBaseMap, proc);
}

MosaiqClassDesc& GetMosaiqDesc() {
    static MosaiqClassDesc desc;
    return desc;
}

}  // namespace mosaiq
