// Class descriptors and the registry the host creates objects through.
#pragma once

#include "host/core.h"
#include "host/paramblock.h"
#include "host/ui/dialog.h"
#include "host/ui/param_map.h"

#include <memory>
#include <string>
#include <vector>

namespace mq {

class HostInterface;
class ActionTable;
class Manipulator;
class Node;
class Object;

// Describes one creatable class: identity, how to create it, its parameter
// blocks. Plug-ins hand these to the host through LibClassDesc.
class ClassDesc {
public:
    virtual ~ClassDesc() = default;

    virtual int IsPublic() { return 1; }
    // A new object; loading tells whether it is being read from a scene.
    // Null when allocation fails.
    virtual void* Create(bool loading = false) = 0;
    virtual int BeginCreate(HostInterface* ip) { return 0; }
    virtual int EndCreate(HostInterface* ip) { return 0; }
    virtual const char* ClassName() = 0;
    virtual SClass_ID SuperClassID() = 0;
    virtual ClassId ClassID() = 0;
    virtual const char* Category() { return ""; }
    virtual int OkToCreate(HostInterface* ip) { return 1; }
    virtual int HasClassParams() { return 0; }
    virtual void EditClassParams(void* hParent) {}
    virtual void ResetClassParams(bool fileReset = false);
    virtual int NumActionTables() { return 0; }
    virtual ActionTable* GetActionTable(int i) { return nullptr; }
    virtual int IsManipulator() { return 0; }
    virtual int CanManipulate(ReferenceTarget* target) { return 0; }
    virtual int CanManipulateNode(Node* node) { return 0; }
    virtual Manipulator* CreateManipulator(ReferenceTarget* target, Node* node) { return nullptr; }
    virtual Manipulator* CreateManipulator(Node* node) { return nullptr; }
    virtual int NeedsToSave() { return 0; }
    virtual IOResult Save(ISave* isave) { return IO_OK; }
    virtual IOResult Load(ILoad* iload) { return IO_OK; }
    virtual uint32_t InitialRollupPageState() { return 0x7fffffff; }
    // Scripting name of the class.
    virtual const char* InternalName() { return ClassName(); }
    // The module the class lives in (its string table and dialogs).
    virtual void* HInstance() { return nullptr; }
    // A string of the class's string table (rollout titles); null when absent.
    virtual const char* GetRsrcString(int id) { return nullptr; }
    // A dialog of the class's module (rollouts, its own dialogs); null when absent.
    virtual const ui::DialogTemplate* GetDialogTemplate(int id) { return nullptr; }

    // Parameter block descriptions registered by their constructors.
    void AddParamBlockDesc(ParamBlockDesc* pbd) { pbDescs_.push_back(pbd); }
    int NumParamBlockDescs() const { return static_cast<int>(pbDescs_.size()); }
    ParamBlockDesc* GetParamBlockDesc(int i) const { return pbDescs_[i]; }
    ParamBlockDesc* GetParamBlockDescByID(BlockID id) const;
    // Build every auto-constructed block and wire it into owner as its
    // reference ref_no.
    void MakeAutoParamBlocks(ReferenceMaker* owner);
    // Open and close the rollouts of the auto-UI blocks of obj: one
    // parameter map per map of each block, on a rollup page made from the
    // map's dialog template. A template the class lacks is reported as a
    // warning of ip and its rollout left out.
    void BeginEditParams(HostInterface* ip, ReferenceMaker* obj, uint32_t flags, Animatable* prev);
    void EndEditParams(HostInterface* ip, ReferenceMaker* obj, uint32_t flags, Animatable* next);
    void SetUserDlgProc(ParamBlockDesc* pbd, MapID map, ui::ParamMap2UserDlgProc* proc);
    // Refresh the controls of a parameter of the block with the given id.
    void InvalidateUI(BlockID blockId, ParamID id, int tabIndex = -1);

private:
    std::string rolloutTitle(const ParamBlockDesc& d, const RolloutMap& m);

    struct OpenRollout {
        int page = 0;
        std::unique_ptr<ui::ParamMap> map;
    };
    std::vector<ParamBlockDesc*> pbDescs_;
    std::vector<OpenRollout> openRollouts_;
};

// All classes the host knows: its own and those of loaded plug-ins.
class ClassDirectory {
public:
    // False when a class with the same super class and id is known already.
    bool add(ClassDesc* cd);
    void remove(ClassDesc* cd);
    ClassDesc* find(SClass_ID sid, ClassId cid) const;
    ClassDesc* findByInternalName(const std::string& name) const;
    const std::vector<ClassDesc*>& all() const { return classes_; }

private:
    std::vector<ClassDesc*> classes_;
};

// The process-wide class registry; the host's built-in classes are in it
// from the start.
ClassDirectory& classDirectory();

// Creates an object of a registered class: null for an unknown class or a
// failed allocation.
Object* createObject(SClass_ID sid, ClassId cid, bool loading = false);

}  // namespace mq
