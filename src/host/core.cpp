#include "host/core.h"

namespace mq {

void ReferenceMaker::ReplaceReference(int i, ReferenceTarget* target) {
    ReferenceTarget* old = GetReference(i);
    SetReference(i, target);
    if (old && old != target) old->DeleteThis();
}

void ReferenceMaker::DeleteAllRefs() {
    for (int i = 0; i < NumRefs(); ++i) {
        ReferenceTarget* t = GetReference(i);
        if (!t) continue;
        SetReference(i, nullptr);
        t->DeleteThis();
    }
}

}  // namespace mq
