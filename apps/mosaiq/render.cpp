// mosaiq render: renders a scene file, or the built-in demo scene, with the
// embedded path tracer. Settings come from the scene's "render" section,
// then -D, then the options. Every output path is checked before the first
// sample is traced; Ctrl-C stops the render and leaves no file behind: an
// image being written when it comes is abandoned, and what was under its
// name stays.
#include "cli.h"

#include "host/atomic_file.h"
#include "host/node.h"
#include "host/suggest.h"
#include "tracer/renderer.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <mutex>
#include <optional>

namespace mosaiq::cli {

namespace fs = std::filesystem;

namespace {

volatile std::sig_atomic_t gInterrupted = 0;

// The render stops at its next progress report; a write in flight loses its
// temporary file, so it fails instead of replacing the output.
extern "C" void onInterrupt(int) {
    gInterrupted = 1;
    mq::removeTemporaryFiles();
}

// Thrown from the progress callback to unwind the render on a Ctrl-C.
struct Interrupted {};

[[noreturn]] void usage(const std::string& what) { throw CliError(kExitUsage, what); }

std::optional<int> parseWhole(std::string_view text) {
    int v = 0;
    const auto res = std::from_chars(text.data(), text.data() + text.size(), v);
    if (text.empty() || res.ec != std::errc() || res.ptr != text.data() + text.size())
        return std::nullopt;
    return v;
}

// "640x480" -> (640, 480).
std::pair<int, int> parseResolution(const std::string& text) {
    const size_t x = text.find_first_of("xX");
    const auto w = x == std::string::npos ? std::nullopt : parseWhole(text.substr(0, x));
    const auto h = x == std::string::npos ? std::nullopt : parseWhole(text.substr(x + 1));
    if (!w || !h || *w < 1 || *h < 1 || *w > 65536 || *h > 65536)
        usage("--resolution: expected WIDTHxHEIGHT with sizes 1 to 65536, found \"" + text + "\"");
    return {*w, *h};
}

// "A-B" or "A" -> [A, B].
std::pair<int, int> parseFrames(const std::string& text) {
    const size_t dash = text.find('-', 1);
    const auto a = parseWhole(text.substr(0, dash));
    const auto b = dash == std::string::npos ? a : parseWhole(text.substr(dash + 1));
    if (!a || !b || *a < 0 || *b < *a)
        usage("--frames: expected A-B with 0 <= A <= B, found \"" + text + "\"");
    return {*a, *b};
}

mq::tracer::CropRegion parseCrop(const std::string& text, int width, int height) {
    int v[4] = {};
    size_t start = 0;
    for (int i = 0; i < 4; ++i) {
        const size_t comma = i < 3 ? text.find(',', start) : text.size();
        const auto n = comma == std::string::npos ? std::nullopt
                                                  : parseWhole(text.substr(start, comma - start));
        if (!n) usage("--crop: expected x0,x1,y0,y1 in pixels, found \"" + text + "\"");
        v[i] = *n;
        start = comma + 1;
    }
    if (v[0] < 0 || v[0] >= v[1] || v[1] > width || v[2] < 0 || v[2] >= v[3] || v[3] > height) {
        usage("--crop " + text + ": needs 0 <= x0 < x1 <= " + std::to_string(width) +
              " and 0 <= y0 < y1 <= " + std::to_string(height));
    }
    return {v[0], v[1], v[2], v[3]};
}

// -D key=value: a render setting, or Node.Param=value (the last dot splits).
// File names are kept relative to sceneFile, as `set` stores them.
void applyDefine(mq::Scene& scene, const std::string& define, const fs::path& sceneFile) {
    const size_t eq = define.find('=');
    if (eq == std::string::npos || eq == 0)
        usage("-D: expected key=value, found \"" + define + "\"");
    const std::string key = define.substr(0, eq), value = define.substr(eq + 1);
    const size_t dot = key.rfind('.');
    if (dot != std::string::npos) {
        if (dot == 0 || dot + 1 == key.size())
            usage("-D " + define + ": expected Node.Param=value");
        mq::Node* node = findUniqueNode(scene, key.substr(0, dot), "-D " + define);
        applyAssignment(scene, *node, key.substr(dot + 1) + "=" + value, false, sceneFile);
        return;
    }
    const auto& renderKeys = mq::tracer::RenderSettings::keys();
    if (std::find(renderKeys.begin(), renderKeys.end(), key) == renderKeys.end()) {
        std::string keys;
        for (const std::string& k : renderKeys) keys += (keys.empty() ? "" : ", ") + k;
        usage("-D " + define + ": unknown render setting \"" + key + "\"" +
              mq::didYouMean(key, renderKeys) + " (render settings: " + keys +
              "; node parameters as Node.Param=value)");
    }
    // A whole number, another number, or a word ("tonemap=linear"); the
    // settings' own check then names what the key expects.
    double number = 0.0;
    const auto res = std::from_chars(value.data(), value.data() + value.size(), number);
    const bool isNumber = !value.empty() && res.ec == std::errc() &&
                          res.ptr == value.data() + value.size() && std::isfinite(number);
    if (const auto whole = parseWhole(value))
        scene.render[key] = *whole;
    else if (isNumber)
        scene.render[key] = number;
    else
        scene.render[key] = value;
}

// Output for one frame: name.0001.png when several frames are rendered.
fs::path frameOutput(const fs::path& out, int frame, bool numbered) {
    if (!numbered) return out;
    char digits[16];
    std::snprintf(digits, sizeof digits, ".%04d", frame);
    fs::path p = out;
    p.replace_filename(out.stem().string() + digits + out.extension().string());
    return p;
}

void checkExtension(const fs::path& out) {
    std::string ext = out.extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    if (ext != ".png" && ext != ".jpg" && ext != ".jpeg" && ext != ".exr")
        usage("-o " + out.string() + ": unsupported image format \"" + ext +
              "\" (use .png, .jpg or .exr)");
}

// Progress on stderr: a bar redrawn in place on a terminal, a line per
// tenth otherwise. Called from the tracer's worker threads.
class Progress {
public:
    Progress(bool quiet, bool terminal) : quiet_(quiet), terminal_(terminal) {}

    void startFrame(const std::string& label) {
        std::lock_guard<std::mutex> lock(mutex_);
        label_ = label;
        lastShown_ = -1;
    }
    void update(int done, int total) {
        if (gInterrupted) throw Interrupted{};
        if (quiet_ || total <= 0) return;
        std::lock_guard<std::mutex> lock(mutex_);
        const int percent = done * 100 / total;
        if (terminal_) {
            if (percent == lastShown_) return;
            constexpr int kWidth = 40;
            const int filled = percent * kWidth / 100;
            std::cerr << "\r" << label_ << " [" << std::string(size_t(filled), '#')
                      << std::string(size_t(kWidth - filled), ' ') << "] " << percent << "%"
                      << std::flush;
        } else {
            if (percent / 10 == lastShown_ / 10 && lastShown_ >= 0) return;
            std::cerr << label_ << ": " << percent / 10 * 10 << "%\n";
        }
        lastShown_ = percent;
    }
    void endFrame() {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!quiet_ && terminal_ && lastShown_ >= 0) std::cerr << "\n";
    }

private:
    std::mutex mutex_;
    bool quiet_, terminal_;
    std::string label_;
    int lastShown_ = -1;
};

// A debug pass shown as colour. PNG and JPEG store sRGB, so the values are
// taken back to linear here to land in the file as they are computed.
void showPass(mq::tracer::Image& img, const std::string& pass) {
    auto linear = [](float s) {
        return s <= 0.04045f ? s / 12.92f : std::pow((s + 0.055f) / 1.055f, 2.4f);
    };
    const size_t n = size_t(img.width) * img.height;
    float maxDepth = 0.0f;
    for (float d : img.depth) maxDepth = std::max(maxDepth, d);
    for (size_t i = 0; i < n; ++i) {
        float c[3] = {0, 0, 0};
        const bool hit = img.objectId[i] > 0.0f;
        if (pass == "normal" && hit) {
            for (int a = 0; a < 3; ++a) c[a] = 0.5f + 0.5f * img.normal[3 * i + a];
        } else if (pass == "depth" && hit && maxDepth > 0.0f) {
            c[0] = c[1] = c[2] = 1.0f - 0.9f * img.depth[i] / maxDepth;  // near is bright
        } else if (pass == "objectid" && hit) {
            // A fixed colour per id: golden-ratio hues.
            uint32_t h = uint32_t(img.objectId[i]) * 2654435761u;
            for (int a = 0; a < 3; ++a, h >>= 8) c[a] = 0.25f + 0.75f * float(h & 0xff) / 255.0f;
        } else if (pass == "uv" && hit) {
            for (int a = 0; a < 3; ++a) c[a] = img.uv[3 * i + a];  // UVW of map channel 1
        }
        for (int a = 0; a < 3; ++a) img.rgba[4 * i + a] = linear(c[a]);
        img.rgba[4 * i + 3] = hit ? 1.0f : 0.0f;
    }
    img.display = {};  // exact values, no exposure or tone curve
}

struct SignalGuard {
    struct sigaction oldInt {
    }, oldTerm{};
    SignalGuard() {
        gInterrupted = 0;
        struct sigaction sa {};
        sa.sa_handler = onInterrupt;
        sigemptyset(&sa.sa_mask);
        sigaction(SIGINT, &sa, &oldInt);
        sigaction(SIGTERM, &sa, &oldTerm);
    }
    ~SignalGuard() {
        sigaction(SIGINT, &oldInt, nullptr);
        sigaction(SIGTERM, &oldTerm, nullptr);
    }
};

}  // namespace

int runRender(mq::HostInterface& ip, const RenderOptions& opt) {
    if (!opt.pass.empty() && opt.pass != "normal" && opt.pass != "depth" &&
        opt.pass != "objectid" && opt.pass != "uv")
        usage("--pass: expected normal, depth, objectid or uv, found \"" + opt.pass + "\"");
    SignalGuard signals;
    const auto started = std::chrono::steady_clock::now();

    if (opt.scene.empty()) {
        buildDemoScene(ip);
    } else {
        std::error_code ec;
        if (!fs::exists(opt.scene, ec))
            throw CliError(kExitInput, opt.scene.string() + ": no such scene file");
        loadSceneOrFail(ip, opt.scene);
    }
    mq::Scene& scene = ip.scene();
    const std::string sceneName = opt.scene.empty() ? "demo scene" : opt.scene.string();
    for (const std::string& d : opt.defines) applyDefine(scene, d, opt.scene);
    // A node whose pattern file is lost renders nothing; that is no success.
    checkPatternFilesOrFail(ip, sceneName);
    // A scene that warned already fails --strict before the long part.
    checkStrict();

    mq::tracer::RenderSettings settings;
    try {
        settings = mq::tracer::RenderSettings::fromJson(
            scene.render, [](const std::string& w) { printWarning(w); });
    } catch (const mq::tracer::RenderError& e) {
        throw CliError(opt.defines.empty() ? kExitInput : kExitUsage, sceneName + ": " + e.what());
    }
    if (!opt.resolution.empty())
        std::tie(settings.width, settings.height) = parseResolution(opt.resolution);
    if (opt.spp > 0) settings.samplesPerPixel = opt.spp;
    if (opt.threads >= 0) settings.threads = opt.threads;
    if (opt.seed >= 0) settings.seed = uint32_t(opt.seed);
    if (!opt.crop.empty()) settings.crop = parseCrop(opt.crop, settings.width, settings.height);
    // Textures and dome images named relative to the scene file.
    if (!opt.scene.empty()) settings.assetFolder = fs::absolute(opt.scene).parent_path();
    const auto [firstFrame, lastFrame] =
        opt.frames.empty() ? std::pair{0, 0} : parseFrames(opt.frames);

    // Every output is checked before any rendering starts.
    fs::path out = opt.output;
    if (out.empty())
        out = opt.scene.empty() ? fs::path("mosaiq-demo.png")
                                : fs::path(opt.scene.stem().string() + ".png");
    checkExtension(out);
    const bool numbered = lastFrame > firstFrame;
    for (int f = firstFrame; f <= lastFrame; ++f)
        checkWritable(frameOutput(out, f, numbered), "an image");

    Progress progress(opt.quiet, ::isatty(STDERR_FILENO) == 1);
    std::vector<std::pair<int, mq::tracer::Image>> held;
    auto writeFrame = [&](int f, const mq::tracer::Image& img) {
        const fs::path frameFile = frameOutput(out, f, numbered);
        try {
            mq::tracer::writeImage(
                frameFile, img,
                {{"Software", "mosaiq " MOSAIQ_VERSION}, {"mosaiq:frame", std::to_string(f)}});
        } catch (const mq::tracer::RenderError& e) {
            if (gInterrupted) throw Interrupted{};
            throw CliError(kExitOutput, e.what());
        }
        if (!opt.quiet) std::cout << "wrote " << frameFile.string() << "\n";
        if (gInterrupted) throw Interrupted{};
    };
    try {
        mq::tracer::Renderer renderer(scene, settings);
        renderer.setWarningSink([](const std::string& w) { printWarning(w); });
        renderer.setProgress([&](int done, int total) { progress.update(done, total); });
        if (!opt.quiet) {
            std::cerr << "rendering " << (opt.scene.empty() ? "the demo scene" : opt.scene.string())
                      << ": " << settings.width << "x" << settings.height << ", "
                      << settings.samplesPerPixel << " spp\n";
        }
        for (int f = firstFrame; f <= lastFrame; ++f) {
            progress.startFrame("frame " + std::to_string(f));
            mq::tracer::Image img;
            try {
                img = renderer.renderFrame(f);
            } catch (const mq::tracer::InputError& e) {
                progress.endFrame();
                throw CliError(kExitInput, sceneName + ": " + e.what());
            } catch (const mq::tracer::RenderError& e) {
                progress.endFrame();
                throw CliError(kExitRender, "frame " + std::to_string(f) + ": " + e.what());
            }
            progress.endFrame();
            if (gInterrupted) throw Interrupted{};

            if (!opt.pass.empty()) showPass(img, opt.pass);

            // --strict must not leave some frames written when a later one warns.
            if (isStrict() && numbered) {
                held.emplace_back(f, std::move(img));
                continue;
            }
            checkStrict();
            writeFrame(f, img);
        }
        checkStrict();
        for (const auto& [f, img] : held) writeFrame(f, img);
        renderer.renderEnd();
    } catch (const Interrupted&) {
        std::cerr << "\nmosaiq: interrupted; no image written for the unfinished frame\n";
        return kExitInterrupted;
    } catch (const mq::tracer::InputError& e) {
        throw CliError(kExitInput, sceneName + ": " + e.what());
    } catch (const mq::tracer::RenderError& e) {
        throw CliError(kExitRender, e.what());
    }
    if (!opt.quiet) {
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
        std::cerr << "done in " << std::fixed << std::setprecision(1) << seconds << " s\n";
    }
    return kExitOk;
}

}  // namespace mosaiq::cli
