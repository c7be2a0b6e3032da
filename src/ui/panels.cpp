#include "ui/panels.h"

#include "object/mosaiq.h"
#include "object/resource.h"
#include "ui/about.h"

namespace mosaiq {

namespace {

class EditPanels final : public MosaiqPanels {
public:
    void open(Mosaiq& obj, mq::HostInterface& ip) override {
        const int page = ip.AddRollupPage(kDlgAbout, "About", aboutDlgProc(), mq::APPENDROLL_CLOSED,
                                          kAboutRollupCategory);
        ip.SetDlgItemText(page, kCtlAboutText, aboutText());
        ip.RegisterDlgWnd(page);
        obj.setAboutPage(page);
    }

    void close(Mosaiq& obj, mq::HostInterface& ip) override {
        if (const int page = obj.aboutPage()) {
            ip.UnRegisterDlgWnd(page);
            ip.DeleteRollupPage(page);
            obj.setAboutPage(0);
        }
    }
};

}  // namespace

MosaiqPanels& editPanels() {
    static EditPanels panels;
    return panels;
}

}  // namespace mosaiq
