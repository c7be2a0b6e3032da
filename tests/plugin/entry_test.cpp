// The string table and its one reused buffer. The entry points are
// plugin_load_tests', through dlopen.
#include "plugin/entry.h"
#include "object/mosaiq.h"
#include "plugin/classdesc.h"
#include "plugin/module.h"
#include "plugin/stringtable.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

using namespace mosaiq;

// Restores the recorded module handle after each test.
class StringTable : public ::testing::Test {
protected:
    void TearDown() override { setModuleHandle(saved_); }
    void* saved_ = moduleHandle();
};

TEST_F(StringTable, LookupsShareOneBufferAndOverwriteIt) {
    const char* first = GetString(4);
    ASSERT_NE(first, nullptr);
    const std::string kept = first;
    EXPECT_EQ(GetString(2), first);
    EXPECT_STREQ(first, "VRay");  // the earlier result now reads the later text
    EXPECT_EQ(kept, "Base Parameters");
    for (int missing : {0, 6, 35, 37, -1}) EXPECT_EQ(GetString(missing), nullptr) << missing;
}

TEST_F(StringTable, EverythingReadsNullWithoutModuleHandle) {
    setModuleHandle(nullptr);
    EXPECT_EQ(GetString(1), nullptr);
    EXPECT_EQ(LibDescription(), nullptr);
    EXPECT_EQ(GetMosaiqDesc().Category(), nullptr);
    // The object turns the null into an empty name.
    std::unique_ptr<Mosaiq> obj(new Mosaiq());
    EXPECT_EQ(obj->SubAnimName(0), "");
}

}  // namespace
