#include "plugin/entry.h"

#include "host/check.h"
#include "object/params.h"
#include "object/resource.h"
#include "plugin/classdesc.h"
#include "plugin/stringtable.h"

namespace {

// Host release 14000, API 38, SDK revision 0.
constexpr unsigned long kLibVersion = 0x36B02600;

}  // namespace

extern "C" {

const char* LibDescription() { return mosaiq::GetString(mosaiq::kStrLibDescription); }

int LibNumberClasses() { return 1; }

mq::ClassDesc* LibClassDesc(int i) { return i == 0 ? &mosaiq::GetMosaiqDesc() : nullptr; }

unsigned long LibVersion() { return kLibVersion; }

int LibInitialize() { return 1; }

void InitParamBlockUI(mq::ParamBlockDesc* pbd) {
    MQ_BOUNDARY_BEGIN
    mosaiq::bindPatternControls(pbd);
    MQ_BOUNDARY_END([](const std::string& what) {
        mq::reportError("The Mosaiq rollouts stay unbound: " + what);
    })
}

void ClearParamBlockUI(mq::ParamBlockDesc* pbd) {
    // Rebinds rather than unbinds: the descriptor is shared by every object,
    // and the ones still alive keep their controls.
    InitParamBlockUI(pbd);
}

}  // extern "C"

int LibShutdown() { return 1; }
