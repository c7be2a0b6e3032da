#include "plugin/classdesc.h"

#include "object/mosaiq.h"
#include "plugin/module.h"
#include "plugin/params.h"
#include "plugin/resource.h"
#include "plugin/stringtable.h"

namespace mosaiq {

void* MosaiqClassDesc::Create(bool loading) {
    try {
        // Hand over the Object base: with more bases later its address may differ.
        return static_cast<mq::Object*>(new Mosaiq());
    } catch (...) {
        return nullptr;
    }
}

const char* MosaiqClassDesc::Category() { return GetString(kStrCategory); }

void* MosaiqClassDesc::HInstance() { return moduleHandle(); }

const char* MosaiqClassDesc::GetRsrcString(int id) { return GetString(id); }

void MosaiqClassDesc::SetUserDlgProc(mq::ParamMap2UserDlgProc* proc) {
    mq::ClassDesc::SetUserDlgProc(&patternPBDesc(), kBaseMap, proc);
}

MosaiqClassDesc& GetMosaiqDesc() {
    // Built on first use, which is the parameter-block descriptor's registration
    // among the library's statics; destroyed after it.
    static MosaiqClassDesc desc;
    return desc;
}

}  // namespace mosaiq
