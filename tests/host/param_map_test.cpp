// Parameter maps through the headless user interface: controls show the
// block when a rollout opens, a user's edit is stored as one undo step, the
// rollout's own procedure sees it after the map, and the descriptor reaches
// open rollouts.
#include "host/ui/param_map.h"
#include "host/classdesc.h"
#include "host/hold.h"
#include "host/interface.h"
#include "host/object.h"
#include "host/ui/headless.h"
#include "host/ui/spinner_text.h"

#include <gtest/gtest.h>

namespace mq {
namespace {

using ui::ControlKind;

enum : int {
    kOn = 101,
    kCountEdit = 102,
    kCountSpin = 103,
    kA = 104,
    kB = 105,
    kPick = 106,
    kFile = 107
};

// A rollout of one control of each kind a binding can name.
const ui::DialogTemplate& rolloutTemplate() {
    static const ui::DialogTemplate t{
        .id = 500,
        .title = "Probe",
        .width = 108,
        .height = 60,
        .controls = {
            {.id = kOn, .kind = ControlKind::CheckBox, .rect = {90, 4, 8, 10}},
            {.id = kCountEdit, .kind = ControlKind::CustomEdit, .rect = {50, 16, 30, 10}},
            {.id = kCountSpin, .kind = ControlKind::Spinner, .rect = {82, 16, 8, 11}},
            {.id = kA, .kind = ControlKind::RadioButton, .text = "A", .rect = {4, 28, 30, 10}},
            {.id = kB, .kind = ControlKind::RadioButton, .text = "B", .rect = {40, 28, 30, 10}},
            {.id = kPick, .kind = ControlKind::PickButton, .rect = {4, 40, 98, 12}},
            {.id = kFile, .kind = ControlKind::CustomEdit, .rect = {4, 54, 98, 10}}}};
    return t;
}

class ProbeDesc final : public ClassDesc {
public:
    void* Create(bool) override { return nullptr; }
    const char* ClassName() override { return "Probe"; }
    SClass_ID SuperClassID() override { return GEOMOBJECT_CLASS_ID; }
    ClassId ClassID() override { return {0x7E57, 2}; }
    const ui::DialogTemplate* GetDialogTemplate(int id) override {
        return id == rolloutTemplate().id ? &rolloutTemplate() : nullptr;
    }
};

class ProbeObject final : public GeomObject {
public:
    explicit ProbeObject(ParamBlock* block) : block_(block) {}
    ClassId ClassID() const override { return {0x7E57, 2}; }
    std::string GetClassName() const override { return "Probe"; }
    ReferenceTarget* Clone(RemapDir&) override { return nullptr; }
    int NumRefs() override { return 1; }
    ReferenceTarget* GetReference(int) override { return block_; }

private:
    ParamBlock* block_;
};

// Records what it saw, with the value the block held at that moment.
struct RecordingProc final : ui::ParamMap2UserDlgProc {
    bool DlgProc(TimeValue, ui::ParamMap& map, ui::DialogWindow&, ui::Message msg, int control,
                 ui::Notify) override {
        seen.push_back({msg, control, map.GetParamBlock()->GetInt(1)});
        return false;
    }
    struct Seen {
        ui::Message msg;
        int control;
        int countWhenSeen;
    };
    std::vector<Seen> seen;
};

// One parameter of each binding kind, all on rollout 500.
ParamBlockDesc makeDesc() {
    ParamBlockDesc desc{0, "parameters", 0, nullptr, P_AUTO_CONSTRUCT | P_AUTO_UI, 0};
    desc.addMap({.id = 0, .dialogResource = 500, .titleStringId = 0});
    using B = ParamUIBinding;
    desc.addParam({.id = 0,
                   .internalName = "On",
                   .type = TYPE_BOOL,
                   .defaultValue = 1,
                   .ui = B{.control = TYPE_SINGLECHEKBOX, .controls = {kOn}}});
    desc.addParam({.id = 1,
                   .internalName = "Count",
                   .type = TYPE_INT,
                   .defaultValue = 8,
                   .rangeMin = 4,
                   .rangeMax = 2048,
                   .ui = B{.control = TYPE_SPINNER,
                           .spinnerType = EDITTYPE_INT,
                           .autoScale = true,
                           .controls = {kCountEdit, kCountSpin}}});
    desc.addParam({.id = 2,
                   .internalName = "Mode",
                   .type = TYPE_INT,
                   .defaultValue = 1,
                   .ui = B{.control = TYPE_RADIO, .controls = {kA, kB}, .radioValues = {0, 1}}});
    desc.addParam({.id = 3,
                   .internalName = "Target",
                   .type = TYPE_INODE,
                   .defaultValue = NodeRef{},
                   .ui = B{.control = TYPE_PICKNODEBUTTON, .controls = {kPick}}});
    desc.addParam({.id = 4,
                   .internalName = "File",
                   .type = TYPE_FILENAME,
                   .defaultValue = std::string(),
                   .ui = B{.control = TYPE_EDITBOX, .controls = {kFile}}});
    return desc;
}

struct ParamMapTest : ::testing::Test {
    ParamMapTest() {
        theHold.Reset();
        desc.cd = &cd;
        cd.AddParamBlockDesc(&desc);
        ip.setUI(std::make_unique<ui::HeadlessUI>());
    }
    ui::HeadlessUI& headless() { return static_cast<ui::HeadlessUI&>(*ip.ui()); }

    HostInterface ip;
    ProbeDesc cd;
    ParamBlockDesc desc = makeDesc();
    ParamBlock block{&desc, nullptr};
    ProbeObject obj{&block};
    RecordingProc proc;
};

TEST_F(ParamMapTest, ControlsShowTheBlockAndEditsAreStoredAsOneUndoStepEach) {
    Node target("Target");
    block.SetValue(4, 0, "tile.obj");
    cd.BeginEditParams(&ip, &obj, 0, nullptr);
    ui::HeadlessWindow* w = headless().page("parameters/0");
    ASSERT_NE(w, nullptr);
    EXPECT_TRUE(w->control(kOn).checked);
    EXPECT_EQ(w->control(kCountSpin).value, 8);
    EXPECT_EQ(w->control(kCountSpin).editType, EDITTYPE_INT);
    EXPECT_EQ(w->control(kCountEdit).text, "8");
    EXPECT_TRUE(!w->control(kA).checked && w->control(kB).checked);
    EXPECT_EQ(w->control(kPick).text, "None");
    EXPECT_EQ(w->control(kFile).text, "tile.obj");

    w->click(kOn);
    w->setSpinner(kCountSpin, 3);  // below the range: the spinner keeps it at 4
    w->type(kCountEdit, "16");
    w->click(kA);
    w->pick(kPick, &target);
    w->type(kFile, "other.glb");
    EXPECT_EQ(block.GetInt(0), 0);
    EXPECT_EQ(block.GetInt(1), 16);
    EXPECT_EQ(block.GetInt(2), 0);
    EXPECT_EQ(block.GetINode(3), &target);
    EXPECT_EQ(block.GetStr(4), "other.glb");
    EXPECT_EQ(theHold.undoCount(), 6);
    EXPECT_EQ(theHold.undoName(), "File");
    // Changes made elsewhere (an undo, code) show at once.
    theHold.Undo();
    EXPECT_EQ(block.GetStr(4), "tile.obj");
    EXPECT_EQ(w->control(kFile).text, "tile.obj");
    block.SetValue(1, 0, 100);
    EXPECT_EQ(w->control(kCountEdit).text, "100");

    cd.EndEditParams(&ip, &obj, 0, nullptr);
    EXPECT_EQ(headless().page("parameters/0"), nullptr);
    EXPECT_TRUE(ip.rollupPages().empty());
}

TEST_F(ParamMapTest, TheRolloutsProcedureRunsAfterTheMapFromInitToDestroy) {
    cd.BeginEditParams(&ip, &obj, 0, nullptr);
    // Installed on the open rollout, as a plug-in does once the maps exist.
    desc.SetUserDlgProc(0, &proc);
    ui::HeadlessWindow* w = headless().page("parameters/0");
    w->setSpinner(kCountSpin, 50);
    cd.EndEditParams(&ip, &obj, 0, nullptr);
    ASSERT_EQ(proc.seen.size(), 3u);
    EXPECT_EQ(proc.seen[0].msg, ui::Message::Init);
    EXPECT_EQ(proc.seen[1].msg, ui::Message::Command);
    EXPECT_EQ(proc.seen[1].control, kCountSpin);
    EXPECT_EQ(proc.seen[1].countWhenSeen, 50) << "the map stores before the procedure runs";
    EXPECT_EQ(proc.seen[2].msg, ui::Message::Destroy);
}

TEST(SpinnerText, WorldFieldsShowAndTakeTheScenesUnit) {
    using ui::formatSpinnerText, ui::parseSpinnerText;
    constexpr auto W = EDITTYPE_UNIVERSE, F = EDITTYPE_FLOAT, I = EDITTYPE_INT;
    constexpr auto generic = SceneUnit::Generic, cm = SceneUnit::Centimeters;
    EXPECT_EQ(formatSpinnerText(12.5, W, cm), "12.5cm");
    EXPECT_EQ(formatSpinnerText(0.5, W, SceneUnit::Inches), "0.5in");
    EXPECT_EQ(formatSpinnerText(12.5, W, generic), "12.5");
    EXPECT_EQ(formatSpinnerText(12.5, F, cm), "12.5");
    EXPECT_EQ(formatSpinnerText(16, I, cm), "16");

    const struct {
        const char* text;
        EditSpinnerType type;
        SceneUnit unit;
        std::optional<double> value;
    } cases[] = {
        {"1in", W, cm, 2.54},
        {"10mm", W, cm, 1.0},
        {"12.5 cm", W, cm, 12.5},
        {" 3 ", W, cm, 3.0},
        {"2ft", W, cm, 60.96},
        {"1e3mm", W, SceneUnit::Meters, 1.0},
        {"0.001km", W, cm, 100.0},
        {"1.5", W, generic, 1.5},
        {"2.6", I, cm, 2.6},  // the spinner rounds
        // Refused: the field shows its value again.
        {"1in", W, generic, std::nullopt},
        {"1cm", F, cm, std::nullopt},
        {"1cm", I, cm, std::nullopt},
        {"1 generic", W, cm, std::nullopt},
        {"12abc", W, cm, std::nullopt},
        {"cm", W, cm, std::nullopt},
        {"", W, cm, std::nullopt},
        {"inf", F, generic, std::nullopt},
        {"1e400", F, generic, std::nullopt},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.text) + " in " + unitName(c.unit));
        const std::optional<double> v = parseSpinnerText(c.text, c.type, c.unit);
        ASSERT_EQ(v.has_value(), c.value.has_value());
        if (v) {
            EXPECT_NEAR(*v, *c.value, 1e-12 * std::abs(*c.value));
        }
    }
    // What a field shows reads back as the value, in every unit.
    for (const std::string& name : unitNames()) {
        const SceneUnit unit = *unitFromName(name);
        EXPECT_EQ(parseSpinnerText(formatSpinnerText(-0.125, W, unit), W, unit), -0.125) << name;
    }
}

TEST(HostWithoutUI, OpensNoWindowsAndWarnsOfAMissingTemplate) {
    HostInterface ip;
    ProbeDesc cd;
    ParamBlockDesc desc{0, "parameters", 0, &cd, P_AUTO_CONSTRUCT | P_AUTO_UI, 0};
    desc.addMap({.id = 0, .dialogResource = 500});
    desc.addMap({.id = 1, .dialogResource = 999});
    ParamBlock block{&desc, nullptr};
    ProbeObject obj{&block};
    ASSERT_TRUE(ip.RunningWithoutUI());
    cd.BeginEditParams(&ip, &obj, 0, nullptr);
    ASSERT_EQ(ip.rollupPages().size(), 1u);
    EXPECT_EQ(ip.rollupPages()[0].window, nullptr);
    ASSERT_EQ(ip.warnings().size(), 1u);
    EXPECT_NE(ip.warnings()[0].find("999"), std::string::npos) << ip.warnings()[0];
    cd.EndEditParams(&ip, &obj, 0, nullptr);
    EXPECT_TRUE(ip.rollupPages().empty());
}

}  // namespace
}  // namespace mq
