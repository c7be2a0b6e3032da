// `mosaiq help params`: the parameter reference printed from the loaded
// plug-in, and docs/parameters.md, which must carry it word for word.
#include "support/cli_runner.h"
#include "support/test_util.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sstream>

namespace {

using mq::test::readText;
using Result = mq::test::CliResult;

class CliHelpTest : public mq::test::CliFixture {};

TEST_F(CliHelpTest, ParamsDescribeEverySavedParameterAndTheDocsCarryTheGeneratedText) {
    // Every parameter a new object saves is listed with a description.
    const std::string scene = path("scene.mosaiq").string();
    ASSERT_EQ(mosaiq({"new", scene}).code, 0);
    const Result inspect = mosaiq({"inspect", scene, "--json"});
    ASSERT_EQ(inspect.code, 0) << inspect.err;
    const Result all = mosaiq({"help", "params"});
    ASSERT_EQ(all.code, 0) << all.err;
    EXPECT_EQ(all.out.find("(no description)"), std::string::npos) << all.out;
    const auto doc = nlohmann::json::parse(inspect.out);
    for (const auto& p : doc["nodes"][0]["object"]["paramBlocks"][0]["params"])
        EXPECT_NE(all.out.find("  " + p["name"].get<std::string>() + "\n"), std::string::npos)
            << p["name"];

    const Result one = mosaiq({"help", "params", "Height"});
    EXPECT_EQ(one.code, 0) << one.err;
    EXPECT_NE(one.out.find("unit: %"), std::string::npos) << one.out;
    EXPECT_NE(one.out.find("label: \"Height (%)\""), std::string::npos) << one.out;
    const Result typo = mosaiq({"help", "params", "Heigth"});
    EXPECT_EQ(typo.code, 2);
    EXPECT_NE(typo.err.find("did you mean \"Height\""), std::string::npos) << typo.err;

    // The docs hold each generated section, in order; pictures and prose
    // may sit between them.
    const Result md = mosaiq({"help", "params", "--markdown"});
    ASSERT_EQ(md.code, 0) << md.err;
    const std::string docs =
        readText(std::filesystem::path(MOSAIQ_SOURCE_DIR) / "docs/parameters.md");
    std::vector<std::string> sections;
    std::istringstream lines(md.out);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("#") || sections.empty()) sections.emplace_back();
        sections.back() += line + "\n";
    }
    // The blank lines that end a section may give way to a picture or the file's end.
    for (std::string& section : sections) section.erase(section.find_last_not_of('\n') + 2);
    ASSERT_GT(sections.size(), 18u);
    size_t at = 0;
    for (const std::string& section : sections) {
        const size_t found = docs.find(section, at);
        ASSERT_NE(found, std::string::npos)
            << "docs/parameters.md lacks, or has out of order, the generated section:\n"
            << section << "Write it again from `mosaiq help params --markdown`.";
        at = found + section.size();
    }
}

}  // namespace
