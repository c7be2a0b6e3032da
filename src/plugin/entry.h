// The library's exported entry points, as the host looks them up with dlsym.
// All but LibShutdown have C linkage; LibShutdown is found by its C++ name
// "_Z11LibShutdownv". None of them throws.
#pragma once

#include "host/classdesc.h"
#include "host/paramblock.h"

#define MQ_EXPORT __attribute__((visibility("default")))

extern "C" {
// String-table entry 1 ("Mosaiq"); null before the module handle is known.
MQ_EXPORT const char* LibDescription();
MQ_EXPORT int LibNumberClasses();
// The Mosaiq class descriptor for 0, null for any other index.
MQ_EXPORT mq::ClassDesc* LibClassDesc(int i);
// The host version the library was built for.
MQ_EXPORT unsigned long LibVersion();
MQ_EXPORT int LibInitialize();
// Bind the parameters of pbd to their rollout controls.
MQ_EXPORT void InitParamBlockUI(mq::ParamBlockDesc* pbd);
// Issues the same bindings as InitParamBlockUI; it removes nothing.
MQ_EXPORT void ClearParamBlockUI(mq::ParamBlockDesc* pbd);
}

MQ_EXPORT int LibShutdown();
