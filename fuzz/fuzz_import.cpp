// Mesh files from untrusted bytes, merged as `mosaiq import` merges them.
// The first byte picks the format (fuzz/mesh_formats.txt), the rest is the
// file. A merge either fails with a reason or adds meshes that pass the
// host's own validation.
#include "fuzz_support.h"

#include "host/interface.h"
#include "host/node.h"
#include "host/object.h"

#include <cstdio>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace mosaiq::fuzz;
    if (size == 0) return 0;
    const std::filesystem::path file = writeInput("mesh." + formatFor(data[0]), data + 1, size - 1);
    mq::HostInterface ip;
    const int merged =
        ip.MergeFromFile(file.string(), true, false, false, mq::MERGE_DUPS_RENAME, nullptr,
                         mq::MERGE_DUP_MTL_RENAME, mq::MERGE_REPARENT_ALWAYS);
    if (!merged) return 0;
    for (mq::Node* node : ip.scene().allNodes()) {
        mq::Object* obj = node->GetObjectRef();
        if (!obj || obj->ClassID() != mq::TRIOBJ_CLASS_ID) continue;
        for (const std::string& problem : static_cast<mq::TriObject*>(obj)->mesh.validate()) {
            std::fprintf(stderr, "mosaiq fuzz: node \"%s\": %s\n", node->GetName().c_str(),
                         problem.c_str());
            std::abort();
        }
    }
    return 0;
}
