#include "host/object.h"

#include "host/classdesc.h"
#include "host/paramblock.h"

namespace mq {

ObjectState Object::Eval(TimeValue t) {
    ObjectValidity(t);
    return ObjectState{this};
}

Box3 Object::objectBounds(TimeValue t) {
    std::optional<Mesh> mesh = meshOfObject(this, t);
    return mesh ? mesh->getBoundingBox() : Box3();
}

std::optional<Mesh> meshOfObject(Object* obj, TimeValue t) {
    Mesh mesh;
    if (!copyTriangleMesh(obj, t, mesh, ALL_CHANNELS)) return std::nullopt;
    return mesh;
}

bool copyTriangleMesh(Object* obj, TimeValue t, Mesh& out, uint32_t channelMask) {
    if (!obj || !obj->CanConvertToType(TRIOBJ_CLASS_ID)) return false;
    Object* converted = obj->ConvertToType(t, TRIOBJ_CLASS_ID);
    struct DeleteTemporary {
        Object* converted;
        Object* original;
        ~DeleteTemporary() {
            if (converted && converted != original) converted->DeleteThis();
        }
    } cleanup{converted, obj};
    auto* tri = dynamic_cast<TriObject*>(converted);
    if (!tri) return false;
    out.DeepCopy(tri->GetMesh(), channelMask);
    return true;
}

// ---------------------------------------------------------------------------

Object* TriObject::ConvertToType(TimeValue t, ClassId cid) {
    return cid == TRIOBJ_CLASS_ID ? this : nullptr;
}

ReferenceTarget* TriObject::Clone(RemapDir& remap) {
    auto* copy = new TriObject(mesh);
    copy->source = source;
    BaseClone(this, copy, remap);
    return copy;
}

// ---------------------------------------------------------------------------

PrimitiveObject::PrimitiveObject(ClassId cid, ParamBlockDesc* desc) : cid_(cid) {
    pblock_ = new ParamBlock(desc, this);
}

PrimitiveObject::~PrimitiveObject() { DeleteAllRefs(); }

void PrimitiveObject::SetReference(int i, ReferenceTarget* target) {
    if (i == 0) pblock_ = dynamic_cast<ParamBlock*>(target);
}

ParamBlock* PrimitiveObject::GetParamBlockByID(BlockID id) {
    return pblock_ && pblock_->ID() == id ? pblock_ : nullptr;
}

Object* PrimitiveObject::ConvertToType(TimeValue t, ClassId cid) {
    if (cid != TRIOBJ_CLASS_ID) return nullptr;
    return new TriObject(buildMesh(t));
}

ReferenceTarget* PrimitiveObject::Clone(RemapDir& remap) {
    auto* copy = new PrimitiveObject(cid_, pblock_->GetDesc());
    copy->ReplaceReference(0, remap.CloneRef(pblock_));
    copy->pblock_->SetOwner(copy);
    BaseClone(this, copy, remap);
    return copy;
}

}  // namespace mq
