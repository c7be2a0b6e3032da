// The Mosaiq object's rollouts as a user works them in the headless host:
// what editing opens and closes, the controls the procedures grey or
// retype, the renderable toggles, and the file and preview commands.
#include "host/hold.h"
#include "host/interface.h"
#include "host/node.h"
#include "host/ui/headless.h"
#include "object/params.h"
#include "support/mosaiq_test.h"
#include "support/test_util.h"
#include "ui/templates.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using namespace mosaiq;
using mq::ui::HeadlessWindow;

// A box 2 x 4 x 6 about the origin, written Y-up as OBJ has it.
std::string boxObj() {
    std::string text = "o box\n";
    for (int i = 0; i < 8; ++i) {
        const int x = i & 1 ? 1 : -1, y = i & 2 ? 2 : -2, z = i & 4 ? 3 : -3;
        text +=
            "v " + std::to_string(x) + " " + std::to_string(z) + " " + std::to_string(-y) + "\n";
    }
    return text + "f 1 3 4 2\nf 5 6 8 7\nf 1 2 6 5\nf 3 7 8 4\nf 1 5 7 3\nf 2 4 8 6\n";
}

// A host with a headless user interface, made before the object so that the
// object binds its controls, and the object being edited in it.
class Rollouts : public ::testing::Test {
protected:
    Rollouts() {
        mq::theHold.Reset();
        ip_.setUI(std::make_unique<mq::ui::HeadlessUI>());
        obj_ = test::newMosaiq();
        pb_ = obj_->GetParamBlock(0);
    }
    ~Rollouts() override {
        if (base_) obj_->EndEditParams(&ip_, 0, nullptr);
        mq::theHold.Reset();
    }

    mq::ui::HeadlessUI& ui() { return static_cast<mq::ui::HeadlessUI&>(*ip_.ui()); }
    void edit() {
        obj_->BeginEditParams(&ip_, 0, nullptr);
        base_ = ui().page("Base Parameters");
        surface_ = ui().page("Surface");
        preview_ = ui().page("Preview");
        ASSERT_TRUE(base_ && surface_ && preview_);
    }
    void endEdit() {
        obj_->EndEditParams(&ip_, 0, nullptr);
        base_ = surface_ = preview_ = nullptr;
    }
    std::vector<std::string> boxTexts() {
        std::vector<std::string> texts;
        for (const auto& box : ui().messageBoxes()) texts.push_back(box.text);
        return texts;
    }
    // What the studio's viewport does after every change.
    void evaluate() { obj_->ObjectValidity(0); }
    std::vector<bool> sourceControlsEnabled() {
        std::vector<bool> on;
        for (int id : {base::kPatternPick, base::kPatternFile, base::kBrowse, base::kUpdateFile})
            on.push_back(base_->control(id).enabled);
        return on;
    }

    mq::HostInterface ip_;
    test::MosaiqPtr obj_;
    mq::ParamBlock* pb_ = nullptr;
    HeadlessWindow* base_ = nullptr;
    HeadlessWindow* surface_ = nullptr;
    HeadlessWindow* preview_ = nullptr;
    mq::test::TempDir dir_;
};

TEST_F(Rollouts, EditingOpensThreeRolloutsThenAboutClosedAndEndingClosesEveryPage) {
    edit();
    std::vector<std::string> titles;
    for (const auto* page : ui().pages()) titles.push_back(page->title);
    EXPECT_EQ(titles, (std::vector<std::string>{"Base Parameters", "Surface", "Preview", "About"}));
    const auto* about = ui().pages().back();
    EXPECT_TRUE(about->closed);
    EXPECT_EQ(about->category, 4000);
    EXPECT_EQ(about->window->control(about::kText).text.rfind("Mosaiq 1.68\n\n", 0), 0u);
    EXPECT_EQ(obj_->rolloutWindow(kBaseMap), base_);
    EXPECT_EQ(obj_->rolloutWindow(kSurfaceMap), surface_);
    EXPECT_EQ(obj_->rolloutWindow(kPreviewMap), preview_);

    endEdit();
    EXPECT_TRUE(ui().pages().empty());
    for (mq::MapID map : {kBaseMap, kSurfaceMap, kPreviewMap})
        EXPECT_EQ(obj_->rolloutWindow(map), nullptr) << map;

    // The next object's rollouts reach the next object only.
    test::MosaiqPtr other = test::newMosaiq();
    other->BeginEditParams(&ip_, 0, nullptr);
    EXPECT_EQ(obj_->rolloutWindow(kBaseMap), nullptr);
    EXPECT_EQ(other->rolloutWindow(kBaseMap), ui().page("Base Parameters"));
    other->EndEditParams(&ip_, 0, nullptr);
}

TEST_F(Rollouts, TheSourceEnablesItsOwnControlsAndTheRadioReappliesItAtOnce) {
    edit();
    const std::vector<bool> scene{true, false, false, false}, file{false, true, true, true};
    EXPECT_EQ(sourceControlsEnabled(), scene);
    base_->click(base::kFromFile);
    EXPECT_EQ(sourceControlsEnabled(), file);
    base_->click(base::kFromScene);
    EXPECT_EQ(sourceControlsEnabled(), scene);

    // Set elsewhere (a script, an undo): the object's evaluation shows it.
    pb_->SetValue(kPatternSource, 0, kSourceFile);
    evaluate();
    EXPECT_EQ(sourceControlsEnabled(), file);
    pb_->SetValue(kPatternSource, 0, 2);
    evaluate();
    EXPECT_EQ(sourceControlsEnabled(), std::vector<bool>(4, false));
}

TEST_F(Rollouts, RenderableBoxesShowAndFlipThePickedNodesAndAreGreyedWithoutOne) {
    auto pattern = std::make_unique<mq::Node>("pattern");
    mq::Node surface("surface");
    pb_->SetValue(kPattern, 0, pattern.get());
    edit();
    EXPECT_TRUE(base_->control(base::kPatternRenderable).enabled);
    EXPECT_TRUE(base_->control(base::kPatternRenderable).checked);
    EXPECT_FALSE(surface_->control(surface::kSurfaceRenderable).enabled);

    // The node's own state is flipped, not the box's.
    pattern->SetRenderable(false);
    base_->click(base::kPatternRenderable);
    EXPECT_TRUE(pattern->Renderable());
    EXPECT_TRUE(base_->control(base::kPatternRenderable).checked);
    base_->click(base::kPatternRenderable);
    EXPECT_FALSE(pattern->Renderable());
    EXPECT_FALSE(base_->control(base::kPatternRenderable).checked);

    surface_->pick(surface::kSurfacePick, &surface);
    evaluate();
    EXPECT_TRUE(surface_->control(surface::kSurfaceRenderable).enabled);
    surface_->click(surface::kSurfaceRenderable);
    EXPECT_FALSE(surface.Renderable());
    EXPECT_FALSE(surface_->control(surface::kSurfaceRenderable).checked);

    // A deleted node is no node: the click does nothing, the box greys.
    pattern.reset();
    base_->click(base::kPatternRenderable);
    evaluate();
    EXPECT_FALSE(base_->control(base::kPatternRenderable).enabled);
}

TEST_F(Rollouts, RealWorldScaleTypesBothTilingSpinnersAsLengths) {
    pb_->SetValue(kRealWorldScale, 0, 1);
    edit();
    const auto kinds = [&] {
        std::vector<mq::EditSpinnerType> out;
        for (int id : {surface::kTilingUSpinner, surface::kTilingVSpinner})
            out.push_back(surface_->control(id).editType);
        return out;
    };
    using Kinds = std::vector<mq::EditSpinnerType>;
    EXPECT_EQ(kinds(), Kinds(2, mq::EDITTYPE_UNIVERSE));
    surface_->click(surface::kRealWorldScale);
    EXPECT_EQ(kinds(), Kinds(2, mq::EDITTYPE_FLOAT));
    surface_->click(surface::kRealWorldScale);
    EXPECT_EQ(kinds(), Kinds(2, mq::EDITTYPE_UNIVERSE));
}

TEST_F(Rollouts, UpdateFileLoadsTheFileShowsAFailureAndBrowsingCancelledChangesNothing) {
    const std::string boxFile = dir_.write("box.obj", boxObj()).string();
    edit();
    base_->click(base::kFromFile);
    base_->type(base::kPatternFile, boxFile);
    evaluate();
    base_->click(base::kUpdateFile);
    EXPECT_EQ(boxTexts(), std::vector<std::string>{});
    ASSERT_TRUE(obj_->patternStore().valid);
    EXPECT_EQ(obj_->patternStore().box.pmax, mq::Point3(1, 2, 3));

    // The crop-box buttons work on the loaded pattern, and the spinners show it.
    base_->click(base::kResetCropBox);
    EXPECT_EQ(mq::theHold.undoName(), Mosaiq::kResetCropBoxUndo);
    EXPECT_EQ(base_->control(1185).value, 4.0);  // "Crop_Size" y
    base_->click(base::kFitCropBox);
    EXPECT_EQ(mq::theHold.undoName(), Mosaiq::kFitCropBoxUndo);

    const std::string missing = (dir_ / "missing.obj").string();
    base_->type(base::kPatternFile, missing);
    base_->click(base::kUpdateFile);
    ASSERT_EQ(ui().messageBoxes().size(), 1u);
    const mq::ui::MessageBoxRecord& box = ui().messageBoxes()[0];
    EXPECT_NE(box.text.find(missing), std::string::npos) << box.text;
    EXPECT_EQ(box.caption, "Mosaiq");
    EXPECT_EQ(box.buttons, mq::ui::MessageBoxButtons::Ok);
    EXPECT_EQ(box.icon, mq::ui::MessageBoxIcon::Warning);
    EXPECT_EQ(obj_->patternStore().box.pmax, mq::Point3(1, 2, 3));

    const mq::PatternPointCloud* store = &obj_->patternStore();
    base_->click(base::kBrowse);
    EXPECT_EQ(pb_->GetStr(kPatternFile), missing);
    EXPECT_EQ(base_->control(base::kPatternFile).text, missing);
    EXPECT_EQ(&obj_->patternStore(), store) << "the store was replaced";
    EXPECT_EQ(boxTexts().size(), 1u);
}

TEST_F(Rollouts, MakePreviewTextureShowsProgressAndRestoresTheCaptionWhateverHappens) {
    edit();
    const mq::ui::ControlState& button = preview_->control(preview::kMakePreviewTexture);
    const std::vector<std::string> captions{"In Progress...", "Make Preview Texture"};

    // No pattern picked: the capture fails and says so.
    preview_->click(preview::kMakePreviewTexture);
    EXPECT_EQ(button.textHistory, captions);
    EXPECT_EQ(button.redraws, 1);
    EXPECT_EQ(button.redrawnText, "In Progress...");
    ASSERT_EQ(ui().messageBoxes().size(), 1u);
    EXPECT_EQ(ui().messageBoxes()[0].caption, "Mosaiq");
    EXPECT_TRUE(ui().images().empty());

    pb_->SetValue(kPatternSource, 0, kSourceFile);
    pb_->SetValue(kPatternFile, 0, dir_.write("box.obj", boxObj()).string());
    preview_->setSpinner(1066, 16);  // "Texture_Size"
    preview_->click(preview::kMakePreviewTexture);
    EXPECT_EQ(button.textHistory.size(), 4u);
    EXPECT_EQ(button.text, "Make Preview Texture");
    EXPECT_EQ(button.redrawnText, "In Progress...");
    EXPECT_EQ(boxTexts().size(), 1u);
    ASSERT_EQ(ui().images().size(), 1u);
    const mq::ui::Image& image = ui().images()[0];
    EXPECT_EQ(image.width, 16);
    EXPECT_EQ(image.height, 16);
    EXPECT_EQ(image.rgba.size(), 16u * 16u * 4u);
}

}  // namespace
