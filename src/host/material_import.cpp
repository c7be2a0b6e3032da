// Materials of an imported mesh file as scene materials. Everything here is
// best effort: a material whose texture is lost keeps its colour, and the
// import goes on with a warning.
#include "host/material_import.h"

#include "host/atomic_file.h"
#include "host/node.h"

#include <OpenImageIO/filesystem.h>
#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <system_error>

namespace mq {
namespace {

namespace fs = std::filesystem;
using json = nlohmann::json;

std::string quoted(const std::string& s) { return "\"" + s + "\""; }

// The double that prints as the float's shortest text: 0.8f is stored as 0.8.
double shortDouble(float f) {
    char buf[32];
    const auto res = std::to_chars(buf, buf + sizeof buf, f);
    return std::strtod(std::string(buf, res.ptr).c_str(), nullptr);
}

json colourJson(const Point3& c) {
    return json::array({shortDouble(c.x), shortDouble(c.y), shortDouble(c.z)});
}

std::string readBytes(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// Empty when OpenImageIO can open file as an image, else the reason.
std::string unreadableImage(const fs::path& file) {
    auto in = OIIO::ImageInput::open(file.string());
    if (in) return {};
    const std::string why = OIIO::geterror();
    return why.empty() ? "not an image OpenImageIO can read" : why;
}

// Raw RGBA8 texels as the bytes of a PNG file; empty when encoding fails.
std::string encodePng(const EmbeddedTexture& t) {
    if (t.width < 1 || t.height < 1 || t.data.size() != size_t(t.width) * size_t(t.height) * 4)
        return {};
    std::vector<unsigned char> bytes;
    OIIO::Filesystem::IOVecOutput proxy(bytes);
    auto out = OIIO::ImageOutput::create("png");
    if (!out || !out->set_ioproxy(&proxy)) return {};
    const OIIO::ImageSpec imageSpec(t.width, t.height, 4, OIIO::TypeDesc::UINT8);
    if (!out->open("embedded.png", imageSpec) ||
        !out->write_image(OIIO::TypeDesc::UINT8, t.data.data()) || !out->close()) {
        return {};
    }
    return std::string(bytes.begin(), bytes.end());
}

class MaterialImporter {
public:
    MaterialImporter(const ImportedScene& imported, const fs::path& meshFile,
                     const fs::path& sceneFolder, const fs::path& textureFolder,
                     const std::function<void(const std::string&)>& warn)
        : imported_(imported),
          meshFile_(fs::absolute(meshFile).lexically_normal()),
          sceneFolder_(sceneFolder.empty() ? fs::path()
                                           : fs::absolute(sceneFolder).lexically_normal()),
          textureFolder_(!textureFolder.empty()  ? fs::absolute(textureFolder).lexically_normal()
                         : !sceneFolder_.empty() ? sceneFolder_
                                                 : meshFile_.parent_path()),
          warn_(warn) {}

    MaterialImport run() {
        std::set<int> used;
        for (const ImportedNode& n : imported_.nodes) {
            if (!n.mesh) continue;
            for (const auto& [id, count] : facesByMaterial(*n.mesh)) used.insert(id);
        }
        MaterialImport out;
        out.nameById.resize(imported_.materials.size());
        for (int id : used) {
            if (id < 0 || size_t(id) >= imported_.materials.size()) continue;
            const ImportedMaterial& m = imported_.materials[size_t(id)];
            if (m.madeUp) continue;
            const std::string name =
                numberedName(m.name.empty() ? meshFile_.stem().string() : m.name,
                             [&](const std::string& n) { return out.materials.contains(n); });
            out.materials[name] = materialJson(m, name);
            out.nameById[size_t(id)] = name;
        }
        return out;
    }

private:
    json materialJson(const ImportedMaterial& m, const std::string& name) {
        json j = json::object();
        j["baseColor"] = colourJson(m.baseColor);
        if (m.baseColorTexture) {
            if (std::optional<fs::path> file = textureFile(*m.baseColorTexture, name))
                j["baseColor"] = {{"texture", stored(*file)},
                                  {"channel", m.baseColorTexture->mapChannel}};
        }
        j["roughness"] = shortDouble(m.roughness);
        j["metallic"] = shortDouble(m.metallic);
        if (m.emission != Point3()) j["emission"] = colourJson(m.emission);
        return j;
    }

    void warn(const std::string& material, const std::string& what) const {
        if (warn_) warn_(meshFile_.string() + ": material " + quoted(material) + ": " + what);
    }

    // The texture's file, absolute, once found (or written) and readable.
    std::optional<fs::path> textureFile(const ImportedTexture& t, const std::string& material) {
        if (t.embedded >= 0) return embeddedFile(t.embedded, material);
        // Files written on Windows name folders with backslashes.
        std::string written = t.file;
        std::replace(written.begin(), written.end(), '\\', '/');
        const fs::path given(written);
        const fs::path folder = meshFile_.parent_path();
        std::vector<fs::path> candidates = {(folder / given).lexically_normal()};
        if (given.has_filename()) candidates.push_back(folder / given.filename());
        std::error_code ec;
        for (const fs::path& c : candidates) {
            if (!fs::is_regular_file(c, ec)) continue;
            if (const std::string why = unreadableImage(c); !why.empty()) {
                warn(material, "base colour texture " + quoted(t.file) + " (" + c.string() +
                                   ") cannot be read: " + why + "; the material keeps its colour");
                return std::nullopt;
            }
            return c;
        }
        warn(material, "base colour texture " + quoted(t.file) + " not found (looked for " +
                           candidates.front().string() + "); the material keeps its colour");
        return std::nullopt;
    }

    // Each embedded image is written once, however many materials use it.
    std::optional<fs::path> embeddedFile(int index, const std::string& material) {
        if (auto it = written_.find(index); it != written_.end()) return it->second;
        std::string why;
        std::optional<fs::path> file = writeEmbedded(index, why);
        if (!file) {
            warn(material, "embedded texture " + std::to_string(index) + ": " + why +
                               "; the material keeps its colour");
        }
        return written_[index] = file;
    }

    std::optional<fs::path> writeEmbedded(int index, std::string& why) {
        if (size_t(index) >= imported_.embeddedTextures.size()) {
            why = "not in the file";
            return std::nullopt;
        }
        const EmbeddedTexture& t = imported_.embeddedTextures[size_t(index)];
        const bool raw = t.format.empty();
        const std::string bytes = raw ? encodePng(t) : t.data;
        if (bytes.empty()) {
            why = raw ? "its texels cannot be written as PNG" : "it is empty";
            return std::nullopt;
        }
        const fs::path& folder = textureFolder_;
        std::error_code ec;
        fs::create_directories(folder, ec);
        if (ec) {
            why = "folder " + folder.string() + " cannot be made: " + ec.message();
            return std::nullopt;
        }
        const std::string base = meshFile_.stem().string() + "_" + std::to_string(index);
        const std::string ext = "." + (raw ? std::string("png") : t.format);
        // The same image from an earlier import is used again; a different
        // one under that name (another file of the same stem) is kept.
        for (int n = 1;; ++n) {
            const fs::path file =
                folder / (base + (n == 1 ? std::string() : "-" + std::to_string(n)) + ext);
            const bool exists = fs::exists(file, ec);
            if (exists && (!fs::is_regular_file(file, ec) || readBytes(file) != bytes)) continue;
            if (!exists) {
                try {
                    writeFileAtomically(file, bytes);
                } catch (const FileWriteError& e) {
                    why = std::string("cannot be written: ") + e.what();
                    return std::nullopt;
                }
            }
            if (const std::string bad = unreadableImage(file); !bad.empty()) {
                if (!exists) fs::remove(file, ec);
                why = "its " + (raw ? std::string("texels") : t.format) +
                      " data cannot be read as an image: " + bad;
                return std::nullopt;
            }
            return file;
        }
    }

    // As the scene refers to its assets: relative to its folder when known.
    std::string stored(const fs::path& file) const {
        if (sceneFolder_.empty()) return file.generic_string();
        const fs::path rel = file.lexically_relative(sceneFolder_);
        return rel.empty() ? file.generic_string() : rel.generic_string();
    }

    const ImportedScene& imported_;
    fs::path meshFile_, sceneFolder_, textureFolder_;
    std::function<void(const std::string&)> warn_;
    std::map<int, std::optional<fs::path>> written_;
};

}  // namespace

MaterialImport importMaterials(const ImportedScene& imported, const fs::path& meshFile,
                               const fs::path& sceneFolder, const fs::path& textureFolder,
                               const std::function<void(const std::string&)>& warn) {
    return MaterialImporter(imported, meshFile, sceneFolder, textureFolder, warn).run();
}

std::map<int, size_t> facesByMaterial(const Mesh& mesh) {
    std::map<int, size_t> counts;
    for (const Face& f : mesh.faces) ++counts[f.getMatID()];
    return counts;
}

}  // namespace mq
