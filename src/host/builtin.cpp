// The host's own classes: the triangle object and the primitives.
#include "host/classdesc.h"
#include "host/object.h"

namespace mq {

namespace {

ParamDef worldParam(ParamID id, const char* name, float def) {
    return ParamDef{.id = id,
                    .internalName = name,
                    .type = TYPE_WORLD,
                    .defaultValue = def,
                    .rangeMin = 0.001f,
                    .rangeMax = 1000000.0f};
}

ParamDef segParam(ParamID id, const char* name, int def, int lo) {
    return ParamDef{.id = id,
                    .internalName = name,
                    .type = TYPE_INT,
                    .defaultValue = def,
                    .rangeMin = lo,
                    .rangeMax = 500};
}

class PrimitiveClassDesc : public ClassDesc {
public:
    PrimitiveClassDesc(const char* name, ClassId cid, std::vector<ParamDef> params)
        : name_(name), cid_(cid), desc_(0, "parameters", 0, this, P_AUTO_CONSTRUCT, 0) {
        for (auto& p : params) desc_.addParam(std::move(p));
    }
    void* Create(bool) override { return new PrimitiveObject(cid_, &desc_); }
    const char* ClassName() override { return name_; }
    SClass_ID SuperClassID() override { return GEOMOBJECT_CLASS_ID; }
    ClassId ClassID() override { return cid_; }
    const char* Category() override { return "Standard Primitives"; }

private:
    const char* name_;
    ClassId cid_;
    ParamBlockDesc desc_;
};

class TriObjectClassDesc : public ClassDesc {
public:
    void* Create(bool) override { return new TriObject; }
    const char* ClassName() override { return "Editable Mesh"; }
    const char* InternalName() override { return "Editable_mesh"; }
    SClass_ID SuperClassID() override { return GEOMOBJECT_CLASS_ID; }
    ClassId ClassID() override { return TRIOBJ_CLASS_ID; }
    int IsPublic() override { return 0; }
};

PrimitiveClassDesc& planeDesc() {
    static PrimitiveClassDesc d("Plane", PLANE_CLASS_ID,
                                {worldParam(0, "length", 100), worldParam(1, "width", 100),
                                 segParam(2, "lengthsegs", 4, 1), segParam(3, "widthsegs", 4, 1)});
    return d;
}
PrimitiveClassDesc& boxDesc() {
    static PrimitiveClassDesc d("Box", BOXOBJ_CLASS_ID,
                                {worldParam(0, "length", 50), worldParam(1, "width", 50),
                                 worldParam(2, "height", 50), segParam(3, "lengthsegs", 1, 1),
                                 segParam(4, "widthsegs", 1, 1), segParam(5, "heightsegs", 1, 1)});
    return d;
}
PrimitiveClassDesc& sphereDesc() {
    static PrimitiveClassDesc d("Sphere", SPHERE_CLASS_ID,
                                {worldParam(0, "radius", 50), segParam(1, "segs", 32, 4)});
    return d;
}
PrimitiveClassDesc& torusDesc() {
    static PrimitiveClassDesc d("Torus", TORUS_CLASS_ID,
                                {worldParam(0, "radius1", 50), worldParam(1, "radius2", 10),
                                 segParam(2, "segs", 24, 3), segParam(3, "sides", 12, 3)});
    return d;
}
PrimitiveClassDesc& cylinderDesc() {
    static PrimitiveClassDesc d("Cylinder", CYLINDER_CLASS_ID,
                                {worldParam(0, "radius", 25), worldParam(1, "height", 100),
                                 segParam(2, "heightsegs", 5, 1), segParam(3, "sides", 18, 3)});
    return d;
}

}  // namespace

void registerBuiltinClasses(ClassDirectory& dir) {
    static TriObjectClassDesc tri;
    dir.add(&tri);
    dir.add(&planeDesc());
    dir.add(&boxDesc());
    dir.add(&sphereDesc());
    dir.add(&torusDesc());
    dir.add(&cylinderDesc());
}

std::string PrimitiveObject::GetClassName() const {
    ClassDesc* cd = classDirectory().find(GEOMOBJECT_CLASS_ID, cid_);
    return cd ? cd->ClassName() : "Primitive";
}

Mesh PrimitiveObject::buildMesh(TimeValue t) {
    ParamBlock& pb = *pblock_;
    auto f = [&](ParamID id) { return pb.GetFloat(id, t); };
    auto i = [&](ParamID id) { return pb.GetInt(id, t); };
    if (cid_ == PLANE_CLASS_ID) return makePlaneMesh(f(0), f(1), i(2), i(3));
    if (cid_ == BOXOBJ_CLASS_ID) return makeBoxMesh(f(0), f(1), f(2), i(3), i(4), i(5));
    if (cid_ == SPHERE_CLASS_ID) return makeSphereMesh(f(0), i(1));
    if (cid_ == TORUS_CLASS_ID) return makeTorusMesh(f(0), f(1), i(2), i(3));
    if (cid_ == CYLINDER_CLASS_ID) return makeCylinderMesh(f(0), f(1), i(2), i(3));
    return Mesh();
}

}  // namespace mq
