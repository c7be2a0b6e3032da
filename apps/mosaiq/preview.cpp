// mosaiq preview: the top-view preview texture of a Mosaiq node's tile, as
// the object's "Make Preview Texture" button makes it, or of a pattern file
// on its own. The image is written atomically (host/atomic_file.h), so a
// failure never leaves a partial file under the final name.
#include "cli.h"

#include "host/atomic_file.h"
#include "host/classdesc.h"
#include "host/node.h"
#include "host/object.h"
#include "host/paramblock.h"
#include "host/plugins.h"

#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace mosaiq::cli {

namespace fs = std::filesystem;

namespace {

constexpr const char* kMosaiqClass = "PatternPattern";
// JPEG has no alpha: the preview is laid over this mid grey, in the same
// (untransformed) values as the shading.
constexpr float kJpegBackground = 0.5f;

[[noreturn]] void usage(const std::string& what) { throw CliError(kExitUsage, what); }

std::string lowerExtension(const fs::path& p) {
    std::string e = p.extension().string();
    std::transform(e.begin(), e.end(), e.begin(), [](unsigned char c) { return std::tolower(c); });
    return e;
}

struct CropBox {
    mq::Point3 centre, size;
};

// "cx,cy,cz,sx,sy,sz": six finite numbers, the sizes above zero.
CropBox parseCropBox(const std::string& text) {
    const std::string expected =
        "--crop: expected cx,cy,cz,sx,sy,sz (centre and size of the crop box), found \"" + text +
        "\"";
    float v[6] = {};
    size_t start = 0;
    for (int i = 0; i < 6; ++i) {
        const size_t end = i < 5 ? text.find(',', start) : text.size();
        if (end == std::string::npos) usage(expected);
        std::string part = text.substr(start, end - start);
        part.erase(0, part.find_first_not_of(" \t"));
        part.erase(part.find_last_not_of(" \t") + 1);
        if (!part.empty() && part[0] == '+') part.erase(0, 1);
        const auto res = std::from_chars(part.data(), part.data() + part.size(), v[i]);
        if (part.empty() || res.ec != std::errc() || res.ptr != part.data() + part.size() ||
            !std::isfinite(v[i])) {
            usage(expected);
        }
        start = end + 1;
    }
    if (!(v[3] > 0.0f && v[4] > 0.0f && v[5] > 0.0f))
        usage("--crop " + text + ": the crop box's sizes must be above zero");
    return {{v[0], v[1], v[2]}, {v[3], v[4], v[5]}};
}

uint8_t toByte(float v) {
    return uint8_t(std::lround(std::clamp(std::isfinite(v) ? v : 0.0f, 0.0f, 1.0f) * 255.0f));
}

// The preview's values are written as they stand, with no sRGB transfer:
// the texture holds the shading values themselves (as the host's float
// bitmap does), ready to be used as a map. Its colour is coverage-weighted
// (associated alpha): EXR keeps it so; PNG, whose alpha is straight, gets it
// divided by the coverage; JPEG gets it laid over kJpegBackground.
void writeWith(const fs::path& file, const std::string& ext, const mq::PreviewImage& img) {
    auto out = OIIO::ImageOutput::create(file.string());
    if (!out) throw std::runtime_error(OIIO::geterror());
    const size_t n = size_t(img.width) * size_t(img.height);
    bool ok = false;
    if (ext == ".exr") {
        OIIO::ImageSpec imageSpec(img.width, img.height, 4, OIIO::TypeDesc::FLOAT);
        imageSpec.alpha_channel = 3;
        imageSpec.attribute("compression", "zip");
        ok = out->open(file.string(), imageSpec) &&
             out->write_image(OIIO::TypeDesc::FLOAT, img.rgba.data());
    } else if (ext == ".png") {
        OIIO::ImageSpec imageSpec(img.width, img.height, 4, OIIO::TypeDesc::UINT8);
        imageSpec.alpha_channel = 3;
        // Unassociated here in float, so 8-bit edge pixels keep their grey;
        // the flag stops OpenImageIO from dividing a second time.
        std::vector<float> straight(img.rgba);
        for (size_t i = 0; i < n; ++i) {
            float* p = &straight[4 * i];
            for (int c = 0; c < 3; ++c) p[c] = p[3] > 0.0f ? p[c] / p[3] : 0.0f;
        }
        std::vector<uint8_t> px(n * 4);
        std::transform(straight.begin(), straight.end(), px.begin(), toByte);
        imageSpec.attribute("oiio:UnassociatedAlpha", 1);
        ok = out->open(file.string(), imageSpec) &&
             out->write_image(OIIO::TypeDesc::UINT8, px.data());
    } else {
        OIIO::ImageSpec imageSpec(img.width, img.height, 3, OIIO::TypeDesc::UINT8);
        imageSpec.attribute("Compression", "jpeg:92");
        std::vector<uint8_t> px(n * 3);
        for (size_t i = 0; i < n; ++i) {
            const float* p = &img.rgba[4 * i];
            for (int c = 0; c < 3; ++c)
                px[3 * i + c] = toByte(p[c] + (1.0f - p[3]) * kJpegBackground);
        }
        ok = out->open(file.string(), imageSpec) &&
             out->write_image(OIIO::TypeDesc::UINT8, px.data());
    }
    if (!ok || !out->close()) throw std::runtime_error(out->geterror());
}

// Written atomically; the temporary keeps the extension, by which
// OpenImageIO picks the format.
void writePreview(const fs::path& path, const mq::PreviewImage& image) {
    const std::string ext = lowerExtension(path);
    try {
        mq::writeFileAtomically(
            path, [&](const fs::path& temporary) { writeWith(temporary, ext, image); });
    } catch (const mq::FileWriteError& e) {
        throw CliError(kExitOutput, e.what());
    } catch (const std::runtime_error& e) {
        throw CliError(kExitOutput, path.string() + ": " + e.what());
    }
}

mq::ParamBlock* blockWith(mq::Node& node, const std::string& name, const mq::ParamDef*& def) {
    mq::Object* obj = node.GetObjectRef();
    for (int b = 0; obj && b < obj->NumParamBlocks(); ++b) {
        mq::ParamBlock* pb = obj->GetParamBlock(b);
        def = pb ? pb->GetDesc()->findByName(name) : nullptr;
        if (def) return pb;
    }
    return nullptr;
}

// A scene of its own holding one Mosaiq object that takes its pattern from
// file, cropped to crop or, without one, to the whole pattern.
mq::Node* makePatternNode(mq::HostInterface& ip, const fs::path& file,
                          const std::optional<CropBox>& crop) {
    mq::ClassDesc* cd = mq::classDirectory().findByInternalName(kMosaiqClass);
    mq::Object* obj = cd ? mq::createObject(cd->SuperClassID(), cd->ClassID()) : nullptr;
    if (!obj) {
        throw CliError(kExitInput, std::string("class \"") + kMosaiqClass +
                                       "\" is not available: no Mosaiq plug-in was loaded from " +
                                       mq::PluginManager::defaultFolder().string());
    }
    auto owned = std::make_unique<mq::Node>("Preview");
    owned->SetObjectRef(obj);
    mq::Node* node = ip.GetRootNode()->attachChild(std::move(owned));
    mq::Scene& scene = ip.scene();
    applyAssignment(scene, *node, "Pattern_Source=1", false);
    applyAssignment(scene, *node, "Pattern_File=" + fs::absolute(file).string(), false);

    const std::string what = "--pattern " + file.string();
    if (!crop) {
        std::string error;
        if (!patternToolsOrFail(*node, what).resetCropBox(error))
            throw CliError(kExitInput, what + ": cannot use the pattern: " + error);
        return node;
    }
    std::ostringstream size;
    size.precision(9);
    size << "Crop_Size=" << crop->size.x << "," << crop->size.y << "," << crop->size.z;
    applyAssignment(scene, *node, size.str(), false);
    // The crop box keeps the object's rotation; only its centre moves.
    const mq::ParamDef* def = nullptr;
    mq::ParamBlock* pb = blockWith(*node, "Crop_Transfrom", def);
    if (!pb) throw CliError(kExitInput, "the Mosaiq object has no \"Crop_Transfrom\" parameter");
    mq::Matrix3 tm = pb->GetMatrix3(def->id);
    tm.SetTrans(crop->centre);
    pb->SetValue(def->id, 0, tm);
    return node;
}

// The image laid out n x n times; the caller has checked the size.
mq::PreviewImage repeated(const mq::PreviewImage& tile, int n) {
    mq::PreviewImage out;
    out.width = tile.width * n;
    out.height = tile.height * n;
    out.rgba.resize(size_t(out.width) * size_t(out.height) * 4);
    const size_t row = size_t(tile.width) * 4;
    for (int y = 0; y < out.height; ++y) {
        const float* from = &tile.rgba[size_t(y % tile.height) * row];
        float* to = &out.rgba[size_t(y) * size_t(out.width) * 4];
        for (int i = 0; i < n; ++i) std::copy(from, from + row, to + size_t(i) * row);
    }
    return out;
}

}  // namespace

void runPreview(mq::HostInterface& ip, const PreviewOptions& opt) {
    const bool fromFile = !opt.pattern.empty();
    if (fromFile && (!opt.scene.empty() || !opt.node.empty()))
        usage("preview takes either SCENE NODE or --pattern FILE, not both");
    if (!fromFile && (opt.scene.empty() || opt.node.empty()))
        usage("preview needs SCENE and NODE, or --pattern FILE");
    if (!fromFile && !opt.crop.empty())
        usage("--crop goes with --pattern; a scene's node keeps its own crop box");
    std::optional<CropBox> crop;
    if (!opt.crop.empty()) crop = parseCropBox(opt.crop);

    const fs::path out =
        !opt.output.empty()
            ? opt.output
            : fs::path((fromFile ? opt.pattern.stem().string() : opt.node) + "-preview.png");
    const std::string ext = lowerExtension(out);
    if (ext != ".png" && ext != ".exr" && ext != ".jpg" && ext != ".jpeg") {
        usage("-o " + out.string() + ": unsupported image format \"" + ext +
              "\" (use .png, .exr or .jpg)");
    }

    mq::Node* node = nullptr;
    std::string what;
    if (fromFile) {
        what = opt.pattern.string();
    } else {
        loadSceneOrFail(ip, opt.scene);
        node = findUniqueNode(ip.scene(), opt.node, opt.scene.string());
        what = opt.scene.string() + ": " + node->GetName();
        patternToolsOrFail(*node, opt.scene.string());
    }
    checkWritable(out, "an image");
    if (fromFile) node = makePatternNode(ip, opt.pattern, crop);
    // For this run only: the scene is never written back.
    if (opt.size > 0)
        applyAssignment(ip.scene(), *node, "Texture_Size=" + std::to_string(opt.size), false);

    checkStrict();
    mq::PreviewImage image;
    std::string error;
    if (!patternToolsOrFail(*node, what).previewTexture(0, image, error))
        throw CliError(kExitInput, what + ": cannot make the preview: " + error);
    if (opt.repeat > 1) {
        constexpr int kMaxSide = 16384;
        if (int64_t(image.width) * opt.repeat > kMaxSide ||
            int64_t(image.height) * opt.repeat > kMaxSide) {
            usage("--repeat " + std::to_string(opt.repeat) + ": a " + std::to_string(image.width) +
                  "x" + std::to_string(image.height) + " texture repeated so is more than " +
                  std::to_string(kMaxSide) + " pixels on a side");
        }
        image = repeated(image, opt.repeat);
    }
    checkStrict();
    writePreview(out, image);
    std::cout << "wrote " << out.string() << "\n";
}

}  // namespace mosaiq::cli
