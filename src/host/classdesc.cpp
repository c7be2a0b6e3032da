#include "host/classdesc.h"

#include "host/interface.h"
#include "host/object.h"

#include <algorithm>

namespace mq {

void ClassDesc::ResetClassParams(bool fileReset) {}

ParamBlockDesc* ClassDesc::GetParamBlockDescByID(BlockID id) const {
    for (ParamBlockDesc* d : pbDescs_)
        if (d->ID == id) return d;
    return nullptr;
}

void ClassDesc::MakeAutoParamBlocks(ReferenceMaker* owner) {
    for (ParamBlockDesc* d : pbDescs_) {
        if (!(d->flags & P_AUTO_CONSTRUCT)) continue;
        owner->ReplaceReference(d->ref_no, new ParamBlock(d, owner));
    }
}

std::string ClassDesc::rolloutTitle(const ParamBlockDesc& d, const RolloutMap& m) {
    // Copied at once: a plug-in's string lookup may reuse one buffer.
    const char* title = GetRsrcString(m.titleStringId);
    return title ? std::string(title) : d.int_name + "/" + std::to_string(m.id);
}

void ClassDesc::BeginEditParams(HostInterface* ip, ReferenceMaker* obj, uint32_t flags,
                                Animatable* prev) {
    if (!ip) return;
    for (ParamBlockDesc* d : pbDescs_) {
        if (!(d->flags & P_AUTO_UI)) continue;
        for (const RolloutMap& m : d->maps)
            ip->AddRollupPage(m.dialogResource, rolloutTitle(*d, m), m.dlgProc,
                              static_cast<int>(m.flags), 0);
    }
}

void ClassDesc::EndEditParams(HostInterface* ip, ReferenceMaker* obj, uint32_t flags,
                              Animatable* next) {
    if (!ip) return;
    for (ParamBlockDesc* d : pbDescs_) {
        if (!(d->flags & P_AUTO_UI)) continue;
        for (const RolloutMap& m : d->maps) {
            const std::string title = rolloutTitle(*d, m);
            for (const RollupPage& p : ip->rollupPages()) {
                if (p.dialogResource == m.dialogResource && p.title == title) {
                    ip->DeleteRollupPage(p.id);
                    break;
                }
            }
        }
    }
}

void ClassDesc::SetUserDlgProc(ParamBlockDesc* pbd, MapID map, ParamMap2UserDlgProc* proc) {
    if (pbd) pbd->SetUserDlgProc(map, proc);
}

void ClassDesc::InvalidateUI(BlockID blockId, ParamID id, int tabIndex) {
    if (ParamBlockDesc* d = GetParamBlockDescByID(blockId)) d->InvalidateUI(id, tabIndex);
}

// ---------------------------------------------------------------------------

bool ClassDirectory::add(ClassDesc* cd) {
    if (!cd || find(cd->SuperClassID(), cd->ClassID())) return false;
    classes_.push_back(cd);
    return true;
}

void ClassDirectory::remove(ClassDesc* cd) {
    classes_.erase(std::remove(classes_.begin(), classes_.end(), cd), classes_.end());
}

ClassDesc* ClassDirectory::find(SClass_ID sid, ClassId cid) const {
    for (ClassDesc* cd : classes_)
        if (cd->SuperClassID() == sid && cd->ClassID() == cid) return cd;
    return nullptr;
}

ClassDesc* ClassDirectory::findByInternalName(const std::string& name) const {
    for (ClassDesc* cd : classes_)
        if (name == cd->InternalName()) return cd;
    return nullptr;
}

void registerBuiltinClasses(ClassDirectory& dir);  // builtin.cpp

ClassDirectory& classDirectory() {
    static ClassDirectory* dir = [] {
        auto* d = new ClassDirectory;
        registerBuiltinClasses(*d);
        return d;
    }();
    return *dir;
}

Object* createObject(SClass_ID sid, ClassId cid, bool loading) {
    ClassDesc* cd = classDirectory().find(sid, cid);
    if (!cd) return nullptr;
    return static_cast<Object*>(cd->Create(loading));
}

}  // namespace mq
