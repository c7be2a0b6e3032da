// Parameter blocks: a class declares its parameters once in a
// ParamBlockDesc (id, internal name, type, default, range, control binding);
// each object holds one ParamBlock of values built from it.
#pragma once

#include "host/core.h"
#include "host/math.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace mq {

class ClassDesc;
class Node;
class ParamBlock;
namespace ui {
class ParamMap;
class ParamMap2UserDlgProc;
}  // namespace ui

using ParamID = int16_t;
using BlockID = int16_t;
using MapID = int16_t;

// Parameter types. Saved scenes name them by typeName(), not by number.
enum ParamType : int {
    TYPE_FLOAT = 0,
    TYPE_INT = 1,
    TYPE_POINT3 = 3,
    TYPE_BOOL = 4,
    TYPE_WORLD = 7,
    TYPE_STRING = 8,
    TYPE_FILENAME = 9,
    TYPE_INODE = 17,
    TYPE_MATRIX3 = 22,
};
const char* typeName(ParamType type);
std::optional<ParamType> typeFromName(const std::string& name);

// Block descriptor flags.
inline constexpr uint32_t P_AUTO_CONSTRUCT = 0x0002;  // built by MakeAutoParamBlocks
inline constexpr uint32_t P_AUTO_UI = 0x0004;         // rollouts opened by the class descriptor
inline constexpr uint32_t P_MULTIMAP = 0x0020;        // several rollout maps

// Control kinds a parameter can be bound to.
enum ControlType : int {
    TYPE_SPINNER = 0,
    TYPE_RADIO = 1,
    TYPE_SINGLECHEKBOX = 2,
    TYPE_MULTICHEKBOX = 3,
    TYPE_COLORSWATCH = 4,
    TYPE_EDITBOX = 5,
    TYPE_CHECKBUTTON = 6,
    TYPE_PICKNODEBUTTON = 7,
};

// What a spinner edits.
enum EditSpinnerType : int {
    EDITTYPE_FLOAT = 0,
    EDITTYPE_INT = 1,
    EDITTYPE_UNIVERSE = 2,  // world units
};

// The binding of one parameter to dialog controls of one rollout map.
struct ParamUIBinding {
    MapID map = 0;
    ControlType control = TYPE_SPINNER;
    EditSpinnerType spinnerType = EDITTYPE_FLOAT;  // spinners only
    bool autoScale = false;                        // spinners only
    // Spinners: edit and spinner control pairs, in table element order.
    // Radio buttons, check boxes, edit boxes, pick buttons: the control ids.
    std::vector<int> controls;
    std::vector<int> radioValues;  // radio buttons: the value each button sets
    std::string labels;            // the dialog's labels, for the studio's layout
};

// One value of a parameter. Booleans and integers are int, floats and world
// distances float, nodes are node handles (0 = none), file names strings.
struct NodeRef {
    uint64_t handle = 0;
    bool operator==(const NodeRef&) const = default;
};
using ParamValue = std::variant<int, float, Point3, std::string, Matrix3, NodeRef>;

// Hooks called when a parameter is read or written through the block.
class PBAccessor {
public:
    virtual ~PBAccessor() = default;
    // Called before the new value is stored; may change it.
    virtual void Set(ParamValue& v, ReferenceMaker* owner, ParamID id, int tabIndex, TimeValue t) {}
    // Called after the stored value is read; may change the returned copy.
    virtual void Get(ParamValue& v, ReferenceMaker* owner, ParamID id, int tabIndex, TimeValue t,
                     Interval& valid) {}
};

struct ParamDef {
    ParamID id = 0;
    std::string internalName;
    ParamType type = TYPE_FLOAT;
    int tableSize = 0;  // 0: a single value; n: a fixed table of n elements
    uint32_t flags = 0;
    ParamValue defaultValue = 0;
    // Range, inclusive, for numeric parameters.
    std::optional<double> rangeMin, rangeMax;
    PBAccessor* accessor = nullptr;
    std::optional<ParamUIBinding> ui;
    // For users (`mosaiq help params`, the docs): the unit values are given
    // in ("scene units", "%"; empty when unitless) and what the parameter
    // does, in plain sentences.
    std::string unit;
    std::string description;

    bool isTable() const { return tableSize > 0; }
    int count() const { return isTable() ? tableSize : 1; }
};

struct RolloutMap {
    MapID id = 0;
    int dialogResource = 0;
    int titleStringId = 0;
    uint32_t flags = 0;
    ui::ParamMap2UserDlgProc* dlgProc = nullptr;  // not owned
};

// The static description of a parameter block.
class ParamBlockDesc {
public:
    ParamBlockDesc(BlockID id, std::string internalName, int localNameResource, ClassDesc* owner,
                   uint32_t flags, int refNo);

    BlockID ID = 0;
    std::string int_name;
    int local_name = 0;
    ClassDesc* cd = nullptr;
    uint32_t flags = 0;
    int ref_no = 0;  // reference index of the block in its owner
    std::vector<RolloutMap> maps;

    void addMap(RolloutMap map) { maps.push_back(map); }
    void addParam(ParamDef def);

    int Count() const { return static_cast<int>(params_.size()); }
    const std::vector<ParamDef>& params() const { return params_; }
    // Null for an unknown id or name.
    const ParamDef* GetParamDef(ParamID id) const;
    const ParamDef* findByName(const std::string& internalName) const;

    // Attach a control binding to a parameter (replacing any earlier one).
    // Returns false for an unknown id.
    bool bindUI(ParamID id, ParamUIBinding binding);
    // Install a rollout's own procedure, in the open rollouts of the map too
    // (which send it Init at once).
    void SetUserDlgProc(MapID map, ui::ParamMap2UserDlgProc* proc);
    ui::ParamMap2UserDlgProc* GetUserDlgProc(MapID map) const;
    // Tell open rollouts that a parameter changed (all elements for -1).
    void InvalidateUI(ParamID id, int tabIndex = -1);

    // Bring a value into the parameter's range and type. Returns the value
    // stored and whether it had to be changed.
    struct Clamped {
        ParamValue value;
        bool changed = false;
    };
    Clamped clampToRange(const ParamDef& def, const ParamValue& v) const;

    // The open rollouts of blocks of this descriptor; ParamMap keeps it.
    void addOpenMap(ui::ParamMap* map) { openMaps_.push_back(map); }
    void removeOpenMap(ui::ParamMap* map);
    // Show a stored change of block's parameter in the rollouts open on block.
    void showInOpenMaps(const ParamBlock& block, ParamID id, int tabIndex);

private:
    std::vector<ParamDef> params_;
    std::vector<ui::ParamMap*> openMaps_;
};

// The values of one object's parameters.
class ParamBlock : public ReferenceTarget {
public:
    ParamBlock(ParamBlockDesc* desc, ReferenceMaker* owner);
    ~ParamBlock() override;
    ParamBlock(const ParamBlock&) = delete;
    ParamBlock& operator=(const ParamBlock&) = delete;

    ParamBlockDesc* GetDesc() const { return desc_; }
    BlockID ID() const { return desc_->ID; }
    ReferenceMaker* GetOwner() const { return owner_; }
    void SetOwner(ReferenceMaker* owner) { owner_ = owner; }

    // Typed reads. They return false (and leave v alone) for an unknown id,
    // a table index out of range or a value of another type; valid is
    // narrowed to the value's validity (every value holds forever).
    bool GetValue(ParamID id, TimeValue t, int& v, Interval& valid, int tabIndex = 0);
    bool GetValue(ParamID id, TimeValue t, float& v, Interval& valid, int tabIndex = 0);
    bool GetValue(ParamID id, TimeValue t, Point3& v, Interval& valid, int tabIndex = 0);
    bool GetValue(ParamID id, TimeValue t, std::string& v, Interval& valid, int tabIndex = 0);
    bool GetValue(ParamID id, TimeValue t, Matrix3& v, Interval& valid, int tabIndex = 0);
    // A node that has been deleted reads as null.
    bool GetValue(ParamID id, TimeValue t, Node*& v, Interval& valid, int tabIndex = 0);

    // Shorthands reading at time t with a throwaway interval; defaults on failure.
    int GetInt(ParamID id, TimeValue t = 0, int tabIndex = 0);
    float GetFloat(ParamID id, TimeValue t = 0, int tabIndex = 0);
    Node* GetINode(ParamID id, TimeValue t = 0, int tabIndex = 0);
    std::string GetStr(ParamID id, TimeValue t = 0, int tabIndex = 0);
    Matrix3 GetMatrix3(ParamID id, TimeValue t = 0, int tabIndex = 0);

    // Typed writes, as the SDK does them: no clamping. The accessor's Set
    // runs first; the change is recorded for undo while theHold is holding.
    bool SetValue(ParamID id, TimeValue t, int v, int tabIndex = 0);
    bool SetValue(ParamID id, TimeValue t, float v, int tabIndex = 0);
    bool SetValue(ParamID id, TimeValue t, const Point3& v, int tabIndex = 0);
    bool SetValue(ParamID id, TimeValue t, const std::string& v, int tabIndex = 0);
    bool SetValue(ParamID id, TimeValue t, const char* v, int tabIndex = 0);
    bool SetValue(ParamID id, TimeValue t, const Matrix3& v, int tabIndex = 0);
    bool SetValue(ParamID id, TimeValue t, Node* v, int tabIndex = 0);

    // The raw stored value; null for an unknown id or index.
    const ParamValue* rawValue(ParamID id, int tabIndex = 0) const;
    // Store without accessor or type conversion; records undo. False when
    // the id or index is unknown or the value's kind does not fit the type.
    bool setRawValue(ParamID id, int tabIndex, const ParamValue& v);

    // The host's scripting entry: convert the value to the parameter's type
    // and clamp it into range. Returns a warning naming the parameter and
    // both values when the value had to change, and an error when it cannot
    // be assigned at all.
    struct ScriptResult {
        bool ok = false;
        std::string message;  // warning when ok, error otherwise
    };
    ScriptResult assignFromScript(ParamID id, int tabIndex, const ParamValue& v);

    // ReferenceTarget
    ReferenceTarget* Clone(RemapDir& remap) override;
    ClassId ClassID() const override { return ClassId(PARAMETER_BLOCK2_CLASS_ID, 0); }
    SClass_ID SuperClassID() const override { return PARAMETER_BLOCK2_CLASS_ID; }
    std::string GetClassName() const override { return "ParamBlock2"; }

private:
    struct Slot {
        const ParamDef* def;
        std::vector<ParamValue> values;
    };
    Slot* slot(ParamID id);
    const Slot* slot(ParamID id) const;
    template <class T>
    bool getTyped(ParamID id, TimeValue t, T& v, Interval& valid, int tabIndex);
    bool setTyped(ParamID id, TimeValue t, ParamValue v, int tabIndex);
    void store(Slot& s, int tabIndex, ParamValue v);

    ParamBlockDesc* desc_;
    ReferenceMaker* owner_;
    uint64_t serial_ = 0;  // for undo records; never reused
    std::vector<Slot> slots_;
};

// Renders a value for messages ("100", "1e-07", "[1,0,0 ...]", node name).
std::string formatParamValue(const ParamValue& v);

}  // namespace mq
