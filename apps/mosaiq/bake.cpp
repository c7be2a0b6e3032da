// mosaiq bake: the explicit triangle mesh a Mosaiq node shows at a frame,
// written as .obj or .glb. The output is checked before baking, which can
// take long; a bake over --max-triangles is refused before its mesh is made.
#include "cli.h"

#include "host/export.h"
#include "host/mesh.h"
#include "host/node.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <string>

namespace mosaiq::cli {

namespace {

namespace fs = std::filesystem;

}  // namespace

void runBake(mq::HostInterface& ip, const BakeOptions& opt) {
    if (!mq::isExportableMeshFile(opt.output)) {
        throw CliError(kExitUsage, "-o " + opt.output.string() + ": unsupported mesh format \"" +
                                       opt.output.extension().string() + "\" (use .glb or .obj)");
    }
    if (opt.maxTriangles < 1) throw CliError(kExitUsage, "--max-triangles must be at least 1");
    std::error_code ec;
    if (!fs::exists(opt.scene, ec))
        throw CliError(kExitInput, opt.scene.string() + ": no such scene file");
    loadSceneOrFail(ip, opt.scene);
    mq::Scene& scene = ip.scene();
    mq::Node* node = findUniqueNode(scene, opt.node, opt.scene.string());
    mq::IPatternTools& tools = patternToolsOrFail(*node, opt.scene.string());
    checkPatternFilesOrFail(ip, opt.scene.string(), node);
    checkWritable(opt.output, "a mesh");

    const std::string what =
        opt.scene.string() + ": " + node->GetName() + ": frame " + std::to_string(opt.frame);
    mq::BakeLimits limits;
    limits.maxTriangles = opt.maxTriangles;
    mq::BakeStats stats;
    mq::Mesh mesh;
    std::string error;
    if (!tools.bakeMesh(mq::TimeValue(opt.frame) * mq::kTicksPerFrame, limits, mesh, stats,
                        error)) {
        // A bake refused for its size reports the count it would have written.
        if (stats.triangles > opt.maxTriangles) {
            throw CliError(kExitOutput, what + ": would write " + std::to_string(stats.triangles) +
                                            " triangles, more than --max-triangles " +
                                            std::to_string(opt.maxTriangles) + "; nothing written");
        }
        if (stats.triangles > 0)
            throw CliError(kExitOutput, what + ": " + error + "; nothing written");
        throw CliError(kExitInput, what + ": cannot bake: " + error);
    }
    if (mesh.faces.empty()) {
        throw CliError(kExitInput, what + ": the node shows no triangles (" +
                                       std::to_string(stats.pieces) + " pieces); nothing written");
    }

    checkStrict();
    try {
        mq::exportMesh(mesh, opt.output);
    } catch (const mq::ExportError& e) {
        throw CliError(kExitOutput, e.what());
    }
    std::cout << "wrote " << opt.output.string() << " (" << stats.triangles << " triangles)\n";
}

}  // namespace mosaiq::cli
