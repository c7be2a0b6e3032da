// Class identity and the reference graph every scene entity takes part in.
#pragma once

#include <cstdint>
#include <string>

namespace mq {

// Identifies a class within its super class. Saved scenes name classes by it.
struct ClassId {
    uint32_t a = 0, b = 0;
    constexpr ClassId() = default;
    constexpr ClassId(uint32_t a_, uint32_t b_) : a(a_), b(b_) {}
    constexpr uint32_t PartA() const { return a; }
    constexpr uint32_t PartB() const { return b; }
    bool operator==(const ClassId&) const = default;
};

using SClass_ID = uint32_t;
inline constexpr SClass_ID GEOMOBJECT_CLASS_ID = 0x10;
inline constexpr SClass_ID PARAMETER_BLOCK2_CLASS_ID = 0x82;

inline constexpr ClassId TRIOBJ_CLASS_ID{9, 0};
inline constexpr ClassId BOXOBJ_CLASS_ID{0x10, 0};
inline constexpr ClassId SPHERE_CLASS_ID{0x11, 0};
inline constexpr ClassId CYLINDER_CLASS_ID{0x12, 0};
inline constexpr ClassId TORUS_CLASS_ID{0x20, 0};
inline constexpr ClassId PLANE_CLASS_ID{0x81f1dfc, 0x77566f65};

// Results of Save and Load.
enum IOResult { IO_OK = 0, IO_END = 1, IO_ERROR = 2 };

class ReferenceTarget;
class RemapDir;
class ISave;
class ILoad;

// Something with animatable sub-parts.
class Animatable {
public:
    virtual ~Animatable() = default;
    virtual int NumSubs() { return 0; }
    virtual Animatable* SubAnim(int i) { return nullptr; }
    virtual std::string SubAnimName(int i) { return {}; }
    virtual ClassId ClassID() const = 0;
    virtual SClass_ID SuperClassID() const = 0;
    virtual std::string GetClassName() const = 0;
    // Frees the object; the host calls this instead of delete.
    virtual void DeleteThis() { delete this; }
};

// Something that holds references to targets. References are owning: the
// maker deletes its targets when replaced (ReplaceReference) or when it is
// destroyed (DeleteAllRefs, called by subclasses' destructors).
class ReferenceMaker : public Animatable {
public:
    virtual int NumRefs() { return 0; }
    virtual ReferenceTarget* GetReference(int i) { return nullptr; }
    virtual void SetReference(int i, ReferenceTarget* target) {}

    // Set reference i to target and delete what it held before.
    void ReplaceReference(int i, ReferenceTarget* target);
    // Delete every reference target and clear the references.
    void DeleteAllRefs();
};

class ReferenceTarget : public ReferenceMaker {
public:
    // A deep copy; remap maps references already cloned.
    virtual ReferenceTarget* Clone(RemapDir& remap) = 0;
};

// Clone bookkeeping so that shared targets are cloned once.
class RemapDir {
public:
    ReferenceTarget* CloneRef(ReferenceTarget* target) {
        return target ? target->Clone(*this) : nullptr;
    }
};

// Copies what the host keeps about every object (nothing beyond references so far).
inline void BaseClone(ReferenceTarget* from, ReferenceTarget* to, RemapDir& remap) {}

}  // namespace mq
