#include "ui/panels.h"

#include "object/mosaiq.h"
#include "object/resource.h"
#include "ui/about.h"
#include "ui/templates.h"

namespace mosaiq {

namespace {

class EditPanels final : public MosaiqPanels {
public:
    void open(Mosaiq& obj, mq::HostInterface& ip) override {
        const mq::ui::DialogTemplate* tmpl = dialogTemplate(kDlgAbout);
        if (!tmpl) return;
        const int page = ip.AddRollupPage(*tmpl, "About", &aboutDlgProc(), mq::APPENDROLL_CLOSED,
                                          kAboutRollupCategory);
        ip.SetDlgItemText(page, about::kText, aboutText());
        ip.RegisterDlgWnd(ip.GetRollupWindow(page));
        obj.setAboutPage(page);
    }

    void close(Mosaiq& obj, mq::HostInterface& ip) override {
        if (const int page = obj.aboutPage()) {
            ip.UnRegisterDlgWnd(ip.GetRollupWindow(page));
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
