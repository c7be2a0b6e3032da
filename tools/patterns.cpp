// mosaiq-patterns: writes the built-in pattern meshes as OBJ files into a folder.
#include "pattern_gen.h"

#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <string>

int main(int argc, char** argv) {
    if (argc != 2 || std::string(argv[1]) == "--help" || std::string(argv[1]) == "-h") {
        std::fprintf(argc == 2 ? stdout : stderr,
                     "usage: mosaiq-patterns FOLDER\n"
                     "Writes chainmail.obj, weave.obj, scales.obj and pavers.obj into FOLDER.\n");
        return argc == 2 ? 0 : 2;
    }
    const std::filesystem::path folder = argv[1];
    std::error_code ec;
    std::filesystem::create_directories(folder, ec);
    if (ec) {
        std::fprintf(stderr, "mosaiq-patterns: error: cannot create %s: %s\n",
                     folder.string().c_str(), ec.message().c_str());
        return 4;
    }
    try {
        for (const mq::patterns::Pattern& p : mq::patterns::allPatterns()) {
            const std::filesystem::path file = folder / (p.name + ".obj");
            mq::patterns::writeObj(p, file);
            const mq::Point3 size = p.tile.Width();
            std::printf("wrote %s: %d triangles, tile %g x %g x %g\n", file.string().c_str(),
                        p.mesh.getNumFaces(), size.x, size.y, size.z);
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "mosaiq-patterns: error: %s\n", e.what());
        return 4;
    }
    return 0;
}
