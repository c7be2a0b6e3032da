// The embedded renderer: turns a host scene into images.
//
// A Renderer drives the render objects of the scene through the protocol of
// tracer/protocol.h, builds an Embree scene per frame and path traces it.
// Images depend only on the scene, the settings and the frame: any thread
// count and any crop give the same pixels.
#pragma once

#include "host/math.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace mq {
class Scene;
}

namespace mq::tracer {

// Bad scene data or settings, or a failure of the tracer itself. what()
// names the JSON path or the file involved.
class RenderError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Bad input rather than a failure of the tracer: a material, light or camera
// the scene describes wrongly, or an image file it names that cannot be
// read. Thrown before any sample is traced; what() names the JSON path, and
// the file and reason where a file is involved.
class InputError : public RenderError {
public:
    using RenderError::RenderError;
};

// Pixels [x0, x1) x [y0, y1), y down from the top row.
struct CropRegion {
    int x0 = 0, x1 = 0, y0 = 0, y1 = 0;
};

// A render stopped by Renderer::cancel.
class RenderCancelled : public RenderError {
public:
    RenderCancelled() : RenderError("render cancelled") {}
};

// Non-fatal problems (a node left out, a material value ignored, a key the
// tracer does not know).
using WarningFn = std::function<void(const std::string&)>;

// The curve from linear radiance to an 8-bit image's values.
enum class ToneCurve {
    Linear,  // clipped at 1
    Filmic,  // identity up to 0.6, then a smooth shoulder towards 1 (1 -> 0.85, 2 -> 0.99)
};

// How an 8-bit output shows a frame: radiance times 2^exposure, through the
// curve, then sRGB. EXR output ignores it and keeps the radiance.
struct DisplayTransform {
    float exposure = 0.0f;  // stops
    ToneCurve curve = ToneCurve::Linear;
};

// One channel of an 8-bit output, as written: linear times scale
// (2^exposure, computed once by the caller), through the curve, then sRGB.
uint8_t toSrgb8(float linear, const DisplayTransform& display, float scale);

struct RenderSettings {
    int width = 640;
    int height = 480;
    int samplesPerPixel = 32;
    int threads = 0;  // 0: one per hardware thread
    uint32_t seed = 0;
    int maxDepth = 8;  // path vertices after the camera
    float exposure = 0.0f;
    ToneCurve toneCurve = ToneCurve::Filmic;
    // Largest luminance of the indirect light (after the first bounce) one
    // sample brings, beyond which it is scaled down: rare bright paths
    // (sunlight off metal onto the ground) make isolated white pixels. 0: off.
    // 1.5 cleans the demo's ground at 32 spp and lowers its mean by 0.26 %.
    float clamp = 1.5f;
    std::optional<CropRegion> crop;
    // Folder that relative texture and dome image paths in the scene resolve
    // against (normally the scene file's folder); empty: the working directory.
    std::filesystem::path assetFolder;

    // Settings from a scene's "render" section; absent keys keep these
    // defaults:
    //   width, height (pixels), spp (samples per pixel), seed, maxDepth,
    //   threads (0: all), exposure (stops, any sign), tonemap ("filmic" or
    //   "linear"), clamp (see above; 0 turns it off).
    // Unknown keys go to warn with the nearest known one. Throws RenderError
    // naming the key and the value.
    static RenderSettings fromJson(const nlohmann::json& render, const WarningFn& warn = {});
    // The keys of the "render" section, as above.
    static const std::vector<std::string>& keys();
    DisplayTransform display() const { return {exposure, toneCurve}; }
};

// A rendered frame: linear RGBA and the debug passes, rows top to bottom.
// Pixels outside the crop region are zero.
struct Image {
    int width = 0, height = 0;
    std::vector<float> rgba;      // 4 per pixel
    std::vector<float> normal;    // 3 per pixel: world shading normal at the first hit
    std::vector<float> depth;     // distance to the first hit; 0 for none
    std::vector<float> objectId;  // 1 + index of the hit node among renderables; 0 for none
    std::vector<float> uv;        // 3 per pixel: UVW of map channel 1 at the first hit; 0 for none
    DisplayTransform display;     // for 8-bit outputs; a render sets its settings' own

    Image() = default;
    Image(int w, int h);
    const float* pixel(int x, int y) const { return &rgba[4 * (size_t(y) * width + x)]; }
};

// Called from worker threads as tiles finish: done of total tiles.
using ProgressFn = std::function<void(int done, int total)>;

// Called on the rendering thread after each pass of Renderer::renderPasses
// with the frame so far and the samples per pixel it holds (0 for the
// preview). The image is valid only during the call.
using PassFn = std::function<void(const Image& image, int samplesDone)>;

class Renderer {
public:
    // The scene must outlive the renderer. Throws RenderError for bad settings.
    Renderer(Scene& scene, RenderSettings settings);
    ~Renderer();  // ends the render if it was begun
    Renderer(const Renderer&) = delete;
    Renderer& operator=(const Renderer&) = delete;

    void setWarningSink(WarningFn warn);
    void setProgress(ProgressFn progress);

    // Starts the render: reads the materials and lights, loading the images
    // they name, then initialises render objects and creates their instances.
    // Throws InputError for bad scene data or an unreadable image, and
    // RenderError for other failures (for instance, when Embree fails).
    void renderBegin();
    // Renders one frame (begins the render first if needed). Throws RenderError.
    Image renderFrame(int frame);
    // Renders one frame in passes over a scene built once. First, when
    // previewStep > 1, a preview: sample 0 of every previewStep-th pixel of
    // every previewStep-th row, each copied over its previewStep-square
    // block. Then pass i adds samples until passEnds[i] per pixel (increasing,
    // >= 1); the settings' samplesPerPixel is not used. After each pass the
    // image equals renderFrame's with that many samples per pixel, bit for
    // bit. Returns false when cancel() cut it short (the cut pass is not
    // reported). Throws RenderError.
    bool renderPasses(int frame, const std::vector<int>& passEnds, int previewStep,
                      const PassFn& onPass);
    // Ends the render: instances' renderEnd and deletion. Safe to repeat.
    void renderEnd();
    // Stops a running or later renderFrame (which then throws
    // RenderCancelled) or renderPasses within about one row of tiles. For
    // good: a cancelled renderer renders nothing more. Any thread.
    void cancel();

    const RenderSettings& settings() const { return settings_; }

private:
    struct Impl;
    RenderSettings settings_;
    std::unique_ptr<Impl> impl_;
};

// Checks what a render reads from the scene, as renderBegin and renderFrame
// read it: the materials, the lights, the camera and the "render" settings.
// Colours and intensities must be finite and >= 0, the other numbers finite
// and within their ranges. The images materials and lights name are not
// loaded; renderBegin still reports those that cannot be read. Throws
// InputError whose what() names the JSON path and the value
// ("/lights/0/color/2: expected a finite number >= 0, found -2"). Every
// command that loads a scene calls it, so all of them refuse a scene that
// would not render, with the same message. Keys it does not know go to warn
// ("/materials/gold/roughnes: unknown key (did you mean \"roughness\"?)").
void checkRenderData(const Scene& scene, const WarningFn& warn = {});

// One frame of a scene with its own settings: renderBegin, renderFrame, renderEnd.
Image renderImage(Scene& scene, const RenderSettings& settings, int frame = 0);

// Write an image, choosing the format from the extension: .png and .jpg/.jpeg
// as 8-bit sRGB through image.display, .exr as float with the passes as layers (normal, depth,
// objectId, uv) and `metadata` as string attributes. Written through
// writeFileAtomically (host/atomic_file.h), so a failure never leaves a
// partial file under `path`. Throws RenderError naming the file.
void writeImage(const std::filesystem::path& path, const Image& image,
                const std::vector<std::pair<std::string, std::string>>& metadata = {});

}  // namespace mq::tracer
