// The class descriptor of the Mosaiq object: the one class the library offers.
#pragma once

#include "host/classdesc.h"
#include "object/mosaiq.h"

namespace mosaiq {

class MosaiqClassDesc : public mq::ClassDesc {
public:
    // Adopts the Mosaiq parameter block's descriptor and installs the
    // editing panels: from here on objects can be made and edited.
    MosaiqClassDesc();

    int IsPublic() override { return 1; }
    // A new Mosaiq as an mq::Object* (the host casts the result to that);
    // null when allocation fails.
    void* Create(bool loading = false) override;
    int BeginCreate(mq::HostInterface* ip) override { return 0; }
    int EndCreate(mq::HostInterface* ip) override { return 0; }
    const char* ClassName() override { return "Mosaiq"; }
    mq::SClass_ID SuperClassID() override { return mq::GEOMOBJECT_CLASS_ID; }
    mq::ClassId ClassID() override { return kMosaiqClassId; }
    // The string-table buffer: copy it before the next lookup.
    const char* Category() override;
    int OkToCreate(mq::HostInterface* ip) override { return 1; }
    int HasClassParams() override { return 0; }
    void EditClassParams(void* hParent) override {}
    int NumActionTables() override { return 0; }
    mq::ActionTable* GetActionTable(int i) override { return nullptr; }
    int IsManipulator() override { return 0; }
    int CanManipulate(mq::ReferenceTarget* target) override { return 0; }
    int CanManipulateNode(mq::Node* node) override { return 0; }
    mq::Manipulator* CreateManipulator(mq::ReferenceTarget* target, mq::Node* node) override {
        return nullptr;
    }
    mq::Manipulator* CreateManipulator(mq::Node* node) override { return nullptr; }
    int NeedsToSave() override { return 0; }
    mq::IOResult Save(mq::ISave* isave) override { return mq::IO_OK; }
    mq::IOResult Load(mq::ILoad* iload) override { return mq::IO_OK; }
    uint32_t InitialRollupPageState() override { return 0x7FFFFFFF; }
    // The doubled word is deliberate: scenes and scripts refer to the class by it.
    const char* InternalName() override { return "PatternPattern"; }
    void* HInstance() override;
    const char* GetRsrcString(int id) override;
    const mq::ui::DialogTemplate* GetDialogTemplate(int id) override;

    using mq::ClassDesc::SetUserDlgProc;
    // Set the dialog procedure of the Mosaiq block's map 0.
    void SetUserDlgProc(mq::ui::ParamMap2UserDlgProc* proc = nullptr);
};

// The library's one descriptor, alive as long as the library is loaded;
// built on first use.
MosaiqClassDesc& GetMosaiqDesc();

}  // namespace mosaiq
