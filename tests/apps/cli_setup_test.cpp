// mosaiq import with materials, material, light, camera and assign: what they
// write when they work. Their failures are tabled in cli_test.cpp.
#include "support/cli_runner.h"
#include "support/picture.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;
using mq::test::readText;

class CliSetup : public mq::test::CliFixture {
protected:
    void SetUp() override { workDir_ = dir_.path().string(); }
    void run(const std::vector<std::string>& args) {
        const mq::test::CliResult r = mosaiq(args);
        ASSERT_EQ(r.code, 0) << args[0] << ": " << r.err;
    }
    json saved() const { return json::parse(readText(path("s.mosaiq"))); }
    const fs::path fixtures_ = fs::path(MOSAIQ_SOURCE_DIR) / "tests/fixtures/textured";
};

TEST_F(CliSetup, ImportedGltfTextureRenders) {
    run({"import", "s.mosaiq", (fixtures_ / "quad.glb").string()});
    EXPECT_EQ(saved()["materials"]["Checker"]["baseColor"]["texture"], "s-textures/quad_0.png");
    run({"camera", "s.mosaiq", "position=0,-8,2", "target=0,0,2", "fov=40"});
    run({"render", "s.mosaiq", "--resolution", "64x48", "--spp", "4", "-q", "-o", "r.png"});

    // The wall's middle shows the checker's red and white squares.
    const mq::test::Picture p = mq::test::readPicture(path("r.png"));
    int red = 0, white = 0;
    for (int y = 16; y < 32; ++y) {
        for (int x = 16; x < 32; ++x) {
            const uint8_t* c = p.at(x, y);
            red += c[0] > 2 * c[1] && c[0] > 100;
            white += c[1] > 150 && c[2] > 150;
        }
    }
    EXPECT_GT(red, 60);
    EXPECT_GT(white, 60);
}

TEST_F(CliSetup, CommandsWriteTheirValues) {
    fs::copy_file(fixtures_ / "checker.png", path("checker.png"));
    run({"import", "s.mosaiq", (fixtures_ / "quad.gltf").string()});
    run({"material", "s.mosaiq", "Brick", "baseColor=checker.png", "roughness=0.25"});
    run({"material", "s.mosaiq", "Brick", "channel=2", "metallic=1", "roughness="});
    run({"material", "s.mosaiq", "Grey", "baseColor=0.5", "emission=1,0.5,0"});
    run({"assign", "s.mosaiq", "Lamp", "Grey"});
    run({"assign", "s.mosaiq", "Wall", "Brick"});
    run({"material", "s.mosaiq", "Grey", "--remove"});
    json doc = saved();
    EXPECT_EQ(doc["materials"]["Brick"],
              json::parse(R"({"baseColor": {"texture": "checker.png", "channel": 2},
                              "metallic": 1.0})"));
    EXPECT_FALSE(doc["materials"].contains("Grey"));
    EXPECT_EQ(doc["nodes"][0]["material"], "Brick");
    EXPECT_FALSE(doc["nodes"][1].contains("material")) << doc["nodes"][1];

    run({"light", "s.mosaiq", "add", "sun", "direction=1,-1,2", "intensity=3"});
    run({"light", "s.mosaiq", "add", "dome", "image=checker.png", "rotation=90"});
    run({"light", "s.mosaiq", "add", "point", "position=0,0,5"});
    run({"light", "s.mosaiq", "set", "1", "color=0.5,0.5,1", "image="});
    run({"light", "s.mosaiq", "remove", "2"});
    EXPECT_EQ(saved()["lights"], json::parse(R"([
        {"type": "sun", "direction": [1.0, -1.0, 2.0], "intensity": 3.0},
        {"type": "dome", "rotation": 90.0, "color": [0.5, 0.5, 1.0]}])"));
    const mq::test::CliResult list = mosaiq({"light", "s.mosaiq", "list"});
    EXPECT_NE(list.out.find("1  dome  color=[0.5,0.5,1.0]"), std::string::npos) << list.out;

    run({"camera", "s.mosaiq", "fov=30", "position=1,-5,2"});
    EXPECT_EQ(saved()["camera"], json::parse(R"({"position": [1.0, -5.0, 2.0],
        "target": [0, 0, 0], "up": [0, 0, 1], "fov": 30.0})"));
    run({"camera", "s.mosaiq", "--auto"});
    EXPECT_TRUE(saved()["camera"].is_null());
}

}  // namespace
