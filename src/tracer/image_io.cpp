// Image output through OpenImageIO, written atomically (host/atomic_file.h).
#include "tracer/renderer.h"

#include "host/atomic_file.h"

#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <cmath>

namespace mq::tracer {

namespace {

// A film-like shoulder: values up to the knee pass unchanged, so shadows and
// mid-tones look as a clipped image shows them; above it the curve keeps its
// slope of 1 and bends exponentially towards 1, so highlights keep detail
// instead of clipping (1 -> 0.85, 2 -> 0.99).
float filmic(float x) {
    constexpr float kKnee = 0.6f;
    if (x <= kKnee) return x;
    return kKnee + (1.0f - kKnee) * (1.0f - std::exp(-(x - kKnee) / (1.0f - kKnee)));
}

}  // namespace

uint8_t toSrgb8(float linear, const DisplayTransform& display, float scale) {
    float c = std::isfinite(linear) ? std::max(linear * scale, 0.0f) : 0.0f;
    if (display.curve == ToneCurve::Filmic) c = filmic(c);
    c = std::min(c, 1.0f);
    const float s = c <= 0.0031308f ? 12.92f * c : 1.055f * std::pow(c, 1.0f / 2.4f) - 0.055f;
    return uint8_t(std::lround(s * 255.0f));
}

namespace {

std::string lowerExtension(const std::filesystem::path& p) {
    std::string e = p.extension().string();
    std::transform(e.begin(), e.end(), e.begin(), [](unsigned char c) { return std::tolower(c); });
    return e;
}

void writeWith(const std::filesystem::path& file, const std::string& ext, const Image& img,
               const std::vector<std::pair<std::string, std::string>>& metadata) {
    auto out = OIIO::ImageOutput::create(file.string());
    if (!out) throw RenderError(OIIO::geterror());
    const size_t n = size_t(img.width) * img.height;
    if (ext == ".exr") {
        // RGBA, then the passes as layers.
        const int nc = 12;
        OIIO::ImageSpec imageSpec(img.width, img.height, nc, OIIO::TypeDesc::FLOAT);
        imageSpec.channelnames = {"R",           "G",        "B",        "A",
                                  "normal.X",    "normal.Y", "normal.Z", "depth.Z",
                                  "objectId.id", "uv.U",     "uv.V",     "uv.W"};
        imageSpec.alpha_channel = 3;
        imageSpec.z_channel = 7;
        imageSpec.attribute("compression", "zip");
        for (const auto& [k, v] : metadata) imageSpec.attribute(k, v);
        std::vector<float> px(n * nc);
        for (size_t i = 0; i < n; ++i) {
            float* d = &px[i * nc];
            std::copy_n(&img.rgba[4 * i], 4, d);
            std::copy_n(&img.normal[3 * i], 3, d + 4);
            d[7] = img.depth[i];
            d[8] = img.objectId[i];
            // Images built by hand may lack the pass.
            if (img.uv.size() == 3 * n) std::copy_n(&img.uv[3 * i], 3, d + 9);
        }
        if (!out->open(file.string(), imageSpec) ||
            !out->write_image(OIIO::TypeDesc::FLOAT, px.data()) || !out->close()) {
            throw RenderError(out->geterror());
        }
        return;
    }
    // 8-bit sRGB colour; JPEG has no alpha.
    const int nc = ext == ".png" ? 4 : 3;
    OIIO::ImageSpec imageSpec(img.width, img.height, nc, OIIO::TypeDesc::UINT8);
    imageSpec.attribute("oiio:ColorSpace", "sRGB");
    if (nc == 4) imageSpec.alpha_channel = 3;
    for (const auto& [k, v] : metadata) imageSpec.attribute(k, v);
    std::vector<uint8_t> px(n * nc);
    const float scale = std::exp2(img.display.exposure);
    for (size_t i = 0; i < n; ++i) {
        for (int c = 0; c < 3; ++c)
            px[i * nc + c] = toSrgb8(img.rgba[4 * i + c], img.display, scale);
        if (nc == 4) {
            px[i * nc + 3] =
                uint8_t(std::lround(std::clamp(img.rgba[4 * i + 3], 0.0f, 1.0f) * 255.0f));
        }
    }
    if (!out->open(file.string(), imageSpec) ||
        !out->write_image(OIIO::TypeDesc::UINT8, px.data()) || !out->close()) {
        throw RenderError(out->geterror());
    }
}

}  // namespace

void writeImage(const std::filesystem::path& path, const Image& image,
                const std::vector<std::pair<std::string, std::string>>& metadata) {
    const std::string ext = lowerExtension(path);
    if (ext != ".png" && ext != ".jpg" && ext != ".jpeg" && ext != ".exr") {
        throw RenderError(path.string() + ": unsupported image format \"" + ext +
                          "\" (use .png, .jpg or .exr)");
    }
    if (image.width < 1 || image.height < 1 ||
        image.rgba.size() != size_t(image.width) * image.height * 4) {
        throw RenderError(path.string() + ": no image to write");
    }
    // The temporary keeps the extension, by which OpenImageIO picks the format.
    try {
        writeFileAtomically(path, [&](const std::filesystem::path& temporary) {
            writeWith(temporary, ext, image, metadata);
        });
    } catch (const FileWriteError& e) {
        throw RenderError(e.what());
    } catch (const RenderError& e) {
        throw RenderError(path.string() + ": " + e.what());
    }
}

}  // namespace mq::tracer
