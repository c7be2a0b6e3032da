#include "ui/panels.h"

#include "object/mosaiq.h"
#include "object/params.h"
#include "object/resource.h"
#include "ui/about.h"
#include "ui/rollouts.h"
#include "ui/templates.h"

#include <array>
#include <utility>

namespace mosaiq {

namespace {

class EditPanels final : public MosaiqPanels {
public:
    void open(Mosaiq& obj, mq::HostInterface& ip) override {
        // Bound before they are installed: an open rollout sends Init at once.
        for (const auto& [map, proc] : procs()) {
            proc->bind(&obj, &ip);
            patternPBDesc().SetUserDlgProc(map, proc);
        }

        const mq::ui::DialogTemplate* tmpl = dialogTemplate(kDlgAbout);
        if (!tmpl) return;
        const int page = ip.AddRollupPage(*tmpl, "About", &aboutDlgProc(), mq::APPENDROLL_CLOSED,
                                          kAboutRollupCategory);
        ip.SetDlgItemText(page, about::kText, aboutText());
        ip.RegisterDlgWnd(ip.GetRollupWindow(page));
        obj.setAboutPage(page);
    }

    void close(Mosaiq& obj, mq::HostInterface& ip) override {
        // The rollouts are closed. Uninstalled, so that the next edit's
        // rollouts do not send Init to a procedure still bound to this
        // object, and the object's evaluation refreshes nothing meanwhile.
        for (const auto& [map, proc] : procs()) {
            patternPBDesc().SetUserDlgProc(map, nullptr);
            proc->bind(nullptr, nullptr);
        }

        if (const int page = obj.aboutPage()) {
            ip.UnRegisterDlgWnd(ip.GetRollupWindow(page));
            ip.DeleteRollupPage(page);
            obj.setAboutPage(0);
        }
    }

private:
    std::array<std::pair<mq::MapID, PatternRolloutDlgProc*>, 3> procs() {
        return {{{kBaseMap, &base_}, {kSurfaceMap, &surface_}, {kPreviewMap, &preview_}}};
    }

    PatternBaseDlgProc base_;
    PatternSurfaceDlgProc surface_;
    PatternPreviewDlgProc preview_;
};

}  // namespace

MosaiqPanels& editPanels() {
    static EditPanels panels;
    return panels;
}

}  // namespace mosaiq
