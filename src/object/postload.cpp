#include "object/postload.h"

#include "host/check.h"
#include "object/mosaiq.h"
#include "object/params.h"

namespace mosaiq {

void MQPostLoadCallback::proc(mq::ILoad* iload) {
    // A host callback: nothing leaves it. A failed load is kept in the
    // object's lastPatternError() and reported when it renders.
    MQ_BOUNDARY_BEGIN
    if (mq::ParamBlock* pb = obj_ ? obj_->GetParamBlock(0) : nullptr) {
        int patternSource = kSourceScene;
        mq::Interval valid = mq::FOREVER;
        pb->GetValue(kPatternSource, 0, patternSource, valid);
        if (patternSource == kSourceFile) obj_->loadPatternFile();
    }
    MQ_BOUNDARY_END(mq::reportError)
    delete this;
}

}  // namespace mosaiq
