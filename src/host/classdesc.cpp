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
    if (!ip || !obj) return;
    for (ParamBlockDesc* d : pbDescs_) {
        if (!(d->flags & P_AUTO_UI)) continue;
        auto* block = dynamic_cast<ParamBlock*>(obj->GetReference(d->ref_no));
        if (!block) continue;
        for (const RolloutMap& m : d->maps) {
            const ui::DialogTemplate* tmpl = GetDialogTemplate(m.dialogResource);
            if (!tmpl) {
                ip->warning(std::string("class \"") + ClassName() + "\" has no dialog " +
                            std::to_string(m.dialogResource) + " for its rollout \"" +
                            rolloutTitle(*d, m) + "\": the rollout is left out");
                continue;
            }
            // Kept before the page opens: the map receives Init from it.
            OpenRollout& open = openRollouts_.emplace_back();
            open.map = std::make_unique<ui::ParamMap>(*block, m.id, m.dlgProc);
            open.page = ip->AddRollupPage(*tmpl, rolloutTitle(*d, m), open.map.get(),
                                          static_cast<int>(m.flags), 0);
        }
    }
}

void ClassDesc::EndEditParams(HostInterface* ip, ReferenceMaker* obj, uint32_t flags,
                              Animatable* next) {
    if (!ip) return;
    for (OpenRollout& open : openRollouts_) ip->DeleteRollupPage(open.page);
    openRollouts_.clear();
}

void ClassDesc::SetUserDlgProc(ParamBlockDesc* pbd, MapID map, ui::ParamMap2UserDlgProc* proc) {
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
