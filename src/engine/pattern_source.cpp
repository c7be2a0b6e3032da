#include "engine/pattern_source.h"

#include "host/interface.h"
#include "host/node.h"
#include "host/object.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <optional>
#include <vector>

namespace mq {

namespace {

std::string quoted(const std::string& s) { return "\"" + s + "\""; }

// Files being merged right now: a scene file whose Mosaiq object names the
// same file would otherwise reload itself from its post-load callback for ever.
std::vector<std::string>& filesBeingMerged() {
    static std::vector<std::string> files;
    return files;
}

std::string fileKey(const std::string& path) {
    std::error_code ec;
    const std::filesystem::path canonical = std::filesystem::weakly_canonical(path, ec);
    return ec ? path : canonical.string();
}

class MergingFile {
public:
    explicit MergingFile(std::string key) : key_(std::move(key)) {
        auto& files = filesBeingMerged();
        nested_ = std::find(files.begin(), files.end(), key_) != files.end();
        if (!nested_) files.push_back(key_);
    }
    ~MergingFile() {
        if (nested_) return;
        auto& files = filesBeingMerged();
        files.erase(std::find(files.begin(), files.end(), key_));
    }
    MergingFile(const MergingFile&) = delete;
    MergingFile& operator=(const MergingFile&) = delete;
    bool nested() const { return nested_; }

private:
    std::string key_;
    bool nested_ = false;
};

// Takes the first merged top-level node that converts into mesh and deletes
// every node from child rootChildCount of the root on. A deleted node's
// children move up under the root and are visited in turn. True when a mesh
// was taken.
bool takeMeshAndRemoveMerged(HostInterface& ip, Node& root, int rootChildCount, Mesh& mesh) {
    bool taken = false;
    std::exception_ptr error;
    while (root.NumberOfChildren() > rootChildCount) {
        Node* child = root.GetChildNode(rootChildCount);
        if (!taken && !error) {
            try {
                taken =
                    copyTriangleMesh(child->EvalWorldState(0, true).obj, 0, mesh, kPatternChannels);
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

bool scenePatternMesh(Node* node, TimeValue t, bool needFaces, PatternMesh& out, std::string& why) {
    if (!node) {
        why = "no \"Pattern\" node is set";
        return false;
    }
    const std::string what = "\"Pattern\" node " + quoted(node->GetName());
    const ObjectState state = node->EvalWorldState(t, true);
    Mesh mesh;
    if (!state.obj || !copyTriangleMesh(state.obj, t, mesh, kPatternChannels)) {
        why = what + " has no mesh";
        return false;
    }
    // A capture needs faces; the crop-box operations only need points.
    if (needFaces ? mesh.getNumFaces() == 0 : mesh.getNumVerts() == 0) {
        why = what + (mesh.getNumVerts() == 0 ? " has an empty mesh" : " has a mesh without faces");
        return false;
    }
    out.mesh = std::move(mesh);
    out.fromScene = true;
    out.nodeTM = node->GetObjectTM(t);
    return true;
}

bool mergePatternMesh(HostInterface& ip, const std::string& file, Mesh& mesh, std::string& why) {
    auto fail = [&](const std::string& reason) {
        why = "Pattern file " + quoted(file) + " " + reason;
        return false;
    };
    if (!ip.GetRootNode()) return fail("cannot be merged: there is no host scene");
    const std::string path = ip.ResolveAssetPath(file);
    if (!ip.DoesFileExist(path))
        return fail(ip.IsDirectory(path) ? "is a folder, not a file" : "does not exist");
    MergingFile merging(fileKey(path));
    if (merging.nested()) return fail("holds a Mosaiq object that uses the same file");

    Node& root = *ip.GetRootNode();
    const int rootChildCount = root.NumberOfChildren();
    const bool merged = ip.MergeFromFile(path, true, false, false, MERGE_DUPS_RENAME, nullptr,
                                         MERGE_DUP_MTL_RENAME, MERGE_REPARENT_ALWAYS) != 0;
    // A failed merge should add nothing; whatever it did add goes again.
    Mesh taken;
    const bool hasMesh = takeMeshAndRemoveMerged(ip, root, rootChildCount, taken);
    if (!merged) {
        const std::string reason = ip.lastError();
        return fail(reason.empty() ? "cannot be read" : "cannot be read: " + reason);
    }
    if (!hasMesh) return fail("holds no mesh");
    mesh = std::move(taken);
    return true;
}

bool takePatternMesh(const PatternSource& source, TimeValue t, PatternMesh& out, std::string& why) {
    if (!source.fromFile)
        return scenePatternMesh(source.node ? Node::fromHandle(source.node) : nullptr, t, true, out,
                                why);
    HostInterface* ip = GetCOREInterface();
    if (!ip) {
        why = "Pattern file " + quoted(source.file) + " cannot be merged: there is no host";
        return false;
    }
    if (!mergePatternMesh(*ip, source.file, out.mesh, why)) return false;
    out.fromScene = false;
    out.nodeTM.IdentityMatrix();
    return true;
}

}  // namespace mq
