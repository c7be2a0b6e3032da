// A new Mosaiq object, owned and freed as the host frees it.
#pragma once

#include "object/mosaiq.h"
#include "plugin/classdesc.h"

#include <memory>

namespace mosaiq::test {

struct DeleteThis {
    void operator()(mq::Animatable* a) const {
        if (a) a->DeleteThis();
    }
};
using MosaiqPtr = std::unique_ptr<Mosaiq, DeleteThis>;

inline MosaiqPtr newMosaiq() {
    return MosaiqPtr(
        dynamic_cast<Mosaiq*>(static_cast<mq::Object*>(GetMosaiqDesc().Create(false))));
}

}  // namespace mosaiq::test
