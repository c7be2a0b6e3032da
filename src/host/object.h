// Scene objects: the base class, the triangle object and the built-in
// primitives that convert to it.
#pragma once

#include "host/core.h"
#include "host/math.h"
#include "host/mesh.h"
#include "host/paramblock.h"
#include "host/viewport.h"

#include <filesystem>
#include <string>
#include <vector>

namespace mq {

class HostInterface;
class Node;
class Object;
class ParamBlock;

// What a node's pipeline yields at a time.
struct ObjectState {
    Object* obj = nullptr;
};

// The renderer's view, passed to GetRenderMesh.
struct View {};

class Object : public ReferenceTarget {
public:
    // Whether the object can become an object of class cid (for a triangle
    // object: TRIOBJ_CLASS_ID). 0 = no.
    virtual int CanConvertToType(ClassId cid) { return 0; }
    // The converted object; this object itself when no conversion is
    // needed, otherwise a new one the caller deletes with DeleteThis.
    virtual Object* ConvertToType(TimeValue t, ClassId cid) { return nullptr; }
    // Classes the object's stack can be collapsed to, with their names.
    virtual void GetCollapseTypes(std::vector<ClassId>& types, std::vector<std::string>& names) {}
    // Bring the object's state up to date for time t; returns how long it holds.
    virtual Interval ObjectValidity(TimeValue t) { return FOREVER; }
    // A mesh for the host's own renderers. needDelete tells whether the
    // caller owns the result.
    virtual Mesh* GetRenderMesh(TimeValue t, Node* node, View& view, bool& needDelete) {
        needDelete = false;
        return nullptr;
    }
    // Optional interfaces by id; null when not offered.
    virtual void* GetInterface(uint32_t id) { return nullptr; }
    virtual void ReleaseInterface(uint32_t id, void* i) {}
    virtual IOResult Save(ISave* isave) { return IO_OK; }
    virtual IOResult Load(ILoad* iload) { return IO_OK; }
    // Parameter editing: the host calls these when the object's panels open and close.
    virtual void BeginEditParams(HostInterface* ip, uint32_t flags, Animatable* prev) {}
    virtual void EndEditParams(HostInterface* ip, uint32_t flags, Animatable* next) {}
    virtual int NumParamBlocks() { return 0; }
    virtual ParamBlock* GetParamBlock(int i) { return nullptr; }
    virtual ParamBlock* GetParamBlockByID(BlockID id) { return nullptr; }

    // Viewports. An object that draws itself (hasOwnDisplay) draws through
    // vpt's graphics window in Display, in world space, and answers hit
    // tests the same way; the viewport draws any other object's mesh
    // itself. flags holds DISP_SELECTED. HitTest returns whether the
    // object touches the window's hit region.
    virtual bool hasOwnDisplay() const { return false; }
    virtual int Display(TimeValue t, Node* node, ViewExp& vpt, int flags) { return 0; }
    virtual int HitTest(TimeValue t, Node* node, int flags, ViewExp& vpt) { return 0; }
    // What a viewport click-and-drag does while this object is created; null
    // when the host just places it at the click.
    virtual CreateMouseCallBack* GetCreateMouseCallBack() { return nullptr; }

    // Object-space bounds at t; empty when the object has no geometry.
    virtual Box3 objectBounds(TimeValue t);
    // Evaluate at t: refreshes the object (ObjectValidity) and returns its state.
    ObjectState Eval(TimeValue t);
};

class GeomObject : public Object {
public:
    SClass_ID SuperClassID() const override { return GEOMOBJECT_CLASS_ID; }
};

// Where an imported mesh came from, so a saved scene can refer to the file
// instead of copying the mesh.
struct MeshSource {
    std::filesystem::path file;  // absolute
    int nodeIndex = -1;          // index into the file's ImportedScene nodes
    bool valid() const { return !file.empty() && nodeIndex >= 0; }
};

// An editable triangle mesh.
class TriObject : public GeomObject {
public:
    TriObject() = default;
    explicit TriObject(Mesh m) : mesh(std::move(m)) {}

    Mesh& GetMesh() { return mesh; }
    int CanConvertToType(ClassId cid) override { return cid == TRIOBJ_CLASS_ID ? 1 : 0; }
    Object* ConvertToType(TimeValue t, ClassId cid) override;
    Box3 objectBounds(TimeValue t) override { return mesh.getBoundingBox(); }
    ReferenceTarget* Clone(RemapDir& remap) override;
    ClassId ClassID() const override { return TRIOBJ_CLASS_ID; }
    std::string GetClassName() const override { return "Editable Mesh"; }

    Mesh mesh;
    // Set when the mesh is exactly node source.nodeIndex of source.file.
    MeshSource source;
};

// A built-in primitive (plane, box, sphere, torus, cylinder): a parameter
// block of sizes and segment counts, converted to a TriObject on demand.
class PrimitiveObject : public GeomObject {
public:
    PrimitiveObject(ClassId cid, ParamBlockDesc* desc);
    ~PrimitiveObject() override;

    Mesh buildMesh(TimeValue t);
    int CanConvertToType(ClassId cid) override { return cid == TRIOBJ_CLASS_ID ? 1 : 0; }
    Object* ConvertToType(TimeValue t, ClassId cid) override;
    Box3 objectBounds(TimeValue t) override { return buildMesh(t).getBoundingBox(); }

    int NumRefs() override { return 1; }
    ReferenceTarget* GetReference(int i) override { return i == 0 ? pblock_ : nullptr; }
    void SetReference(int i, ReferenceTarget* target) override;
    int NumParamBlocks() override { return 1; }
    ParamBlock* GetParamBlock(int i) override { return i == 0 ? pblock_ : nullptr; }
    ParamBlock* GetParamBlockByID(BlockID id) override;
    ReferenceTarget* Clone(RemapDir& remap) override;
    ClassId ClassID() const override { return cid_; }
    std::string GetClassName() const override;

private:
    ClassId cid_;
    ParamBlock* pblock_ = nullptr;
};

// Converts any object to a triangle mesh at t: the mesh, or nullopt when the
// object cannot be converted. Deletes a temporary converted object.
std::optional<Mesh> meshOfObject(Object* obj, TimeValue t);
// Deep-copies the channels in channelMask of obj's triangle mesh at t into
// out, converting when needed and deleting a temporary converted object.
// False (out untouched) when obj cannot become a triangle object.
bool copyTriangleMesh(Object* obj, TimeValue t, Mesh& out, uint32_t channelMask);

}  // namespace mq
