// The procedural pieces against their baked mesh, on the demo scene, through
// the mosaiq executable as a user runs it. For each "Tiling" it writes the
// demo scene and a copy with the Mosaiq node hidden, bakes the node
// (`mosaiq bake`), imports the mesh into the copy (`mosaiq import`) with the
// node's material, and renders both (`mosaiq render`), measuring each child's
// wall and CPU time and peak resident memory (wait4 / rusage), and the time
// its progress lines span, which is the tracing alone without the setup
// (loading, mapping or mesh import, BVH build). CPU time is what the ratios
// use: on a shared machine wall time depends on what else runs. A bake over
// --max-triangles is refused by `mosaiq bake`, which still reports its size.
//
// Targets: procedural / baked render time at most 2; procedural / baked peak
// memory at most 1/20 once the baked mesh passes 10M triangles; procedural
// render time grows less than 2x from tiling 10 to 100.
//
// Run: build/release/bin/render_vs_baked [--resolution 640x480] [--spp 64]
//      [--tilings 10,30,40,100] [--max-triangles 20000000] [--mosaiq PATH] [--keep DIR]
#include "cli.h"

#include "host/plugins.h"
#include "host/scenefile.h"

#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

namespace fs = std::filesystem;

constexpr const char* kMosaiqNode = "ChainMail";
constexpr const char* kMaterial = "mail";

struct Options {
    std::string mosaiq = MOSAIQ_BIN_DIR "/mosaiq";
    std::string resolution = "640x480";
    int spp = 64;
    // 40 is the first whose baked mesh passes 10M triangles.
    std::vector<int> tilings = {10, 30, 40, 100};
    // Reading a baked mesh back for rendering takes about 800 bytes a
    // triangle at peak: 20M keeps the baked render within 16 GB.
    long long maxTriangles = 20'000'000;
    fs::path keep;  // empty: a temporary folder, removed at the end
};

struct Child {
    int code = -1;
    double seconds = 0.0;
    double traceSeconds = 0.0;  // renders: tracing alone, from the progress lines
    // CPU time (user + system) of the whole run and of its tracing: what the
    // run cost, whatever else the machine's cores were busy with.
    double cpuSeconds = 0.0, traceCpuSeconds = 0.0;
    double peakMB = 0.0;
    std::string out, err;
};

std::string readFile(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// CPU seconds process pid has used so far, from /proc; 0 when unreadable.
double cpuSecondsOf(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text;
    std::getline(in, text);
    // Fields after the command name, which is in brackets and may hold spaces.
    const size_t close = text.rfind(')');
    if (close == std::string::npos) return 0.0;
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14) utime = std::stoull(field);
        if (i == 15) stime = std::stoull(field);
    }
    return double(utime + stime) / double(::sysconf(_SC_CLK_TCK));
}

// Runs mosaiq with args in dir: its wall time, peak resident set, and, for
// a render run without -q, the time from its first progress line to "100%",
// which is the tracing alone. stderr comes through a pipe so that each line
// is timed as it arrives.
Child runMosaiq(const Options& opt, const std::vector<std::string>& args, const fs::path& dir) {
    std::vector<std::string> all = {opt.mosaiq};
    all.insert(all.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& a : all) argv.push_back(a.data());
    argv.push_back(nullptr);
    const std::string outFile = (dir / ".stdout").string();
    Child child;
    int pipeFds[2];
    if (::pipe(pipeFds) != 0) {
        child.err = std::string("cannot make a pipe: ") + std::strerror(errno);
        return child;
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], 2);
    posix_spawn_file_actions_addclose(&actions, pipeFds[0]);
    posix_spawn_file_actions_addclose(&actions, pipeFds[1]);
    const auto start = std::chrono::steady_clock::now();
    pid_t pid = 0;
    const int spawned =
        posix_spawn(&pid, opt.mosaiq.c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(pipeFds[1]);
    if (spawned != 0) {
        ::close(pipeFds[0]);
        child.err = "cannot run " + opt.mosaiq + ": " + std::strerror(spawned);
        return child;
    }

    using Clock = std::chrono::steady_clock;
    Clock::time_point firstProgress{}, lastProgress{};
    double firstCpu = 0.0, lastCpu = 0.0;
    bool progressing = false;
    std::string line;
    char buf[4096];
    for (;;) {
        const ssize_t n = ::read(pipeFds[0], buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        const Clock::time_point now = Clock::now();
        for (ssize_t i = 0; i < n; ++i) {
            child.err += buf[i];
            if (buf[i] != '\n') {
                line += buf[i];
                continue;
            }
            // "frame 0: 40%"
            if (line.rfind("frame ", 0) == 0 && !line.empty() && line.back() == '%') {
                if (!progressing) {
                    firstProgress = now;
                    firstCpu = cpuSecondsOf(pid);
                }
                progressing = true;
                if (line.size() >= 5 && line.compare(line.size() - 5, 5, " 100%") == 0) {
                    lastProgress = now;
                    lastCpu = cpuSecondsOf(pid);
                }
            }
            line.clear();
        }
    }
    ::close(pipeFds[0]);
    int status = 0;
    rusage usage{};
    while (wait4(pid, &status, 0, &usage) < 0 && errno == EINTR) {
    }
    child.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    if (progressing && lastProgress > firstProgress) {
        child.traceSeconds = std::chrono::duration<double>(lastProgress - firstProgress).count();
        child.traceCpuSeconds = lastCpu - firstCpu;
    }
    child.cpuSeconds = double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                       double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
    child.peakMB = double(usage.ru_maxrss) / 1024.0;  // kilobytes on Linux
    child.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    child.out = readFile(outFile);
    return child;
}

Child mustRun(const Options& opt, const std::vector<std::string>& args, const fs::path& dir) {
    Child c = runMosaiq(opt, args, dir);
    if (c.code != 0) {
        std::string line = "mosaiq";
        for (const std::string& a : args) line += " " + a;
        throw std::runtime_error(line + " failed with " + std::to_string(c.code) + ":\n" + c.err);
    }
    return c;
}

// The demo scene with the Mosaiq node's tiling set, written to file, and a
// copy with the node hidden.
void writeDemoScenes(int tiling, const fs::path& file, const fs::path& hidden) {
    mq::HostInterface ip;
    mosaiq::cli::buildDemoScene(ip);
    mq::Scene& scene = ip.scene();
    mq::Node* node = mosaiq::cli::findUniqueNode(scene, kMosaiqNode, "demo scene");
    const std::string t = std::to_string(tiling);
    mosaiq::cli::applyAssignment(scene, *node, "Tiling=" + t + "," + t, false);
    mosaiq::cli::saveSceneOrFail(scene, file);
    mosaiq::cli::applyAssignment(scene, *node, "renderable=false", false);
    mosaiq::cli::saveSceneOrFail(scene, hidden);
}

// Gives node of the scene file the material; `mosaiq set` would read the
// whole baked mesh once more.
void setMaterial(const fs::path& scene, const std::string& node, const std::string& material) {
    nlohmann::json doc = nlohmann::json::parse(readFile(scene));
    int named = 0;
    for (nlohmann::json& n : doc.at("nodes")) {
        if (n.at("name") != node) continue;
        n["material"] = material;
        ++named;
    }
    if (named != 1) throw std::runtime_error(scene.string() + ": no single node " + node);
    std::ofstream(scene, std::ios::binary) << doc.dump(2);
}

// The names `mosaiq import` reports for one merged file.
std::string mergedNode(const std::string& importOut) {
    const size_t at = importOut.find("merged ");
    const size_t colon = importOut.find(": ", at);
    const size_t end = importOut.find('\n', colon);
    if (at == std::string::npos || colon == std::string::npos) return {};
    std::string names = importOut.substr(colon + 2, end - colon - 2);
    if (names.find(',') != std::string::npos) return {};  // expected exactly one node
    return names;
}

struct Row {
    int tiling = 0;
    long long triangles = 0;
    bool baked = false;  // false: over --max-triangles, not rendered
    Child bake, imported, procedural, bakedRender;
};

std::string fixed(double v, int digits) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.*f", digits, v);
    return buf;
}

Options parseArgs(int argc, char** argv) {
    Options opt;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) throw std::runtime_error(a + " needs a value");
            return argv[++i];
        };
        if (a == "--mosaiq") {
            opt.mosaiq = value();
        } else if (a == "--resolution") {
            opt.resolution = value();
        } else if (a == "--spp") {
            opt.spp = std::stoi(value());
        } else if (a == "--max-triangles") {
            opt.maxTriangles = std::stoll(value());
        } else if (a == "--keep") {
            opt.keep = value();
        } else if (a == "--tilings") {
            opt.tilings.clear();
            std::stringstream list(value());
            for (std::string t; std::getline(list, t, ',');) opt.tilings.push_back(std::stoi(t));
        } else {
            throw std::runtime_error("unknown argument " + a +
                                     " (--resolution WxH, --spp N, --tilings A,B,..., "
                                     "--max-triangles N, --mosaiq PATH, --keep DIR)");
        }
    }
    return opt;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const Options opt = parseArgs(argc, argv);
        for (const std::string& skipped :
             mq::pluginManager().loadFolder(mq::PluginManager::defaultFolder()))
            std::cerr << "warning: " << skipped << "\n";

        fs::path dir = opt.keep;
        if (dir.empty()) {
            std::string tmpl = (fs::temp_directory_path() / "mosaiq-bench-XXXXXX").string();
            if (!::mkdtemp(tmpl.data())) throw std::runtime_error("cannot make a temporary folder");
            dir = tmpl;
        }
        fs::create_directories(dir);
        std::cerr << "working in " << dir << "\n";
        // Not quiet: the progress lines time the tracing.
        const std::vector<std::string> render = {"--resolution",          opt.resolution, "--spp",
                                                 std::to_string(opt.spp), "--seed",       "1"};
        std::vector<Row> rows;
        auto renderArgs = [](const fs::path& scene, const fs::path& image,
                             const std::vector<std::string>& extra) {
            std::vector<std::string> args = {"render", scene.string(), "-o", image.string()};
            args.insert(args.end(), extra.begin(), extra.end());
            return args;
        };
        for (const int tiling : opt.tilings) {
            Row row;
            row.tiling = tiling;
            const std::string t = std::to_string(tiling);
            const fs::path scene = dir / ("demo-" + t + ".mosaiq");
            const fs::path bakedScene = dir / ("demo-baked-" + t + ".mosaiq");
            const fs::path mesh = dir / ("baked-" + t + ".glb");
            writeDemoScenes(tiling, scene, bakedScene);

            std::cerr << "tiling " << t << ": procedural render\n";
            row.procedural =
                mustRun(opt, renderArgs(scene, dir / ("procedural-" + t + ".png"), render), dir);

            std::cerr << "tiling " << t << ": bake\n";
            row.bake = runMosaiq(opt,
                                 {"bake", scene.string(), kMosaiqNode, "-o", mesh.string(),
                                  "--max-triangles", std::to_string(opt.maxTriangles)},
                                 dir);
            const std::string& said = row.bake.code == 0 ? row.bake.out : row.bake.err;
            const size_t count = said.find(row.bake.code == 0 ? " (" : "would write ");
            if (count == std::string::npos || (row.bake.code != 0 && row.bake.code != 4))
                throw std::runtime_error("mosaiq bake failed:\n" + row.bake.err);
            row.triangles = std::atoll(said.c_str() + count + (row.bake.code == 0 ? 2 : 12));
            row.baked = row.bake.code == 0;
            if (row.baked) {
                std::cerr << "tiling " << t << ": baked render (" << row.triangles
                          << " triangles)\n";
                row.imported = mustRun(opt, {"import", bakedScene.string(), mesh.string()}, dir);
                const std::string node = mergedNode(row.imported.out);
                if (node.empty()) {
                    throw std::runtime_error("mosaiq import did not report one node:\n" +
                                             row.imported.out);
                }
                setMaterial(bakedScene, node, kMaterial);
                row.bakedRender = mustRun(
                    opt, renderArgs(bakedScene, dir / ("baked-" + t + ".png"), render), dir);
                // The baked mesh file can be gigabytes.
                if (opt.keep.empty()) fs::remove(mesh);
            }
            rows.push_back(row);
        }

        std::cout << "Demo scene, " << opt.resolution << ", " << opt.spp << " spp, "
                  << std::max(1u, std::thread::hardware_concurrency())
                  << " hardware threads. Render: CPU seconds (user + system) of the whole "
                     "`mosaiq render` run, with its tracing alone in brackets, then wall seconds; "
                     "memory: its peak resident set. Ratios from CPU seconds.\n\n";
        std::cout << "| Tiling | baked triangles | bake wall s, peak MB | procedural render "
                     "| baked render | time ratio procedural / baked (tracing) "
                     "| procedural peak MB | baked peak MB | memory ratio |\n";
        std::cout << "|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n";
        auto seconds = [](const Child& c) {
            return fixed(c.cpuSeconds, 1) + " (" + fixed(c.traceCpuSeconds, 1) + "), wall " +
                   fixed(c.seconds, 1);
        };
        for (const Row& r : rows) {
            std::cout << "| " << r.tiling << " | " << r.triangles
                      << (r.baked ? "" : " (over the limit, not baked)") << " | ";
            if (!r.baked) {
                std::cout << "- | " << seconds(r.procedural) << " | - | - | "
                          << fixed(r.procedural.peakMB, 0) << " | - | - |\n";
                continue;
            }
            std::cout << fixed(r.bake.seconds, 1) << ", " << fixed(r.bake.peakMB, 0) << " | "
                      << seconds(r.procedural) << " | " << seconds(r.bakedRender) << " | "
                      << fixed(r.procedural.cpuSeconds / r.bakedRender.cpuSeconds, 2) << " ("
                      << fixed(r.procedural.traceCpuSeconds / r.bakedRender.traceCpuSeconds, 2)
                      << ") | " << fixed(r.procedural.peakMB, 0) << " | "
                      << fixed(r.bakedRender.peakMB, 0) << " | 1/"
                      << fixed(r.bakedRender.peakMB / r.procedural.peakMB, 1) << " |\n";
        }
        std::cout << "\nImport of the baked mesh into the scene (`mosaiq import`), s, peak MB:";
        for (const Row& r : rows) {
            if (r.baked) {
                std::cout << " tiling " << r.tiling << ": " << fixed(r.imported.seconds, 1) << ", "
                          << fixed(r.imported.peakMB, 0) << ";";
            }
        }
        std::cout << "\n";
        if (rows.size() >= 2) {
            const Row& first = rows.front();
            const Row& last = rows.back();
            std::cout << "\nProcedural, tiling " << first.tiling << " -> " << last.tiling
                      << ": render CPU time x"
                      << fixed(last.procedural.cpuSeconds / first.procedural.cpuSeconds, 2)
                      << " (tracing x"
                      << fixed(last.procedural.traceCpuSeconds / first.procedural.traceCpuSeconds,
                               2)
                      << "), peak memory x"
                      << fixed(last.procedural.peakMB / first.procedural.peakMB, 2) << "\n";
        }
        if (opt.keep.empty()) fs::remove_all(dir);
    } catch (const std::exception& e) {
        std::cerr << "render_vs_baked: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
