// Textures, the lat-long environment and its sampler, and the asset cache.
#include "tracer/texture.h"

#include "tracer/renderer.h"
#include "tracer/sampling.h"

#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <array>
#include <cmath>

namespace mq::tracer {

namespace {

float srgbToLinear(float s) {
    return s <= 0.04045f ? s / 12.92f : std::pow((s + 0.055f) / 1.055f, 2.4f);
}

const std::array<float, 256>& srgb8Table() {
    static const std::array<float, 256> table = [] {
        std::array<float, 256> t{};
        for (int i = 0; i < 256; ++i) t[i] = srgbToLinear(float(i) / 255.0f);
        return t;
    }();
    return table;
}

float cleanTexel(float f) { return std::isfinite(f) && f > 0.0f ? f : 0.0f; }

float luminance(const Point3& c) { return 0.2126f * c.x + 0.7152f * c.y + 0.0722f * c.z; }

// i wrapped into [0, n): repeat addressing.
int wrapIndex(int i, int n) {
    const int r = i % n;
    return r < 0 ? r + n : r;
}

// Index i with cdf[i] <= u < cdf[i + 1], and where u falls inside that step.
// cdf runs from 0 to exactly 1, u is in [0, 1).
int sampleCdf(const float* cdf, int n, float u, float& fraction) {
    const float* it = std::upper_bound(cdf, cdf + n + 1, u);
    const int i = std::clamp(int(it - cdf) - 1, 0, n - 1);
    const float width = cdf[i + 1] - cdf[i];
    fraction = width > 0.0f ? std::clamp((u - cdf[i]) / width, 0.0f, 1.0f) : 0.5f;
    return i;
}

// Normalised running sums of w[0..n): n + 1 entries from 0 to exactly 1, or
// all zero when the weights are.
void buildCdf(const double* w, int n, float* cdf) {
    double total = 0.0;
    for (int i = 0; i < n; ++i) total += w[i];
    double run = 0.0;
    cdf[0] = 0.0f;
    for (int i = 0; i < n; ++i) {
        run += w[i];
        cdf[i + 1] = total > 0.0 ? float(run / total) : 0.0f;
    }
    if (total > 0.0) cdf[n] = 1.0f;
}

// (s, t) of unit direction d in the map's frame; see EnvironmentMap.
void directionToImage(const Point3& d, float& s, float& t) {
    const float phi = std::atan2(d.y, d.x);
    s = 0.5f - phi * (0.5f * kInvPi);
    if (s < 0.0f) s += 1.0f;
    if (s >= 1.0f) s -= 1.0f;
    t = std::acos(std::clamp(d.z, -1.0f, 1.0f)) * kInvPi;
}

}  // namespace

Texture::Texture(int width, int height, std::vector<float> linearRgb)
    : width_(width), height_(height), linear_(std::move(linearRgb)) {
    if (width < 1 || height < 1 || linear_.size() != 3 * size_t(width) * size_t(height)) {
        throw InputError("texture of " + std::to_string(width) + "x" + std::to_string(height) +
                         " texels given " + std::to_string(linear_.size()) + " values");
    }
    for (float& f : linear_) f = cleanTexel(f);
}

Texture::Texture(int width, int height, std::vector<uint8_t> srgb)
    : width_(width), height_(height), srgb8_(std::move(srgb)) {}

Texture Texture::load(const std::filesystem::path& file) {
    std::error_code ec;
    if (!std::filesystem::exists(file, ec)) throw InputError("no such file");
    if (std::filesystem::is_directory(file, ec)) throw InputError("is a folder, not an image");
    try {
        return read(file);
    } catch (const InputError&) {
        throw;
    } catch (const std::exception& e) {
        throw InputError(e.what());  // such as running out of memory on a huge image
    }
}

Texture Texture::read(const std::filesystem::path& file) {
    // Colour as stored, not multiplied by alpha: alpha is no part of a base colour.
    OIIO::ImageSpec config;
    config.attribute("oiio:UnassociatedAlpha", 1);
    auto in = OIIO::ImageInput::open(file.string(), &config);
    if (!in) {
        const std::string why = OIIO::geterror();
        throw InputError(why.empty() ? "not an image OpenImageIO can read" : why);
    }
    const OIIO::ImageSpec& imageSpec = in->spec();
    const int w = imageSpec.width, h = imageSpec.height, nc = imageSpec.nchannels;
    if (w < 1 || h < 1 || nc < 1 || int64_t(w) * h > (int64_t(1) << 30) || imageSpec.depth > 1) {
        throw InputError("unsupported image size " + std::to_string(w) + "x" + std::to_string(h) +
                         " with " + std::to_string(nc) + " channels (at most 2^30 texels)");
    }
    // Red, green and blue by name where the file names them (EXR layers may
    // come in any order), else the first three channels; grey for one or two.
    int rgb[3] = {0, 0, 0};
    if (nc >= 3) {
        for (int c = 0; c < 3; ++c) {
            const int named = imageSpec.channelindex(std::string(1, "RGB"[c]));
            rgb[c] = named >= 0 ? named : c;
        }
    }
    // Only the span of channels holding them is read.
    const int chBegin = std::min({rgb[0], rgb[1], rgb[2]});
    const int chEnd = std::max({rgb[0], rgb[1], rgb[2]}) + 1;
    const size_t span = size_t(chEnd - chBegin);
    const size_t texels = size_t(w) * size_t(h);
    auto pick = [&](size_t i, int c) { return i * span + size_t(rgb[c] - chBegin); };
    if (imageSpec.format == OIIO::TypeDesc::UINT8) {
        std::vector<uint8_t> all(texels * span);
        if (!in->read_image(0, 0, chBegin, chEnd, OIIO::TypeDesc::UINT8, all.data())) {
            throw InputError(in->geterror());
        }
        std::vector<uint8_t> out(texels * 3);
        for (size_t i = 0; i < texels; ++i) {
            for (int c = 0; c < 3; ++c) out[3 * i + c] = all[pick(i, c)];
        }
        return Texture(w, h, std::move(out));
    }
    std::vector<float> all(texels * span);
    if (!in->read_image(0, 0, chBegin, chEnd, OIIO::TypeDesc::FLOAT, all.data())) {
        throw InputError(in->geterror());
    }
    const bool encoded = !imageSpec.format.is_floating_point();
    std::vector<float> out(texels * 3);
    for (size_t i = 0; i < texels; ++i) {
        for (int c = 0; c < 3; ++c) {
            const float f = all[pick(i, c)];
            out[3 * i + c] = encoded ? srgbToLinear(std::clamp(f, 0.0f, 1.0f)) : f;
        }
    }
    return Texture(w, h, std::move(out));
}

Point3 Texture::texel(int x, int y) const {
    const size_t i = 3 * (size_t(y) * size_t(width_) + size_t(x));
    if (!srgb8_.empty()) {
        const auto& table = srgb8Table();
        return {table[srgb8_[i]], table[srgb8_[i + 1]], table[srgb8_[i + 2]]};
    }
    return {linear_[i], linear_[i + 1], linear_[i + 2]};
}

Point3 Texture::lookup(float u, float v) const {
    if (!std::isfinite(u)) u = 0.0f;
    if (!std::isfinite(v)) v = 0.0f;
    // Texel centres sit at half-integer coordinates; row 0 is at the top (v = 1).
    const float px = (u - std::floor(u)) * float(width_) - 0.5f;
    const float py = (1.0f - (v - std::floor(v))) * float(height_) - 0.5f;
    const float fx0 = std::floor(px), fy0 = std::floor(py);
    const float ax = px - fx0, ay = py - fy0;
    const int x0 = wrapIndex(int(fx0), width_), x1 = wrapIndex(int(fx0) + 1, width_);
    const int y0 = wrapIndex(int(fy0), height_), y1 = wrapIndex(int(fy0) + 1, height_);
    return (texel(x0, y0) * (1.0f - ax) + texel(x1, y0) * ax) * (1.0f - ay) +
           (texel(x0, y1) * (1.0f - ax) + texel(x1, y1) * ax) * ay;
}

EnvironmentMap::EnvironmentMap(Texture image) : image_(std::move(image)) {
    const int w = image_.width(), h = image_.height();
    std::vector<float> lum(size_t(w) * size_t(h));
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) lum[size_t(y) * w + x] = luminance(image_.texel(x, y));
    }
    // Weights: the 3x3 neighbourhood's brightest luminance (wrapping around in
    // s, clamped at the poles, as the lookup is) times sin(theta) of the row.
    std::vector<double> weights(size_t(w) * size_t(h));
    std::vector<double> rowSums(static_cast<size_t>(h), 0.0);
    for (int y = 0; y < h; ++y) {
        const double sinTheta = std::sin(kPi * (double(y) + 0.5) / double(h));
        for (int x = 0; x < w; ++x) {
            float m = 0.0f;
            for (int dy = -1; dy <= 1; ++dy) {
                const int yy = std::clamp(y + dy, 0, h - 1);
                for (int dx = -1; dx <= 1; ++dx) {
                    m = std::max(m, lum[size_t(yy) * w + size_t(wrapIndex(x + dx, w))]);
                }
            }
            weights[size_t(y) * w + x] = double(m) * sinTheta;
            rowSums[y] += weights[size_t(y) * w + x];
        }
    }
    conditionalCdf_.resize(size_t(h) * size_t(w + 1));
    for (int y = 0; y < h; ++y) {
        buildCdf(&weights[size_t(y) * w], w, &conditionalCdf_[size_t(y) * size_t(w + 1)]);
    }
    marginalCdf_.resize(size_t(h) + 1);
    buildCdf(rowSums.data(), h, marginalCdf_.data());
}

float EnvironmentMap::texelPdf(int row, int column) const {
    // The densities are the CDFs' own steps, so sample() and pdf() agree
    // exactly even where float rounding made a step zero.
    const int w = image_.width(), h = image_.height();
    const float* cond = &conditionalCdf_[size_t(row) * size_t(w + 1)];
    return (marginalCdf_[row + 1] - marginalCdf_[row]) * float(h) *
           ((cond[column + 1] - cond[column]) * float(w));
}

Point3 EnvironmentMap::radiance(const Point3& d) const {
    float s, t;
    directionToImage(d, s, t);
    const int w = image_.width(), h = image_.height();
    const float px = s * float(w) - 0.5f, py = t * float(h) - 0.5f;
    const float fx0 = std::floor(px), fy0 = std::floor(py);
    const float ax = px - fx0, ay = py - fy0;
    const int x0 = wrapIndex(int(fx0), w), x1 = wrapIndex(int(fx0) + 1, w);
    const int y0 = std::clamp(int(fy0), 0, h - 1), y1 = std::clamp(int(fy0) + 1, 0, h - 1);
    return (image_.texel(x0, y0) * (1.0f - ax) + image_.texel(x1, y0) * ax) * (1.0f - ay) +
           (image_.texel(x0, y1) * (1.0f - ax) + image_.texel(x1, y1) * ax) * ay;
}

bool EnvironmentMap::sample(float u1, float u2, Point3& d, float& pdf) const {
    if (marginalCdf_.back() != 1.0f) return false;  // black image
    const int w = image_.width(), h = image_.height();
    float fy, fx;
    const int row = sampleCdf(marginalCdf_.data(), h, u1, fy);
    const int column = sampleCdf(&conditionalCdf_[size_t(row) * size_t(w + 1)], w, u2, fx);
    const float t = (float(row) + fy) / float(h), s = (float(column) + fx) / float(w);
    const float theta = t * kPi, phi = (0.5f - s) * (2.0f * kPi);
    const float sinTheta = std::sin(theta);
    if (!(sinTheta > 0.0f)) return false;
    d = {sinTheta * std::cos(phi), sinTheta * std::sin(phi), std::cos(theta)};
    // (s, t) to solid angle: d(omega) = 2 pi^2 sin(theta) ds dt.
    pdf = texelPdf(row, column) / (2.0f * kPi * kPi * sinTheta);
    return pdf > 0.0f;
}

float EnvironmentMap::pdf(const Point3& d) const {
    if (marginalCdf_.back() != 1.0f) return 0.0f;
    const float sinTheta = std::sqrt(d.x * d.x + d.y * d.y);
    if (!(sinTheta > 0.0f)) return 0.0f;
    float s, t;
    directionToImage(d, s, t);
    const int w = image_.width(), h = image_.height();
    const int column = std::min(int(s * float(w)), w - 1);
    const int row = std::clamp(int(t * float(h)), 0, h - 1);
    return texelPdf(row, column) / (2.0f * kPi * kPi * sinTheta);
}

std::filesystem::path AssetCache::resolve(const std::string& file) const {
    std::filesystem::path p(file);
    if (p.is_relative() && !folder_.empty()) p = folder_ / p;
    std::error_code ec;
    const std::filesystem::path abs = std::filesystem::absolute(p, ec);
    return (ec ? p : abs).lexically_normal();
}

const Texture& AssetCache::texture(const std::string& file) {
    const std::filesystem::path p = resolve(file);
    auto it = textures_.find(p);
    if (it != textures_.end()) return *it->second;
    try {
        auto tex = std::make_unique<Texture>(Texture::load(p));
        return *textures_.emplace(p, std::move(tex)).first->second;
    } catch (const InputError& e) {
        throw InputError("cannot read \"" + p.string() + "\": " + e.what());
    }
}

const EnvironmentMap& AssetCache::environment(const std::string& file) {
    const std::filesystem::path p = resolve(file);
    auto it = environments_.find(p);
    if (it != environments_.end()) return *it->second;
    try {
        auto env = std::make_unique<EnvironmentMap>(Texture::load(p));
        return *environments_.emplace(p, std::move(env)).first->second;
    } catch (const InputError& e) {
        throw InputError("cannot read \"" + p.string() + "\": " + e.what());
    }
}

}  // namespace mq::tracer
