#include "host/paramblock.h"

#include "host/changes.h"
#include "host/ui/param_map.h"

#include "host/classdesc.h"
#include "host/hold.h"
#include "host/node.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <mutex>
#include <unordered_map>

namespace mq {

namespace {

struct TypeNameEntry {
    ParamType type;
    const char* name;
};
constexpr TypeNameEntry kTypeNames[] = {
    {TYPE_FLOAT, "float"},       {TYPE_INT, "int"},     {TYPE_POINT3, "point3"},
    {TYPE_BOOL, "bool"},         {TYPE_WORLD, "world"}, {TYPE_STRING, "string"},
    {TYPE_FILENAME, "filename"}, {TYPE_INODE, "node"},  {TYPE_MATRIX3, "matrix3"},
};

bool isIntType(ParamType t) { return t == TYPE_INT || t == TYPE_BOOL; }
bool isFloatType(ParamType t) { return t == TYPE_FLOAT || t == TYPE_WORLD; }
bool isStringType(ParamType t) { return t == TYPE_STRING || t == TYPE_FILENAME; }

// Whether a stored value's kind fits a parameter type.
bool kindFits(ParamType t, const ParamValue& v) {
    if (isIntType(t)) return std::holds_alternative<int>(v);
    if (isFloatType(t)) return std::holds_alternative<float>(v);
    if (isStringType(t)) return std::holds_alternative<std::string>(v);
    if (t == TYPE_POINT3) return std::holds_alternative<Point3>(v);
    if (t == TYPE_MATRIX3) return std::holds_alternative<Matrix3>(v);
    if (t == TYPE_INODE) return std::holds_alternative<NodeRef>(v);
    return false;
}

// Blocks by serial number, so undo records never touch a deleted block.
std::mutex gBlocksMutex;
std::unordered_map<uint64_t, ParamBlock*> gBlocks;
uint64_t gNextSerial = 1;

class ParamRestore : public RestoreObj {
public:
    ParamRestore(uint64_t serial, ParamID id, int tab, ParamValue before, ParamValue after)
        : serial_(serial),
          id_(id),
          tab_(tab),
          before_(std::move(before)),
          after_(std::move(after)) {}
    void Restore(bool) override { apply(before_); }
    void Redo() override { apply(after_); }
    std::string Description() const override { return "parameter change"; }

private:
    void apply(const ParamValue& v) {
        ParamBlock* pb = nullptr;
        {
            std::lock_guard lock(gBlocksMutex);
            auto it = gBlocks.find(serial_);
            if (it != gBlocks.end()) pb = it->second;
        }
        if (pb) pb->setRawValue(id_, tab_, v);
    }
    uint64_t serial_;
    ParamID id_;
    int tab_;
    ParamValue before_, after_;
};

std::string formatFloat(float f) {
    char buf[32];
    auto res = std::to_chars(buf, buf + sizeof buf, f);
    return std::string(buf, res.ptr);
}

}  // namespace

const char* typeName(ParamType type) {
    for (const auto& e : kTypeNames)
        if (e.type == type) return e.name;
    return "unknown";
}

std::optional<ParamType> typeFromName(const std::string& name) {
    for (const auto& e : kTypeNames)
        if (name == e.name) return e.type;
    return std::nullopt;
}

std::string formatParamValue(const ParamValue& v) {
    if (auto* i = std::get_if<int>(&v)) return std::to_string(*i);
    if (auto* f = std::get_if<float>(&v)) return formatFloat(*f);
    if (auto* s = std::get_if<std::string>(&v)) return "\"" + *s + "\"";
    if (auto* p = std::get_if<Point3>(&v))
        return "(" + formatFloat(p->x) + ", " + formatFloat(p->y) + ", " + formatFloat(p->z) + ")";
    if (auto* m = std::get_if<Matrix3>(&v)) {
        std::string out = "[";
        for (int r = 0; r < 4; ++r) {
            const Point3& row = m->GetRow(r);
            out += (r ? " | " : "") + formatFloat(row.x) + " " + formatFloat(row.y) + " " +
                   formatFloat(row.z);
        }
        return out + "]";
    }
    const auto& ref = std::get<NodeRef>(v);
    if (ref.handle == 0) return "none";
    const Node* n = Node::fromHandle(ref.handle);
    return n ? "\"" + n->GetName() + "\"" : "(deleted node)";
}

// ---------------------------------------------------------------------------

ParamBlockDesc::ParamBlockDesc(BlockID id, std::string internalName, int localNameResource,
                               ClassDesc* owner, uint32_t flags_, int refNo)
    : ID(id),
      int_name(std::move(internalName)),
      local_name(localNameResource),
      cd(owner),
      flags(flags_),
      ref_no(refNo) {
    if (cd) cd->AddParamBlockDesc(this);
}

void ParamBlockDesc::addParam(ParamDef def) { params_.push_back(std::move(def)); }

const ParamDef* ParamBlockDesc::GetParamDef(ParamID id) const {
    for (const auto& p : params_)
        if (p.id == id) return &p;
    return nullptr;
}

const ParamDef* ParamBlockDesc::findByName(const std::string& internalName) const {
    for (const auto& p : params_)
        if (p.internalName == internalName) return &p;
    return nullptr;
}

bool ParamBlockDesc::bindUI(ParamID id, ParamUIBinding binding) {
    for (auto& p : params_) {
        if (p.id != id) continue;
        p.ui = std::move(binding);
        return true;
    }
    return false;
}

void ParamBlockDesc::SetUserDlgProc(MapID map, ui::ParamMap2UserDlgProc* proc) {
    for (auto& m : maps)
        if (m.id == map) m.dlgProc = proc;
    for (ui::ParamMap* open : openMaps_)
        if (open->GetMapID() == map) open->SetUserDlgProc(proc);
}

ui::ParamMap2UserDlgProc* ParamBlockDesc::GetUserDlgProc(MapID map) const {
    for (const auto& m : maps)
        if (m.id == map) return m.dlgProc;
    return nullptr;
}

void ParamBlockDesc::InvalidateUI(ParamID id, int tabIndex) {
    for (ui::ParamMap* open : openMaps_) open->Invalidate(id, tabIndex);
}

void ParamBlockDesc::showInOpenMaps(const ParamBlock& block, ParamID id, int tabIndex) {
    for (ui::ParamMap* open : openMaps_)
        if (open->GetParamBlock() == &block) open->Invalidate(id, tabIndex);
}

void ParamBlockDesc::removeOpenMap(ui::ParamMap* map) {
    openMaps_.erase(std::remove(openMaps_.begin(), openMaps_.end(), map), openMaps_.end());
}

ParamBlockDesc::Clamped ParamBlockDesc::clampToRange(const ParamDef& def,
                                                     const ParamValue& v) const {
    Clamped out{v, false};
    if (def.type == TYPE_BOOL) {
        if (auto* i = std::get_if<int>(&v)) {
            out.value = *i != 0 ? 1 : 0;
            out.changed = *i != 0 && *i != 1;
        }
        return out;
    }
    if (auto* i = std::get_if<int>(&v)) {
        int c = *i;
        if (def.rangeMin && c < *def.rangeMin) c = static_cast<int>(*def.rangeMin);
        if (def.rangeMax && c > *def.rangeMax) c = static_cast<int>(*def.rangeMax);
        out = {c, c != *i};
    } else if (auto* f = std::get_if<float>(&v)) {
        // Limits are compared as the single-precision numbers the block stores.
        float c = *f;
        if (def.rangeMin && c < static_cast<float>(*def.rangeMin))
            c = static_cast<float>(*def.rangeMin);
        if (def.rangeMax && c > static_cast<float>(*def.rangeMax))
            c = static_cast<float>(*def.rangeMax);
        out = {c, c != *f};
    }
    return out;
}

// ---------------------------------------------------------------------------

ParamBlock::ParamBlock(ParamBlockDesc* desc, ReferenceMaker* owner) : desc_(desc), owner_(owner) {
    slots_.reserve(desc_->params().size());
    for (const ParamDef& def : desc_->params())
        slots_.push_back(Slot{&def, std::vector<ParamValue>(def.count(), def.defaultValue)});
    std::lock_guard lock(gBlocksMutex);
    serial_ = gNextSerial++;
    gBlocks[serial_] = this;
}

ParamBlock::~ParamBlock() {
    std::lock_guard lock(gBlocksMutex);
    gBlocks.erase(serial_);
}

ParamBlock::Slot* ParamBlock::slot(ParamID id) {
    for (auto& s : slots_)
        if (s.def->id == id) return &s;
    return nullptr;
}

const ParamBlock::Slot* ParamBlock::slot(ParamID id) const {
    for (const auto& s : slots_)
        if (s.def->id == id) return &s;
    return nullptr;
}

const ParamValue* ParamBlock::rawValue(ParamID id, int tabIndex) const {
    const Slot* s = slot(id);
    if (!s || tabIndex < 0 || tabIndex >= static_cast<int>(s->values.size())) return nullptr;
    return &s->values[tabIndex];
}

template <class T>
bool ParamBlock::getTyped(ParamID id, TimeValue t, T& v, Interval& valid, int tabIndex) {
    const ParamValue* raw = rawValue(id, tabIndex);
    if (!raw) return false;
    ParamValue value = *raw;
    if (PBAccessor* acc = slot(id)->def->accessor) acc->Get(value, owner_, id, tabIndex, t, valid);
    const T* typed = std::get_if<T>(&value);
    if (!typed) return false;
    v = *typed;
    return true;
}

bool ParamBlock::GetValue(ParamID id, TimeValue t, int& v, Interval& valid, int tabIndex) {
    return getTyped(id, t, v, valid, tabIndex);
}
bool ParamBlock::GetValue(ParamID id, TimeValue t, float& v, Interval& valid, int tabIndex) {
    return getTyped(id, t, v, valid, tabIndex);
}
bool ParamBlock::GetValue(ParamID id, TimeValue t, Point3& v, Interval& valid, int tabIndex) {
    return getTyped(id, t, v, valid, tabIndex);
}
bool ParamBlock::GetValue(ParamID id, TimeValue t, std::string& v, Interval& valid, int tabIndex) {
    return getTyped(id, t, v, valid, tabIndex);
}
bool ParamBlock::GetValue(ParamID id, TimeValue t, Matrix3& v, Interval& valid, int tabIndex) {
    return getTyped(id, t, v, valid, tabIndex);
}
bool ParamBlock::GetValue(ParamID id, TimeValue t, Node*& v, Interval& valid, int tabIndex) {
    NodeRef ref;
    if (!getTyped(id, t, ref, valid, tabIndex)) return false;
    v = ref.handle ? Node::fromHandle(ref.handle) : nullptr;
    return true;
}

int ParamBlock::GetInt(ParamID id, TimeValue t, int tabIndex) {
    int v = 0;
    Interval iv;
    GetValue(id, t, v, iv, tabIndex);
    return v;
}
float ParamBlock::GetFloat(ParamID id, TimeValue t, int tabIndex) {
    float v = 0.0f;
    Interval iv;
    GetValue(id, t, v, iv, tabIndex);
    return v;
}
Node* ParamBlock::GetINode(ParamID id, TimeValue t, int tabIndex) {
    Node* v = nullptr;
    Interval iv;
    GetValue(id, t, v, iv, tabIndex);
    return v;
}
std::string ParamBlock::GetStr(ParamID id, TimeValue t, int tabIndex) {
    std::string v;
    Interval iv;
    GetValue(id, t, v, iv, tabIndex);
    return v;
}
Matrix3 ParamBlock::GetMatrix3(ParamID id, TimeValue t, int tabIndex) {
    Matrix3 v;
    Interval iv;
    GetValue(id, t, v, iv, tabIndex);
    return v;
}

bool ParamBlock::setTyped(ParamID id, TimeValue t, ParamValue v, int tabIndex) {
    Slot* s = slot(id);
    if (!s || tabIndex < 0 || tabIndex >= static_cast<int>(s->values.size())) return false;
    // Integers and booleans share a representation; so do floats and world values.
    if (!kindFits(s->def->type, v)) return false;
    if (PBAccessor* acc = s->def->accessor) {
        acc->Set(v, owner_, id, tabIndex, t);
        if (!kindFits(s->def->type, v)) return false;
    }
    store(*s, tabIndex, std::move(v));
    return true;
}

void ParamBlock::store(Slot& s, int tabIndex, ParamValue v) {
    if (theHold.Holding())
        theHold.Put(
            std::make_unique<ParamRestore>(serial_, s.def->id, tabIndex, s.values[tabIndex], v));
    s.values[tabIndex] = std::move(v);
    // Open rollouts show every change, whoever makes it (code, undo, a script).
    desc_->showInOpenMaps(*this, s.def->id, tabIndex);
    sceneChanges().notify();
}

bool ParamBlock::setRawValue(ParamID id, int tabIndex, const ParamValue& v) {
    Slot* s = slot(id);
    if (!s || tabIndex < 0 || tabIndex >= static_cast<int>(s->values.size())) return false;
    if (!kindFits(s->def->type, v)) return false;
    store(*s, tabIndex, v);
    return true;
}

bool ParamBlock::SetValue(ParamID id, TimeValue t, int v, int tabIndex) {
    return setTyped(id, t, v, tabIndex);
}
bool ParamBlock::SetValue(ParamID id, TimeValue t, float v, int tabIndex) {
    return setTyped(id, t, v, tabIndex);
}
bool ParamBlock::SetValue(ParamID id, TimeValue t, const Point3& v, int tabIndex) {
    return setTyped(id, t, v, tabIndex);
}
bool ParamBlock::SetValue(ParamID id, TimeValue t, const std::string& v, int tabIndex) {
    return setTyped(id, t, v, tabIndex);
}
bool ParamBlock::SetValue(ParamID id, TimeValue t, const char* v, int tabIndex) {
    return setTyped(id, t, std::string(v ? v : ""), tabIndex);
}
bool ParamBlock::SetValue(ParamID id, TimeValue t, const Matrix3& v, int tabIndex) {
    return setTyped(id, t, v, tabIndex);
}
bool ParamBlock::SetValue(ParamID id, TimeValue t, Node* v, int tabIndex) {
    return setTyped(id, t, NodeRef{v ? v->GetHandle() : 0}, tabIndex);
}

ParamBlock::ScriptResult ParamBlock::assignFromScript(ParamID id, int tabIndex,
                                                      const ParamValue& v) {
    const Slot* s = slot(id);
    if (!s) return {false, "no parameter with id " + std::to_string(id)};
    const ParamDef& def = *s->def;
    const std::string& name = def.internalName;
    if (tabIndex < 0 || tabIndex >= def.count())
        return {false, name + ": index " + std::to_string(tabIndex) + " is out of range 0.." +
                           std::to_string(def.count() - 1)};

    // Convert to the parameter's own kind as the scripting interface does.
    ParamValue value = v;
    if (isIntType(def.type)) {
        if (auto* f = std::get_if<float>(&v)) {
            if (!std::isfinite(*f) || *f != std::trunc(*f) || std::fabs(*f) > 2e9f)
                return {false, name + " expects a whole number, not " + formatParamValue(v)};
            value = static_cast<int>(*f);
        }
    } else if (isFloatType(def.type)) {
        if (auto* i = std::get_if<int>(&v)) value = static_cast<float>(*i);
        if (auto* f = std::get_if<float>(&value); f && !std::isfinite(*f))
            return {false, name + " expects a finite number, not " + formatParamValue(v)};
    } else if (def.type == TYPE_MATRIX3) {
        if (auto* m = std::get_if<Matrix3>(&v)) {
            for (int r = 0; r < 4; ++r)
                if (!isFinite(m->GetRow(r)))
                    return {false, name + " expects finite numbers, not " + formatParamValue(v)};
        }
    }
    if (!kindFits(def.type, value))
        return {false, name + " is a " + std::string(typeName(def.type)) + " parameter; " +
                           formatParamValue(v) + " does not fit it"};

    const ParamBlockDesc::Clamped c = desc_->clampToRange(def, value);
    std::string warning;
    if (c.changed) {
        const std::string where =
            def.isTable() ? name + "[" + std::to_string(tabIndex) + "]" : name;
        warning = where + ": " + formatParamValue(value) + " is out of range, set to " +
                  formatParamValue(c.value);
    }
    if (!setTyped(id, 0, c.value, tabIndex)) return {false, name + ": the value was refused"};
    return {true, warning};
}

ReferenceTarget* ParamBlock::Clone(RemapDir& remap) {
    auto* copy = new ParamBlock(desc_, owner_);
    for (size_t i = 0; i < slots_.size(); ++i) copy->slots_[i].values = slots_[i].values;
    return copy;
}

}  // namespace mq
