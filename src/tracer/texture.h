// Images the renderer reads (internal): material textures, the lat-long
// environment of an image dome with its importance sampler, and the cache
// that loads each file once per render.
//
// Colours are linear RGB. Files are read with OpenImageIO; integer images
// (8- and 16-bit PNG, JPEG, TIFF) are taken as sRGB and decoded to linear,
// float images (EXR, HDR) as linear already. Alpha is ignored; a grey image
// gives grey. Non-finite and negative texel values read as 0.
#pragma once

#include "host/math.h"

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace mq::tracer {

// An RGB image with row 0 at the top. Read-only after construction, so one
// texture serves all render threads; lookups never allocate.
class Texture {
public:
    // From linear RGB floats, 3 per texel, rows top to bottom. Throws
    // InputError when the count does not match the size.
    Texture(int width, int height, std::vector<float> linearRgb);
    // Reads `file`. Throws InputError whose what() is the reason alone; the
    // caller adds the file and what it was for.
    static Texture load(const std::filesystem::path& file);

    int width() const { return width_; }
    int height() const { return height_; }
    // Linear RGB of texel (x, y); 0 <= x < width, 0 <= y < height.
    Point3 texel(int x, int y) const;
    // Bilinear lookup with repeat addressing on both axes. (0, 0) is the
    // bottom-left corner of the image and (1, 1) the top-right: v runs up,
    // so texel row 0 is at v = 1.
    Point3 lookup(float u, float v) const;

private:
    Texture(int width, int height, std::vector<uint8_t> srgb);
    static Texture read(const std::filesystem::path& file);
    int width_ = 0, height_ = 0;
    // One of the two holds the texels: 8-bit images stay as sRGB bytes (a
    // quarter of the memory) and are decoded per lookup.
    std::vector<uint8_t> srgb8_;
    std::vector<float> linear_;
};

// A lat-long (equirectangular) environment in a Z-up world. Row 0 of the
// image is straight up (+z), the last row straight down; the centre column
// faces +x, and columns run towards -y to the right, so the image reads
// unmirrored from inside the sphere (+y is a quarter of the width left of
// centre). For a unit direction d:
//   theta = acos(d.z), phi = atan2(d.y, d.x)
//   column fraction s = 0.5 - phi / (2 pi)  (wrapped into [0, 1))
//   row fraction    t = theta / pi          (0 at the top row)
//
// Directions are sampled from a piecewise-constant density over the texels,
// proportional to luminance times sin(theta) (marginal over rows, then the
// row's conditional over columns), as in Pharr, Jakob and Humphreys,
// "Physically Based Rendering", 3rd ed., section 14.2.4. Each texel's weight
// is the largest luminance in its 3x3 neighbourhood, so every direction the
// bilinear lookup makes bright has a nonzero density.
class EnvironmentMap {
public:
    explicit EnvironmentMap(Texture image);

    const Texture& image() const { return image_; }
    // Radiance along unit direction d: bilinear, wrapping around in s and
    // clamped at the poles.
    Point3 radiance(const Point3& d) const;
    // A unit direction drawn from the density and its solid-angle density;
    // false when the image is black or the draw hit a pole.
    bool sample(float u1, float u2, Point3& d, float& pdf) const;
    // Solid-angle density of sample() choosing unit direction d.
    float pdf(const Point3& d) const;

private:
    float texelPdf(int row, int column) const;  // density over the unit (s, t) square
    Texture image_;
    std::vector<float> marginalCdf_;     // height + 1 entries, 0 to 1
    std::vector<float> conditionalCdf_;  // per row, width + 1 entries, 0 to 1
};

// The image files of one render, each loaded once on the main thread before
// rendering starts and then shared read-only by every thread. Relative names
// resolve against `folder`, or against the working directory when it is empty.
class AssetCache {
public:
    explicit AssetCache(std::filesystem::path folder = {}) : folder_(std::move(folder)) {}

    // The file as it will be opened, absolute.
    std::filesystem::path resolve(const std::string& file) const;
    // Throw InputError "cannot read <absolute file>: <reason>".
    const Texture& texture(const std::string& file);
    const EnvironmentMap& environment(const std::string& file);

private:
    std::filesystem::path folder_;
    std::map<std::filesystem::path, std::unique_ptr<Texture>> textures_;
    std::map<std::filesystem::path, std::unique_ptr<EnvironmentMap>> environments_;
};

}  // namespace mq::tracer
