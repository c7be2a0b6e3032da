// Helpers the test binaries share: point comparison, nodes, thrown
// messages, text files and temporary folders.
#pragma once

#include "host/math.h"
#include "host/node.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>

namespace mq::test {

namespace fs = std::filesystem;

// |a - b| <= eps, which also bounds every component.
inline void expectNear(const Point3& a, const Point3& b, float eps = 1e-5f) {
    EXPECT_LE(Length(a - b), eps) << "(" << a.x << ", " << a.y << ", " << a.z << ") vs (" << b.x
                                  << ", " << b.y << ", " << b.z << ")";
}

// A new child of parent holding obj (when given) at tm.
inline Node* addNode(Node* parent, const std::string& name, Object* obj = nullptr,
                     const Matrix3& tm = Matrix3()) {
    Node* n = parent->attachChild(std::make_unique<Node>(name));
    if (obj) n->SetObjectRef(obj);
    n->setLocalTM(tm);
    return n;
}

// The message of the E that f throws; "nothing thrown" when f returns.
template <class E, class F>
std::string messageOf(F&& f) {
    try {
        f();
    } catch (const E& e) {
        return e.what();
    }
    return "nothing thrown";
}

inline void writeText(const fs::path& file, const std::string& text) {
    std::ofstream(file, std::ios::binary) << text;
}

inline std::string readText(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

// A fresh folder, removed with everything in it (locked or not) at the end.
class TempDir {
public:
    TempDir() {
        std::string tmpl = (fs::temp_directory_path() / "mosaiq-test-XXXXXX").string();
        if (::mkdtemp(tmpl.data())) path_ = tmpl;
        EXPECT_FALSE(path_.empty()) << "cannot create a temporary folder";
    }
    ~TempDir() {
        std::error_code ec;
        fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ec);
        fs::remove_all(path_, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const fs::path& path() const { return path_; }
    fs::path operator/(const std::string& name) const { return path_ / name; }
    // Writes name in the folder and returns its path.
    fs::path write(const std::string& name, const std::string& text) const {
        writeText(path_ / name, text);
        return path_ / name;
    }

private:
    fs::path path_;
};

}  // namespace mq::test
