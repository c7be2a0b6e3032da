// Loads the built Mosaiq.dlo as the host does: through the plug-in manager
// and through plain dlopen/dlsym.
#include "host/classdesc.h"
#include "host/object.h"
#include "host/paramblock.h"
#include "host/plugins.h"

#include "support/test_util.h"

#include <dlfcn.h>

namespace fs = std::filesystem;

namespace {

const fs::path kLibrary = fs::path(MOSAIQ_BIN_DIR) / "Mosaiq.dlo";
const mq::ClassId kMosaiqClassId{0x4E307640, 0x2A77304F};

TEST(PluginLoad, ExportsWhatTheHostLooksUp) {
    void* lib = dlopen(kLibrary.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(lib, nullptr) << dlerror();

    for (const char* name :
         {"LibDescription", "LibNumberClasses", "LibClassDesc", "LibVersion", "LibInitialize",
          "_Z11LibShutdownv", "InitParamBlockUI", "ClearParamBlockUI"})
        EXPECT_NE(dlsym(lib, name), nullptr) << name;
    // LibShutdown keeps its C++ name; the library's internals stay hidden.
    EXPECT_EQ(dlsym(lib, "LibShutdown"), nullptr);
    EXPECT_EQ(dlsym(lib, "_ZN6mosaiq9GetStringEi"), nullptr);

    auto version = reinterpret_cast<mq::LibVersionFn>(dlsym(lib, "LibVersion"));
    auto description = reinterpret_cast<mq::LibDescriptionFn>(dlsym(lib, "LibDescription"));
    auto classDesc = reinterpret_cast<mq::LibClassDescFn>(dlsym(lib, "LibClassDesc"));
    auto numberClasses = reinterpret_cast<mq::LibNumberClassesFn>(dlsym(lib, "LibNumberClasses"));
    auto initialize = reinterpret_cast<mq::LibInitializeFn>(dlsym(lib, "LibInitialize"));
    auto shutdown = reinterpret_cast<mq::LibShutdownFn>(dlsym(lib, mq::kLibShutdownSymbol));
    ASSERT_TRUE(version && description && classDesc && numberClasses && initialize && shutdown);

    EXPECT_EQ(version(), 0x36B02600ul);
    EXPECT_EQ(initialize(), 1);
    EXPECT_EQ(numberClasses(), 1);
    // The module handle was recorded while loading: strings resolve at once,
    // and the handle is the library's own.
    EXPECT_STREQ(description(), "Mosaiq");
    mq::ClassDesc* cd = classDesc(0);
    ASSERT_NE(cd, nullptr);
    EXPECT_EQ(cd->HInstance(), lib);
    EXPECT_EQ(classDesc(1), nullptr);
    EXPECT_EQ(classDesc(-1), nullptr);
    EXPECT_EQ(shutdown(), 1);
    EXPECT_EQ(dlclose(lib), 0);
    // Recording the handle gave back the reference it took: the library is gone.
    EXPECT_EQ(dlopen(kLibrary.c_str(), RTLD_NOLOAD | RTLD_LAZY), nullptr);
}

TEST(PluginLoad, FolderLoadSkipsANonLibraryAndRegistersTheClassUntilUnload) {
    mq::test::TempDir folder;
    folder.write("x.dlo", "this is not an ELF shared object\n");
    fs::copy_file(kLibrary, folder.path() / "y.dlo");
    mq::PluginManager manager;
    const std::vector<std::string> messages = manager.loadFolder(folder.path());
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_NE(messages[0].find("x.dlo"), std::string::npos) << messages[0];
    // The rest of the folder still loads.
    ASSERT_EQ(manager.libraries().size(), 1u);
    EXPECT_EQ(manager.libraries()[0].description, "Mosaiq");
    EXPECT_EQ(manager.libraries()[0].classes.size(), 1u);

    mq::ClassDesc* cd = mq::classDirectory().find(mq::GEOMOBJECT_CLASS_ID, kMosaiqClassId);
    ASSERT_NE(cd, nullptr);
    EXPECT_EQ(mq::classDirectory().findByInternalName("PatternPattern"), cd);
    mq::Object* obj = mq::createObject(mq::GEOMOBJECT_CLASS_ID, kMosaiqClassId);
    ASSERT_NE(obj, nullptr);
    EXPECT_EQ(obj->ClassID(), kMosaiqClassId);
    ASSERT_NE(obj->GetParamBlockByID(0), nullptr);
    EXPECT_EQ(obj->GetParamBlockByID(0)->GetStr(18), "/");
    EXPECT_EQ(obj->ObjectValidity(160), mq::Interval(160, 160));
    EXPECT_EQ(obj->CanConvertToType(mq::TRIOBJ_CLASS_ID), 0);
    obj->DeleteThis();

    manager.unloadAll();
    EXPECT_EQ(mq::classDirectory().find(mq::GEOMOBJECT_CLASS_ID, kMosaiqClassId), nullptr);
    EXPECT_EQ(mq::classDirectory().findByInternalName("PatternPattern"), nullptr);
}

}  // namespace
