#include "host/ui/headless.h"

#include "host/ui/spinner_text.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace mq::ui {

namespace {

std::string controlName(int id) { return "control " + std::to_string(id); }

}  // namespace

// ---- Off-screen buffer ----

class HeadlessBuffer final : public OffScreenBuffer {
public:
    HeadlessBuffer(HeadlessView& view, const HeadlessUI& ui) : view_(view), ui_(ui) {}

    void setBackground(Rgb colour) override { background_ = colour; }
    void erase() override {
        calls_.clear();
        DrawCall c;
        c.kind = DrawCall::Kind::Erase;
        c.right = view_.size().w;
        c.bottom = view_.size().h;
        c.fill = background_;
        calls_.push_back(c);
    }
    void drawBitmap(const Bitmap& bitmap, int x, int y, int w, int h) override {
        DrawCall c;
        c.kind = DrawCall::Kind::Bitmap;
        c.x = x;
        c.y = y;
        c.right = x + w;
        c.bottom = y + h;
        c.source = {bitmap.width, bitmap.height};
        calls_.push_back(c);
    }
    void rectangle(int left, int top, int right, int bottom, Rgb pen, Rgb fill) override {
        DrawCall c;
        c.kind = DrawCall::Kind::Rectangle;
        c.x = left;
        c.y = top;
        c.right = right;
        c.bottom = bottom;
        c.pen = pen;
        c.fill = fill;
        calls_.push_back(c);
    }
    void text(int x, int y, const std::string& text) override {
        DrawCall c;
        c.kind = DrawCall::Kind::Text;
        c.x = x;
        c.y = y;
        c.text = text;
        calls_.push_back(c);
    }
    Size textExtent(const std::string& text) const override {
        return {int(text.size()) * ui_.charWidth, ui_.charHeight};
    }
    void blit() override { view_.frame_ = calls_; }

private:
    HeadlessView& view_;
    const HeadlessUI& ui_;
    Rgb background_{255, 255, 255};
    std::vector<DrawCall> calls_;
};

// ---- Views ----

HeadlessView::HeadlessView(HeadlessUI& ui, int id, Size size, const std::string& viewClass)
    : ui_(ui), id_(id), size_(size), viewClass_(viewClass) {}

ViewClass* HeadlessView::viewClass() const {
    // Without user data the host's default handling applies.
    return userData_ ? findViewClass(viewClass_) : nullptr;
}

void HeadlessView::setScrollRange(int min, int max) {
    min_ = min;
    max_ = std::max(min, max);
    pos_ = std::clamp(pos_, min_, max_);
}

void HeadlessView::setScrollPos(int pos) { pos_ = std::clamp(pos, min_, max_); }

void HeadlessView::repaint() {
    if (ViewClass* cls = viewClass()) {
        ++paints_;
        cls->paint(*this);
    }
}

void HeadlessView::click(int x, int y) {
    if (ViewClass* cls = viewClass()) cls->leftButtonUp(*this, x, y);
}

void HeadlessView::wheel(int delta) {
    if (ViewClass* cls = viewClass()) cls->wheel(*this, delta);
}

void HeadlessView::scroll(ScrollRequest request, int thumbPos) {
    if (ViewClass* cls = viewClass()) cls->verticalScroll(*this, request, thumbPos);
}

// ---- Windows ----

class HeadlessWindow::HeadlessSpinner final : public Spinner {
public:
    HeadlessSpinner(HeadlessWindow& window, int id) : window_(window), id_(id) {}

    void linkToEdit(int editId, EditSpinnerType kind) override {
        state().linkedEdit = editId;
        state().editType = kind;
        showInEdit();
    }
    int linkedEdit() const override { return state().linkedEdit; }
    EditSpinnerType editType() const override { return state().editType; }
    void setLimits(double min, double max) override {
        state().minimum = min;
        state().maximum = max;
        setValue(state().value);
    }
    double minimum() const override { return state().minimum; }
    double maximum() const override { return state().maximum; }
    void setAutoScale(bool on) override { state().autoScale = on; }
    bool autoScale() const override { return state().autoScale; }
    void setValue(double value) override {
        ControlState& s = state();
        if (s.editType == EDITTYPE_INT) value = std::round(value);
        s.value = std::clamp(value, s.minimum, std::max(s.minimum, s.maximum));
        showInEdit();
    }
    double value() const override { return state().value; }

private:
    ControlState& state() const { return *window_.find(id_); }
    void showInEdit() {
        const ControlState& s = state();
        if (ControlState* edit = window_.find(s.linkedEdit)) {
            edit->text = formatSpinnerText(s.value, s.editType, currentSceneUnit());
            edit->textHistory.push_back(edit->text);
        }
    }

    HeadlessWindow& window_;
    int id_;
};

HeadlessWindow::HeadlessWindow(HeadlessUI& ui, const DialogTemplate& tmpl, DialogProc& proc)
    : ui_(ui), tmpl_(tmpl), proc_(proc) {
    for (const ControlTemplate& c : tmpl.controls) {
        if (c.id == kStaticId) continue;
        ControlState& s = controls_[c.id];
        s.kind = c.kind;
        s.text = c.text;
        if (c.kind == ControlKind::Spinner) {
            s.minimum = -1e30;
            s.maximum = 1e30;
            spinners_[c.id] = std::make_unique<HeadlessSpinner>(*this, c.id);
        } else if (c.kind == ControlKind::View) {
            const Rect r = ui.units.toPixels(c.rect);
            views_[c.id] = std::make_unique<HeadlessView>(ui, c.id, Size{r.w, r.h}, c.viewClass);
        }
    }
}

HeadlessWindow::~HeadlessWindow() = default;

ControlState* HeadlessWindow::find(int id) {
    const auto it = controls_.find(id);
    return it == controls_.end() ? nullptr : &it->second;
}

const ControlState& HeadlessWindow::control(int id) const {
    const auto it = controls_.find(id);
    if (it == controls_.end())
        throw std::logic_error("dialog " + std::to_string(tmpl_.id) + " has no " + controlName(id));
    return it->second;
}

ControlState& HeadlessWindow::require(int id, ControlKind kind, const char* action) {
    ControlState* s = find(id);
    if (!s || s->kind != kind)
        throw std::logic_error(std::string("cannot ") + action + " " + controlName(id) +
                               " of dialog " + std::to_string(tmpl_.id) + ": no such control");
    if (!s->enabled)
        throw std::logic_error(std::string("cannot ") + action + " " + controlName(id) +
                               " of dialog " + std::to_string(tmpl_.id) + ": it is disabled");
    return *s;
}

void HeadlessWindow::enable(int id, bool on) {
    if (ControlState* s = find(id)) s->enabled = on;
}

bool HeadlessWindow::isEnabled(int id) const {
    const auto it = controls_.find(id);
    return it != controls_.end() && it->second.enabled;
}

void HeadlessWindow::setChecked(int id, bool on) {
    if (ControlState* s = find(id)) s->checked = on;
}

bool HeadlessWindow::isChecked(int id) const {
    const auto it = controls_.find(id);
    return it != controls_.end() && it->second.checked;
}

void HeadlessWindow::setText(int id, const std::string& text) {
    if (ControlState* s = find(id)) {
        s->text = text;
        s->textHistory.push_back(text);
    }
}

std::string HeadlessWindow::text(int id) const {
    const auto it = controls_.find(id);
    return it == controls_.end() ? std::string() : it->second.text;
}

void HeadlessWindow::redraw(int id) {
    if (ControlState* s = find(id)) {
        ++s->redraws;
        s->redrawnText = s->text;
    }
}

Spinner* HeadlessWindow::spinner(int id) {
    const auto it = spinners_.find(id);
    return it == spinners_.end() ? nullptr : it->second.get();
}

Node::Handle HeadlessWindow::pickedNode(int id) const {
    const auto it = controls_.find(id);
    return it == controls_.end() ? 0 : it->second.node;
}

void HeadlessWindow::setPickedNode(int id, Node::Handle node) {
    if (ControlState* s = find(id)) s->node = node;
}

View* HeadlessWindow::view(int id) { return headlessView(id); }

void HeadlessWindow::paintViews() {
    for (auto& [id, view] : views_) view->repaint();
}

HeadlessView* HeadlessWindow::headlessView(int id) {
    const auto it = views_.find(id);
    return it == views_.end() ? nullptr : it->second.get();
}

void HeadlessWindow::endDialog(int result) {
    ended_ = true;
    result_ = result;
}

void HeadlessWindow::command(int id, Notify notify) {
    proc_.message(*this, Message::Command, id, notify);
}

void HeadlessWindow::click(int id) {
    ControlState* s = find(id);
    if (!s) require(id, ControlKind::PushButton, "click");
    switch (s->kind) {
        case ControlKind::CheckBox:
            require(id, s->kind, "click");
            s->checked = !s->checked;
            break;
        case ControlKind::RadioButton: {
            require(id, s->kind, "click");
            // An auto radio button checks itself and clears the rest of its group.
            const int group = tmpl_.find(id)->group;
            for (const ControlTemplate& c : tmpl_.controls)
                if (c.kind == ControlKind::RadioButton && c.group == group)
                    find(c.id)->checked = false;
            s->checked = true;
            break;
        }
        case ControlKind::PushButton:
        case ControlKind::PickButton:
            require(id, s->kind, "click");
            break;
        default:
            throw std::logic_error("cannot click " + controlName(id) + ": it is not a button");
    }
    command(id, Notify::Clicked);
}

void HeadlessWindow::type(int id, const std::string& text) {
    ControlState* s = find(id);
    if (!s || (s->kind != ControlKind::Edit && s->kind != ControlKind::CustomEdit))
        throw std::logic_error("cannot type into " + controlName(id) + ": it is not an edit field");
    require(id, s->kind, "type into");
    // An edit linked to a spinner takes a number for the spinner.
    for (auto& [spinnerId, spinner] : spinners_) {
        if (spinner->linkedEdit() != id) continue;
        // Text the field cannot take leaves the value, shown again, as the studio does.
        const std::optional<double> value =
            parseSpinnerText(text, spinner->editType(), currentSceneUnit());
        spinner->setValue(value ? *value : spinner->value());
        if (value) command(spinnerId, Notify::ValueChanged);
        return;
    }
    s->text = text;
    s->textHistory.push_back(text);
    command(id, Notify::TextCommitted);
}

void HeadlessWindow::setSpinner(int id, double value) {
    require(id, ControlKind::Spinner, "drag");
    spinners_.at(id)->setValue(value);
    command(id, Notify::ValueChanged);
}

void HeadlessWindow::pick(int id, const Node* node) {
    ControlState& s = require(id, ControlKind::PickButton, "pick with");
    s.node = node ? node->GetHandle() : 0;
    s.text = node ? node->GetName() : "None";
    command(id, Notify::NodePicked);
}

void HeadlessWindow::pressEnter() { command(kIdOk, Notify::Clicked); }

void HeadlessWindow::close() { proc_.message(*this, Message::Close, 0, Notify::Clicked); }

// ---- The user interface ----

DialogWindow& HeadlessUI::openPage(int page, const DialogTemplate& tmpl, const std::string& title,
                                   bool closed, int category, DialogProc& proc) {
    auto p = std::make_unique<Page>();
    p->id = page;
    p->title = title;
    p->closed = closed;
    p->category = category;
    p->window = std::make_unique<HeadlessWindow>(*this, tmpl, proc);
    pages_.push_back(std::move(p));
    return *pages_.back()->window;
}

void HeadlessUI::closePage(int page) {
    pages_.erase(std::remove_if(pages_.begin(), pages_.end(),
                                [&](const std::unique_ptr<Page>& p) { return p->id == page; }),
                 pages_.end());
}

std::vector<const HeadlessUI::Page*> HeadlessUI::pages() const {
    std::vector<const Page*> out;
    for (const auto& p : pages_) out.push_back(p.get());
    std::stable_sort(out.begin(), out.end(),
                     [](const Page* a, const Page* b) { return a->category < b->category; });
    return out;
}

HeadlessWindow* HeadlessUI::page(const std::string& title) const {
    for (const auto& p : pages_)
        if (p->title == title) return p->window.get();
    return nullptr;
}

void HeadlessUI::onNextModal(std::function<void(HeadlessWindow&)> driver) {
    modalDrivers_.push_back(std::move(driver));
}

int HeadlessUI::runModal(const DialogTemplate& tmpl, DialogProc& proc) {
    HeadlessWindow window(*this, tmpl, proc);
    HeadlessWindow* outer = modal_;
    modal_ = &window;
    ++modalsRun_;
    proc.message(window, Message::Init, 0, Notify::Clicked);
    // A dialog shown for the first time paints its views.
    window.paintViews();
    if (!modalDrivers_.empty()) {
        const std::function<void(HeadlessWindow&)> driver = std::move(modalDrivers_.front());
        modalDrivers_.pop_front();
        if (driver) driver(window);
    }
    if (!window.ended()) window.close();
    // A procedure that ignores Close would keep a real dialog open; here it ends.
    if (!window.ended()) window.endDialog(kIdCancel);
    proc.message(window, Message::Destroy, 0, Notify::Clicked);
    modal_ = outer;
    return window.result();
}

std::unique_ptr<OffScreenBuffer> HeadlessUI::createOffScreenBuffer(View& view) {
    return std::make_unique<HeadlessBuffer>(static_cast<HeadlessView&>(view), *this);
}

int HeadlessUI::messageBox(const std::string& text, const std::string& caption,
                           MessageBoxButtons buttons, MessageBoxIcon icon) {
    int answer = buttons == MessageBoxButtons::Ok      ? kIdOk
                 : buttons == MessageBoxButtons::YesNo ? kIdNo
                                                       : kIdCancel;
    if (!boxAnswers_.empty()) {
        answer = boxAnswers_.front();
        boxAnswers_.pop_front();
    }
    boxes_.push_back({text, caption, buttons, icon, answer});
    return answer;
}

std::optional<std::string> HeadlessUI::pickFolder(const std::string& title,
                                                  const std::string& start) {
    folderStarts_.push_back(start);
    if (folderAnswers_.empty()) return std::nullopt;
    std::optional<std::string> answer = std::move(folderAnswers_.front());
    folderAnswers_.pop_front();
    return answer;
}

std::optional<std::string> HeadlessUI::openFile(const std::string& title,
                                                const std::vector<FileFilter>& filters,
                                                const std::string& start) {
    if (fileAnswers_.empty()) return std::nullopt;
    std::optional<std::string> answer = std::move(fileAnswers_.front());
    fileAnswers_.pop_front();
    return answer;
}

void HeadlessUI::showImage(const Image& image, const std::string& title) {
    images_.push_back(image);
    imageTitles_.push_back(title);
}

}  // namespace mq::ui
