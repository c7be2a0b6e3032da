// mosaiq-studio: the desktop host. Loads the plug-ins, opens the main
// window on a scene, and for documentation and tests grabs a widget into a
// PNG once it is laid out.
#include "main_window.h"
#include "qt_ui/qt_host_ui.h"
#include "viewport/viewport.h"

#include "host/plugins.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QTimer>

#include <iostream>

namespace {

// Exit codes as the command line's: 2 usage, 3 input, 4 output.
constexpr int kExitUsage = 2, kExitInput = 3, kExitOutput = 4;

int fail(int code, const QString& text) {
    std::cerr << "mosaiq-studio: error: " << text.toStdString() << "\n";
    return code;
}

}  // namespace

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setOrganizationName("Mosaiq");
    QApplication::setApplicationName("mosaiq-studio");
    QApplication::setApplicationVersion(MOSAIQ_VERSION);

    QCommandLineParser parser;
    parser.setApplicationDescription("Mosaiq Studio: build, edit and render Mosaiq scenes.");
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addPositionalArgument("SCENE", "Scene file (.mosaiq) to open");
    const QCommandLineOption select("select", "Select this node", "NODE");
    const QCommandLineOption browser("open-browser", "Open the library browser on this folder",
                                     "PATH");
    const QCommandLineOption grab(
        "grab", "Save a picture of WIDGET (main, viewport, command-panel, lib-browser) and exit",
        "WIDGET");
    const QCommandLineOption out({"o", "output"}, "PNG file --grab writes", "OUT.png");
    parser.addOptions({select, browser, grab, out});
    parser.process(app);

    const QString grabWhat = parser.value(grab);
    const bool grabbing = parser.isSet(grab);
    if (grabbing && grabWhat != "main" && grabWhat != "viewport" && grabWhat != "command-panel" &&
        grabWhat != "lib-browser")
        return fail(kExitUsage,
                    "--grab: expected main, viewport, command-panel or lib-browser, found \"" +
                        grabWhat + "\"");
    if (grabbing && !parser.isSet(out)) return fail(kExitUsage, "--grab needs -o OUT.png");
    if (parser.positionalArguments().size() > 1)
        return fail(kExitUsage,
                    "expected one scene file, found " + parser.positionalArguments().join(' '));
    if (grabbing && grabWhat == "lib-browser" && !parser.isSet(browser))
        return fail(kExitUsage, "--grab lib-browser needs --open-browser PATH");

    // The host exists before any plug-in, as the command line makes it; the
    // window after them, so its Create menu lists the classes they bring.
    mq::HostInterface ip;
    for (const std::string& skipped :
         mq::pluginManager().loadFolder(mq::PluginManager::defaultFolder()))
        std::cerr << "mosaiq-studio: warning: " << skipped << "\n";
    // The window's panels are the Qt host UI's; the host owns it, and lets
    // it go before the window is destroyed.
    auto ownedUI = std::make_unique<mosaiq::studio::QtHostUI>();
    mosaiq::studio::QtHostUI* ui = ownedUI.get();
    ip.setUI(std::move(ownedUI));
    mosaiq::studio::MainWindow window(ip);
    window.attachUI(ui);
    struct ReleaseUI {
        mosaiq::studio::MainWindow& window;
        mq::HostInterface& ip;
        ~ReleaseUI() {
            window.endEditing();
            ip.setUI(nullptr);
        }
    } releaseUI{window, ip};
    int inputError = 0;
    if (grabbing) {
        // Nobody is there to click a message box away.
        window.reportError = [&inputError](const QString& title, const QString& text) {
            std::cerr << "mosaiq-studio: error: " << text.toStdString() << "\n";
            inputError = kExitInput;
        };
        // A grab never saves; what --open-browser changed is dropped.
        window.askToSave = [](const QString&) { return QMessageBox::Discard; };
    }
    if (!parser.positionalArguments().isEmpty())
        window.openScene(parser.positionalArguments().front());
    if (parser.isSet(select) && !window.selectNodeByName(parser.value(select)))
        window.reportError("Select",
                           "--select: no node named \"" + parser.value(select) + "\" in the scene");
    if (grabbing && inputError) return inputError;
    window.show();
    if (!grabbing) {
        if (parser.isSet(browser))
            QTimer::singleShot(0, &window,
                               [&] { window.openLibraryBrowser(parser.value(browser)); });
        return app.exec();
    }

    // Grab once the window has been laid out and painted.
    int code = 0;
    const QString file = parser.value(out);
    const auto save = [&](QWidget& what) {
        QApplication::processEvents();
        if (!what.grab().save(file, "PNG"))
            code = fail(kExitOutput, file + ": could not write the picture");
    };
    QTimer::singleShot(0, &window, [&] {
        if (grabWhat == "lib-browser") {
            if (!window.openLibraryBrowser(parser.value(browser), save) && !code)
                code = inputError ? inputError : kExitInput;
        } else if (grabWhat == "viewport") {
            // The scene framed as a user opening it sees it, then its own pixels.
            if (!window.viewport()) {
                code = fail(kExitOutput,
                            "--grab viewport: this platform (" + QApplication::platformName() +
                                ") can make no OpenGL context; run under xvfb-run or a display");
                app.quit();
                return;
            }
            mosaiq::studio::Viewport& view = *window.viewport();
            QApplication::processEvents();
            // A selected node is what the user asked to see.
            if (view.selection())
                view.frameSelection();
            else
                view.frameAll();
            const QImage image = view.grabFramebuffer();
            if (!view.glError().isEmpty() || image.isNull())
                code = fail(kExitOutput, "--grab viewport: no OpenGL 3.3 context (" +
                                             (view.glError().isEmpty() ? QString("none was made")
                                                                       : view.glError()) +
                                             "); run under xvfb-run or a display");
            else if (!image.save(file, "PNG"))
                code = fail(kExitOutput, file + ": could not write the picture");
        } else {
            if (window.viewport() && window.viewport()->selection())
                window.viewport()->frameSelection();
            save(grabWhat == "command-panel" ? *window.commandPanel() : window);
        }
        app.quit();
    });
    app.exec();
    return code;
}
