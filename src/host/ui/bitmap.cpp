#include "host/ui/bitmap.h"

#include <OpenImageIO/imageio.h>

#include <system_error>

namespace mq::ui {

std::optional<Bitmap> loadBitmap(const std::filesystem::path& file, std::string* why) {
    auto fail = [&](const std::string& reason) -> std::optional<Bitmap> {
        if (why) *why = file.string() + ": " + reason;
        return std::nullopt;
    };
    std::error_code ec;
    if (!std::filesystem::is_regular_file(file, ec)) return fail("no such file");
    auto in = OIIO::ImageInput::open(file.string());
    if (!in) {
        const std::string reason = OIIO::geterror();
        return fail(reason.empty() ? "cannot be read" : "cannot be read: " + reason);
    }
    const OIIO::ImageSpec& header = in->spec();
    if (header.width <= 0 || header.height <= 0 || header.nchannels <= 0)
        return fail("holds no picture");
    // A preview is small; a huge picture is refused rather than read whole.
    if (int64_t(header.width) * header.height > (int64_t(1) << 26)) return fail("is too large");
    std::vector<uint8_t> pixels(size_t(header.width) * size_t(header.height) *
                                size_t(header.nchannels));
    if (!in->read_image(0, 0, 0, header.nchannels, OIIO::TypeDesc::UINT8, pixels.data())) {
        const std::string reason = in->geterror();
        return fail(reason.empty() ? "cannot be read" : "cannot be read: " + reason);
    }
    Bitmap out;
    out.width = header.width;
    out.height = header.height;
    out.rgb.resize(size_t(header.width) * size_t(header.height) * 3);
    const int n = header.nchannels;
    for (size_t p = 0; p < size_t(header.width) * size_t(header.height); ++p) {
        for (int c = 0; c < 3; ++c)
            out.rgb[3 * p + size_t(c)] = pixels[p * size_t(n) + size_t(n >= 3 ? c : 0)];
    }
    return out;
}

}  // namespace mq::ui
