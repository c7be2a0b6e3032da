// The procedural pieces held to their baked mesh: every example scene is
// rendered as it is, and again with its Mosaiq node hidden and the node's
// baked mesh imported in its place with the same material, same seed. Per
// pixel, the first hits must lie at the same distance. Colour is compared over
// blocks of pixels, where path-tracing noise averages out. Shading normals are
// left to the bake oracle in render_tests and the export round trip.
#include "support/cli_runner.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;
using Result = mq::test::CliResult;

// Small images: the test also runs under the sanitizers.
const char* const kResolution = "96x72";
const char* const kSpp = "4";
// Pixels whose first hits agree (both miss, or both hit within this distance,
// relative), and the share of pixels that must.
constexpr float kDepthTolerance = 1e-3f;
constexpr double kSameHit = 0.995;
// Mean colour over blocks of 12 x 12 pixels: |a - b| / (a + b) at most this.
constexpr int kBlock = 12;
constexpr double kBlockColour = 0.1;
struct MosaiqNode {
    std::string name, material;
};

// The scene's Mosaiq nodes, by class, with their materials.
std::vector<MosaiqNode> mosaiqNodes(const fs::path& scene) {
    std::vector<MosaiqNode> nodes;
    const json doc = json::parse(mq::test::readText(scene));
    for (const json& n : doc.at("nodes")) {
        if (n.at("object").at("class").value("name", "") != "PatternPattern") continue;
        nodes.push_back({n.at("name").get<std::string>(), n.value("material", std::string())});
    }
    return nodes;
}

// The first-hit depth and colour of every pixel of an EXR render.
struct Render {
    int width = 0, height = 0;
    std::vector<float> depth, rgb;
};

Render readExr(const fs::path& file) {
    Render r;
    auto in = OIIO::ImageInput::open(file.string());
    if (!in) {
        ADD_FAILURE() << "cannot read " << file;
        return r;
    }
    const OIIO::ImageSpec& imageSpec = in->spec();
    r.width = imageSpec.width;
    r.height = imageSpec.height;
    std::vector<float> all(size_t(r.width) * size_t(r.height) * size_t(imageSpec.nchannels));
    EXPECT_TRUE(in->read_image(0, 0, 0, imageSpec.nchannels, OIIO::TypeDesc::FLOAT, all.data()));
    // Depth, then colour, each read by name.
    const char* names[4] = {"depth.Z", "R", "G", "B"};
    int at[4];
    for (int k = 0; k < 4; ++k) {
        at[k] = imageSpec.channelindex(names[k]);
        if (at[k] < 0) {
            ADD_FAILURE() << file << " has no channel " << names[k];
            return r;
        }
    }
    for (size_t p = 0; p < size_t(r.width) * size_t(r.height); ++p) {
        const float* px = &all[p * size_t(imageSpec.nchannels)];
        r.depth.push_back(px[at[0]]);
        for (int a = 0; a < 3; ++a) r.rgb.push_back(px[at[1 + a]]);
    }
    return r;
}

class Differential : public mq::test::CliFixture {
protected:
    Result mustRun(const std::vector<std::string>& args) {
        Result r = mosaiq(args);
        std::string line = "mosaiq";
        for (const std::string& a : args) line += " " + a;
        EXPECT_EQ(r.code, 0) << line << "\n" << r.err;
        return r;
    }
};

TEST_F(Differential, BakedMeshRendersLikeTheProceduralPieces) {
    std::vector<fs::path> scenes;
    for (const auto& entry : fs::directory_iterator(fs::path(MOSAIQ_SOURCE_DIR) / "examples")) {
        if (entry.path().extension() == ".mosaiq") scenes.push_back(entry.path());
    }
    std::sort(scenes.begin(), scenes.end());
    ASSERT_GE(scenes.size(), 5u);

    for (const fs::path& scene : scenes) {
        const std::vector<MosaiqNode> nodes = mosaiqNodes(scene);
        ASSERT_EQ(nodes.size(), 1u) << scene << ": expected one Mosaiq node";
        const MosaiqNode& node = nodes.front();
        const std::string stem = scene.stem().string();
        const std::string relative = "examples/" + scene.filename().string();
        SCOPED_TRACE(relative);

        // The copy: the Mosaiq node hidden, its baked mesh in its place.
        const fs::path mesh = dir_ / ("baked_" + stem + ".glb");
        const fs::path copy = dir_ / (stem + "-baked.mosaiq");
        if (mustRun({"bake", relative, node.name, "-o", mesh.string()}).code != 0) continue;
        mustRun({"set", relative, node.name, "renderable=false", "-o", copy.string()});
        const Result imported = mustRun({"import", copy.string(), mesh.string()});
        const std::string merged = "merged " + mesh.string() + ": ";
        const size_t at = imported.out.find(merged);
        ASSERT_NE(at, std::string::npos) << imported.out;
        const size_t from = at + merged.size();
        const std::string bakedNode =
            imported.out.substr(from, imported.out.find('\n', from) - from);
        // The baked node takes the Mosaiq node's material. Written into the file
        // here: `mosaiq set` would read the whole baked mesh once more.
        if (!node.material.empty()) {
            json doc = json::parse(mq::test::readText(copy));
            int named = 0;
            for (json& n : doc.at("nodes")) {
                if (n.at("name") != bakedNode) continue;
                n["material"] = node.material;
                ++named;
            }
            ASSERT_EQ(named, 1) << bakedNode;
            mq::test::writeText(copy, doc.dump(2));
        }

        // Two threads each, one after the other: renders do not depend on the thread count.
        const fs::path images[2] = {dir_ / (stem + "-procedural.exr"),
                                    dir_ / (stem + "-baked.exr")};
        auto render = [&](const fs::path& source, const fs::path& image) {
            return mustRun({"render", source.string(), "-o", image.string(), "--resolution",
                            kResolution, "--spp", kSpp, "--seed", "7", "-t", "2", "-q"})
                       .code == 0;
        };
        if (!render(scene, images[0]) || !render(copy, images[1])) continue;
        const Render a = readExr(images[0]), b = readExr(images[1]);
        ASSERT_EQ(a.width, b.width);
        ASSERT_EQ(a.height, b.height);
        ASSERT_EQ(a.depth.size(), size_t(a.width) * size_t(a.height));
        ASSERT_EQ(b.depth.size(), a.depth.size());

        const size_t pixels = a.depth.size();
        size_t sameHit = 0;
        for (size_t p = 0; p < pixels; ++p) {
            const float da = a.depth[p], db = b.depth[p];
            const bool missA = !(da > 0.0f), missB = !(db > 0.0f);
            if (missA || missB) {
                sameHit += missA == missB ? 1 : 0;
                continue;
            }
            if (std::fabs(da - db) <= kDepthTolerance * std::max(da, db)) ++sameHit;
        }
        double worstBlock = 0.0;
        for (int by = 0; by + kBlock <= a.height; by += kBlock) {
            for (int bx = 0; bx + kBlock <= a.width; bx += kBlock) {
                double sa = 0.0, sb = 0.0;
                for (int y = by; y < by + kBlock; ++y) {
                    for (int x = bx; x < bx + kBlock; ++x) {
                        const size_t p = size_t(y) * size_t(a.width) + size_t(x);
                        for (int c = 0; c < 3; ++c) {
                            sa += a.rgb[3 * p + c];
                            sb += b.rgb[3 * p + c];
                        }
                    }
                }
                worstBlock = std::max(worstBlock, std::fabs(sa - sb) / std::max(sa + sb, 1e-3));
            }
        }

        const double sameShare = double(sameHit) / double(pixels);
        std::printf("[ compared ] %s: %.4f of pixels hit alike; worst block colour %.3f\n",
                    relative.c_str(), sameShare, worstBlock);
        EXPECT_GE(sameShare, kSameHit)
            << relative << ": only " << sameShare * 100.0 << "% of pixels hit at the same distance";
        EXPECT_LE(worstBlock, kBlockColour) << relative;
    }
}

}  // namespace
