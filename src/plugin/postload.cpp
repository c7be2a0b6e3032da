#include "plugin/postload.h"

#include "object/mosaiq.h"
#include "plugin/params.h"

namespace mosaiq {

void MQPostLoadCallback::proc(mq::ILoad* iload) {
    try {
        if (mq::ParamBlock* pb = obj_ ? obj_->GetParamBlock(0) : nullptr) {
            int patternSource = kSourceScene;
            mq::Interval valid = mq::FOREVER;
            pb->GetValue(kPatternSource, 0, patternSource, valid);
            if (patternSource == kSourceFile) obj_->loadPatternFile();
        }
    } catch (...) {
        // A host callback: nothing leaves it.
    }
    delete this;
}

}  // namespace mosaiq
