// 8-bit RGBA pictures read back from images the command line wrote, and a
// tolerant comparison for renders that may differ in a few noisy pixels.
#pragma once

#include <gtest/gtest.h>

#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

namespace mq::test {

struct Picture {
    int width = 0, height = 0;
    std::vector<uint8_t> rgba;
    const uint8_t* at(int x, int y) const { return &rgba[4 * (size_t(y) * width + x)]; }
};

// Any image OIIO reads, as 8-bit RGBA; an empty picture (and a test
// failure) when it cannot be read.
inline Picture readPicture(const std::filesystem::path& file) {
    Picture p;
    auto in = OIIO::ImageInput::open(file.string());
    if (!in) {
        ADD_FAILURE() << "cannot read " << file;
        return p;
    }
    const OIIO::ImageSpec& imageSpec = in->spec();
    p.width = imageSpec.width;
    p.height = imageSpec.height;
    std::vector<uint8_t> pixels(size_t(p.width) * p.height * imageSpec.nchannels);
    EXPECT_TRUE(in->read_image(0, 0, 0, imageSpec.nchannels, OIIO::TypeDesc::UINT8, pixels.data()));
    p.rgba.assign(size_t(p.width) * p.height * 4, 255);
    const int channels = std::min(imageSpec.nchannels, 4);
    for (size_t i = 0; i < size_t(p.width) * p.height; ++i)
        for (int c = 0; c < channels; ++c) p.rgba[4 * i + c] = pixels[i * imageSpec.nchannels + c];
    return p;
}

struct PictureDifference {
    double closeFraction = 0.0;  // pixels whose channels all differ by at most the tolerance
    double meanError = 0.0;      // mean absolute channel difference, in 8-bit steps
};

inline PictureDifference comparePictures(const Picture& a, const Picture& b, int tolerance) {
    PictureDifference d;
    if (a.width != b.width || a.height != b.height || a.rgba.empty()) return d;
    const size_t pixels = size_t(a.width) * a.height;
    size_t close = 0;
    double sum = 0.0;
    for (size_t i = 0; i < pixels; ++i) {
        int worst = 0;
        for (int c = 0; c < 4; ++c) {
            const int diff = std::abs(int(a.rgba[4 * i + c]) - int(b.rgba[4 * i + c]));
            worst = std::max(worst, diff);
            sum += diff;
        }
        close += worst <= tolerance;
    }
    d.closeFraction = double(close) / double(pixels);
    d.meanError = sum / double(pixels * 4);
    return d;
}

}  // namespace mq::test
