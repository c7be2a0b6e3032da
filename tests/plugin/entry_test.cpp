// The library's entry points, string table and class descriptor.
#include "plugin/entry.h"
#include "host/plugins.h"
#include "object/mosaiq.h"
#include "plugin/classdesc.h"
#include "plugin/module.h"
#include "plugin/params.h"
#include "plugin/stringtable.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

namespace {

using namespace mosaiq;

TEST(LibEntry, OneClassAtIndexZeroOnlyVersionAndLifeCycle) {
    EXPECT_EQ(LibNumberClasses(), 1);
    EXPECT_EQ(LibClassDesc(0), &GetMosaiqDesc());
    EXPECT_EQ(LibClassDesc(1), nullptr);
    EXPECT_EQ(LibClassDesc(-1), nullptr);
    EXPECT_EQ(LibVersion(), 0x36B02600ul);
    EXPECT_EQ(LibInitialize(), 1);
    EXPECT_EQ(LibShutdown(), 1);
    EXPECT_STREQ(LibDescription(), "Mosaiq");
}

// Restores the recorded module handle after each test.
class StringTable : public ::testing::Test {
protected:
    void TearDown() override { setModuleHandle(saved_); }
    void* saved_ = moduleHandle();
};

TEST_F(StringTable, EntriesOfTheShell) {
    EXPECT_NE(moduleHandle(), nullptr) << "recorded at load";
    EXPECT_EQ(GetMosaiqDesc().HInstance(), moduleHandle());
    const std::pair<int, const char*> expected[] = {{1, "Mosaiq"},  {2, "VRay"},
                                                    {3, "Mosaiq"},  {4, "Base Parameters"},
                                                    {5, "Preview"}, {36, "Surface"}};
    for (const auto& [id, text] : expected) EXPECT_STREQ(GetString(id), text) << "id " << id;
    for (int missing : {0, 6, 35, 37, -1}) EXPECT_EQ(GetString(missing), nullptr) << missing;
}

TEST_F(StringTable, LookupsShareOneBufferAndOverwriteIt) {
    const char* first = GetString(4);
    ASSERT_NE(first, nullptr);
    const std::string kept = first;
    const char* second = GetString(2);
    EXPECT_EQ(first, second);
    EXPECT_STREQ(first, "VRay");  // the earlier result now reads the later text
    EXPECT_EQ(kept, "Base Parameters");
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

TEST(MosaiqClassDesc, IdentityThatSavedScenesUse) {
    MosaiqClassDesc& cd = GetMosaiqDesc();
    EXPECT_EQ(cd.ClassID(), mq::ClassId(0x4E307640, 0x2A77304F));
    EXPECT_EQ(cd.SuperClassID(), 0x10u);
    EXPECT_STREQ(cd.ClassName(), "Mosaiq");
    EXPECT_STREQ(cd.InternalName(), "PatternPattern");
    EXPECT_STREQ(cd.Category(), "VRay");
    ASSERT_EQ(cd.NumParamBlockDescs(), 1);
    EXPECT_EQ(cd.GetParamBlockDescByID(0), &patternPBDesc());
}

TEST(MosaiqClassDesc, CreateHandsOverTheObjectBase) {
    // The host casts Create's result to Object*; it must point at that base.
    auto* obj = static_cast<mq::Object*>(GetMosaiqDesc().Create(false));
    ASSERT_NE(obj, nullptr);
    EXPECT_NE(dynamic_cast<Mosaiq*>(obj), nullptr);
    EXPECT_EQ(obj->ClassID(), GetMosaiqDesc().ClassID());
    obj->DeleteThis();
}

}  // namespace
