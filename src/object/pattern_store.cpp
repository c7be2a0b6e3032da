#include "object/pattern_store.h"

#include "host/interface.h"
#include "host/object.h"
#include "plugin/params.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <memory>
#include <system_error>
#include <vector>

namespace mosaiq {

using namespace mq;

namespace {

// Channels taken from a file pattern's mesh, as the pattern capture takes them.
constexpr uint32_t kPatternChannels = 0x23FF;

// Files being merged right now: a scene file whose Mosaiq object names the
// same file would otherwise reload itself from its post-load callback for ever.
std::vector<std::string>& filesBeingLoaded() {
    static std::vector<std::string> files;
    return files;
}

std::string fileKey(const std::string& path) {
    std::error_code ec;
    const std::filesystem::path canonical = std::filesystem::weakly_canonical(path, ec);
    return ec ? path : canonical.string();
}

class LoadingFile {
public:
    explicit LoadingFile(std::string key) : key_(std::move(key)) {
        auto& files = filesBeingLoaded();
        nested_ = std::find(files.begin(), files.end(), key_) != files.end();
        if (!nested_) files.push_back(key_);
    }
    ~LoadingFile() {
        if (nested_) return;
        auto& files = filesBeingLoaded();
        files.erase(std::find(files.begin(), files.end(), key_));
    }
    LoadingFile(const LoadingFile&) = delete;
    LoadingFile& operator=(const LoadingFile&) = delete;
    bool nested() const { return nested_; }

private:
    std::string key_;
    bool nested_ = false;
};

// Takes the first merged top-level node that converts into pattern and
// deletes every node from child rootChildCount of the root on. A deleted
// node's children move up under the root and are visited in turn. True when
// a mesh was taken.
bool takeMeshAndRemoveMerged(HostInterface& ip, Node& root, int rootChildCount, Mesh& pattern) {
    bool taken = false;
    std::exception_ptr error;
    while (root.NumberOfChildren() > rootChildCount) {
        Node* child = root.GetChildNode(rootChildCount);
        if (!taken && !error) {
            try {
                taken = copyTriangleMesh(child->EvalWorldState(0, true).obj, 0, pattern,
                                         kPatternChannels);
            } catch (...) {
                error = std::current_exception();  // the merge is still undone below
            }
        }
        ip.DeleteNode(child, false);
        // A host that refused the deletion would keep us here for ever.
        if (root.NumberOfChildren() > rootChildCount && root.GetChildNode(rootChildCount) == child)
            break;
    }
    if (error) std::rethrow_exception(error);
    return taken;
}

}  // namespace

bool loadPatternStore(PatternPointCloud& store, const std::string& given, std::string* error) {
    auto fail = [&](const std::string& why) {
        if (error) *error = "Pattern file \"" + given + "\" " + why;
        return false;
    };
    try {
        HostInterface* ip = GetCOREInterface();
        if (!ip || !ip->GetRootNode()) return fail("cannot be merged: there is no host scene");
        // Relative names resolve beside the scene file first.
        const std::string path = ip->ResolveAssetPath(given);
        if (!ip->DoesFileExist(path))
            return fail(ip->IsDirectory(path) ? "is a folder, not a file" : "does not exist");
        LoadingFile loading(fileKey(path));
        if (loading.nested()) return fail("holds a Mosaiq object that uses the same file");

        Node& root = *ip->GetRootNode();
        const int rootChildCount = root.NumberOfChildren();
        const bool merged = ip->MergeFromFile(path, true, false, false, MERGE_DUPS_RENAME, nullptr,
                                              MERGE_DUP_MTL_RENAME, MERGE_REPARENT_ALWAYS) != 0;
        // A failed merge should add nothing; whatever it did add goes again.
        TriObject pattern;
        const bool taken = takeMeshAndRemoveMerged(*ip, root, rootChildCount, pattern.GetMesh());
        if (!merged) {
            const std::string reason = ip->lastError();
            return fail(reason.empty() ? "cannot be read" : "cannot be read: " + reason);
        }
        if (!taken) return fail("holds no mesh");

        auto cloud = std::make_unique<PatternPointCloud>();
        if (!sample(*cloud, &pattern)) return fail("holds a mesh without faces");
        store = *cloud;
        return true;
    } catch (const std::exception& e) {
        return fail(std::string("cannot be read: ") + e.what());
    } catch (...) {
        return fail("cannot be read");
    }
}

std::optional<Mesh> patternNodeMesh(Node* node) {
    if (!node) return std::nullopt;
    return meshOfObject(node->EvalWorldState(0, true).obj, 0);
}

std::string scenePatternProblem(mq::ParamBlock& pb, mq::TimeValue t, bool needFaces) {
    Node* node = pb.GetINode(kPattern, 0);
    if (!node) return "no \"Pattern\" node is set";
    const std::string what = "\"Pattern\" node \"" + node->GetName() + "\"";
    const std::optional<Mesh> mesh = meshOfObject(node->EvalWorldState(t, true).obj, t);
    if (!mesh) return what + " has no mesh";
    if (mesh->getNumVerts() == 0) return what + " has an empty mesh";
    if (needFaces && mesh->getNumFaces() == 0) return what + " has a mesh without faces";
    return {};
}

std::string captureProblem(mq::ParamBlock& pb, mq::TimeValue t) {
    std::string why;
    if (pb.GetInt(kPatternSource, 0) == kSourceScene) {
        why = scenePatternProblem(pb, t, true);
    } else {
        // The file loader checks what the capture checks and says which failed.
        auto scratch = std::make_unique<PatternPointCloud>();
        loadPatternStore(*scratch, pb.GetStr(kPatternFile, 0), &why);
    }
    return why.empty() ? "the pattern could not be captured" : why;
}

}  // namespace mosaiq
