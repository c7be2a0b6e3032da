// The host's user interface as plug-ins and the host interface reach it: the
// command panel's rollup pages, modal dialogs, message boxes, the folder
// picker, the open-file dialog and the image window. The studio implements
// it with Qt; ui/headless.h implements it without a display, for tests. A
// host without one (the command line) opens no pages and binds no controls.
//
// View classes are registered process-wide by name, as window classes are:
// a plug-in registers its own when it loads, and any implementation finds
// them when a template names one.
//
// Everything here runs on the host's user-interface thread.
#pragma once

#include "host/ui/dialog.h"
#include "host/ui/view.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace mq::ui {

enum class MessageBoxButtons { Ok, OkCancel, YesNo };
enum class MessageBoxIcon { None, Information, Question, Warning, Error };
// What a message box answers: kIdOk, kIdCancel, kIdYes or kIdNo.
inline constexpr int kIdYes = 6;
inline constexpr int kIdNo = 7;

struct FileFilter {
    std::string label;    // "Pattern files"
    std::string pattern;  // "*.mosaiq;*.glb;*.obj"
};

// A float RGBA picture for the image window, rows top to bottom.
struct Image {
    int width = 0, height = 0;
    std::vector<float> rgba;
};

class HostUI {
public:
    virtual ~HostUI() = default;

    // The window of a rollup page in the command panel, made from tmpl,
    // shown open or closed, placed among the pages by category (lower
    // first, then in the order added). proc receives the window's messages
    // (the host interface sends Init and Destroy); it is not owned and must
    // outlive the page. The window lives until closePage.
    virtual DialogWindow& openPage(int page, const DialogTemplate& tmpl, const std::string& title,
                                   bool closed, int category, DialogProc& proc) = 0;
    virtual void closePage(int page) = 0;

    // Show tmpl as a modal dialog: Init, then the user's work until the
    // procedure calls endDialog; Destroy; returns the result given.
    virtual int runModal(const DialogTemplate& tmpl, DialogProc& proc) = 0;

    // A buffer the size of view, for the view class's paint procedure.
    virtual std::unique_ptr<OffScreenBuffer> createOffScreenBuffer(View& view) = 0;

    virtual int messageBox(const std::string& text, const std::string& caption,
                           MessageBoxButtons buttons, MessageBoxIcon icon) = 0;
    // A folder the user picks, starting at start; nullopt when cancelled.
    virtual std::optional<std::string> pickFolder(const std::string& title,
                                                  const std::string& start) = 0;
    // An existing file the user picks; nullopt when cancelled.
    virtual std::optional<std::string> openFile(const std::string& title,
                                                const std::vector<FileFilter>& filters,
                                                const std::string& start) = 0;
    // The image window: shows image, with a button to save it.
    virtual void showImage(const Image& image, const std::string& title) = 0;
};

// The process-wide view classes. Registering a name again replaces the
// class; the class is not owned and must stay until unregistered.
void registerViewClass(const std::string& name, ViewClass* viewClass);
void unregisterViewClass(const std::string& name);
// Null for an unknown name.
ViewClass* findViewClass(const std::string& name);

}  // namespace mq::ui
