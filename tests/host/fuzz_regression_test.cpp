// Every input the fuzz targets found failing in our code, saved under
// tests/fuzz-regressions/, replayed through the same entry point. The file
// name's prefix names the target: import-* is merged as `mosaiq import`
// merges it, scenefile-* is loaded as a scene.
#include "host/interface.h"
#include "host/object.h"
#include "host/scenefile.h"

#include "support/test_util.h"

namespace mq {
namespace {

namespace fs = std::filesystem;

TEST(FuzzRegressions, SavedInputsFailCleanly) {
    int replayed = 0;
    for (const fs::directory_entry& entry :
         fs::directory_iterator(fs::path(MOSAIQ_SOURCE_DIR) / "tests/fuzz-regressions")) {
        const fs::path file = entry.path();
        const std::string name = file.filename().string();
        SCOPED_TRACE(name);
        HostInterface ip;
        if (name.starts_with("import-")) {
            if (ip.MergeFromFile(file.string(), true, false, false, MERGE_DUPS_RENAME, nullptr,
                                 MERGE_DUP_MTL_RENAME, MERGE_REPARENT_ALWAYS)) {
                // What merges must be a valid mesh.
                for (Node* node : ip.scene().allNodes()) {
                    auto* tri = dynamic_cast<TriObject*>(node->GetObjectRef());
                    if (tri) {
                        EXPECT_EQ(tri->mesh.validate(), std::vector<std::string>());
                    }
                }
            }
        } else if (name.starts_with("scenefile-")) {
            try {
                loadScene(ip, file);
            } catch (const SceneError&) {
                // Refused with a reason: fine.
            }
        } else {
            ADD_FAILURE() << "no target for " << name;
            continue;
        }
        ++replayed;
    }
    EXPECT_GT(replayed, 0);
}

}  // namespace
}  // namespace mq
