#include "host/classdesc.h"
#include "host/interface.h"
#include "host/plugins.h"

#include "support/test_util.h"

namespace fs = std::filesystem;

namespace mq {
namespace {

TEST(Scene, UniqueNamesCountUpFromTheStrippedBase) {
    Scene scene;
    EXPECT_EQ(scene.uniqueName("Box"), "Box");
    scene.root()->attachChild(std::make_unique<Node>("Box"));
    EXPECT_EQ(scene.uniqueName("Box"), "Box001");
    scene.root()->attachChild(std::make_unique<Node>("Box001"));
    EXPECT_EQ(scene.uniqueName("Box"), "Box002");
    EXPECT_EQ(scene.uniqueName("Box001"), "Box002");
    EXPECT_EQ(scene.uniqueName(""), "Object001");
}

TEST(Scene, WorldTransformsChainThroughParents) {
    Scene scene;
    Node* parent = scene.root()->attachChild(std::make_unique<Node>("P"));
    parent->setLocalTM(TransMatrix({10, 0, 0}));
    Node* child = parent->attachChild(std::make_unique<Node>("C"));
    child->setLocalTM(RotateZMatrix(1.5707964f) * TransMatrix({0, 5, 0}));
    const Point3 p = Point3(1, 0, 0) * child->GetNodeTM(0);
    EXPECT_NEAR(p.x, 10, 1e-5f);
    EXPECT_NEAR(p.y, 6, 1e-5f);

    child->SetNodeTM(0, TransMatrix({3, 3, 3}));
    EXPECT_EQ(child->localTM().GetTrans(), Point3(-7, 3, 3));
}

TEST(HostInterfaceTest, DeleteNodeKeepsChildrenInPlaceAndClearsReferences) {
    HostInterface ip;
    Node* a = ip.GetRootNode()->attachChild(std::make_unique<Node>("A"));
    a->setLocalTM(TransMatrix({1, 2, 3}));
    Node* b = a->attachChild(std::make_unique<Node>("B"));
    b->setLocalTM(TransMatrix({10, 0, 0}));
    const Node::Handle handleA = a->GetHandle();

    ip.DeleteNode(a);
    EXPECT_EQ(Node::fromHandle(handleA), nullptr);
    ASSERT_EQ(ip.GetRootNode()->NumberOfChildren(), 1);
    EXPECT_EQ(ip.GetRootNode()->GetChildNode(0), b);
    EXPECT_EQ(b->GetNodeTM(0).GetTrans(), Point3(11, 2, 3));
    ip.DeleteNode(ip.GetRootNode());  // the root stays
    EXPECT_EQ(ip.GetRootNode()->NumberOfChildren(), 1);
}

TEST(HostInterfaceTest, FailedMergeChangesNothing) {
    test::TempDir dir;
    dir.write("garbage.obj", "this is not a mesh \x01\x02\n");
    HostInterface ip;
    ip.GetRootNode()->attachChild(std::make_unique<Node>("Keep"));
    for (const fs::path& bad : {dir / "missing.obj", dir / "garbage.obj", dir.path()}) {
        EXPECT_EQ(ip.MergeFromFile(bad.string(), true), 0) << bad;
        EXPECT_NE(ip.lastError().find(bad.filename().string()), std::string::npos)
            << ip.lastError();
        EXPECT_EQ(ip.GetRootNode()->NumberOfChildren(), 1);
    }
    EXPECT_EQ(ip.MergeFromFile((dir / "garbage.obj").string(), false), 0)
        << "nothing is merged without merge-all or a name list";
}

TEST(PluginLoader, BrokenLibrariesAreSkippedWithTheirReason) {
    test::TempDir dir;
    dir.write("garbage.dlo", "not an ELF file");
    for (const char* name : {"fake_wrong_version.dlo", "fake_no_init.dlo", "fake_init_fails.dlo"})
        fs::copy_file(fs::path(MOSAIQ_FAKE_PLUGIN_DIR) / name, dir / name);

    PluginManager pm;
    const std::vector<std::string> msgs = pm.loadFolder(dir.path());
    ASSERT_EQ(msgs.size(), 4u);
    auto has = [&](const char* file, const char* why) {
        for (const std::string& m : msgs)
            if (m.find(file) != std::string::npos && m.find(why) != std::string::npos) return true;
        return false;
    };
    EXPECT_TRUE(has("garbage.dlo", "cannot be loaded"));
    EXPECT_TRUE(has("fake_wrong_version.dlo", "0x12345678"));
    EXPECT_TRUE(has("fake_no_init.dlo", "LibInitialize"));
    EXPECT_TRUE(has("fake_init_fails.dlo", "LibInitialize failed"));
    EXPECT_TRUE(pm.libraries().empty());
    EXPECT_EQ(pm.loadFolder(dir / "nope").size(), 1u);
}

}  // namespace
}  // namespace mq
