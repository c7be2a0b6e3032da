// mosaiq: the command-line host. Parses the command, loads the plug-ins,
// runs the command and turns every failure into a message and an exit code.
#include "cli.h"
#include "help.h"

#include "host/check.h"
#include "host/plugins.h"
#include "host/scenefile.h"
#include "host/suggest.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <iostream>

int main(int argc, char** argv) {
    using namespace mosaiq::cli;

    CLI::App app{"Mosaiq: tiles a pattern mesh over a surface at render time.", "mosaiq"};
    app.set_version_flag("--version", std::string("mosaiq ") + MOSAIQ_VERSION);
    app.require_subcommand(1);
    bool strict = false;
    app.add_flag("--strict", strict,
                 "Treat every warning as an error (exit 3); nothing is written then");
    // --strict also after the command's name.
    app.fallthrough();
    app.footer(
        "Exit codes: 0 ok, 2 usage, 3 input or asset error, 4 output error, 5 render failure.");

    InspectOptions inspectOpt;
    CLI::App* inspect =
        app.add_subcommand("inspect", "Show a scene's nodes, objects and parameters");
    inspect->add_option("SCENE", inspectOpt.scene, "Scene file (.mosaiq)")->required();
    inspect->add_flag("--json", inspectOpt.json, "Print JSON for scripts");
    inspect->add_option("--tile", inspectOpt.tileNode,
                        "Capture this Mosaiq node's tile and show its statistics instead");
    inspect->add_option("--mapping", inspectOpt.mappingNode,
                        "Map this Mosaiq node's surface and show the mapping's counts instead");
    inspect->add_option("--frame", inspectOpt.frame, "Frame that --mapping maps")
        ->check(CLI::Range(-1000000, 1000000));

    NewOptions newOpt;
    CLI::App* create = app.add_subcommand("new", "Write a scene with one default Mosaiq object");
    create->add_option("SCENE", newOpt.scene, "Scene file to write")->required();
    create->add_flag("--force", newOpt.force, "Replace SCENE when it exists");

    ImportOptions importOpt;
    CLI::App* import = app.add_subcommand("import", "Merge mesh or scene files into a scene");
    import->add_option("SCENE", importOpt.scene, "Scene file; created when missing")->required();
    import
        ->add_option("FILE", importOpt.files,
                     "Files to merge (glTF, OBJ, FBX, PLY, DAE, 3DS, .mosaiq)")
        ->required();

    SetOptions setOpt;
    CLI::App* set = app.add_subcommand("set", "Change parameters or properties of a node");
    set->add_option("SCENE", setOpt.scene, "Scene file")->required();
    set->add_option("NODE", setOpt.node, "Node name")->required();
    set->add_option("KEY=VALUE", setOpt.assignments,
                    "Parameter (internal name, optionally [index]) or renderable, material, "
                    "transform; tables and matrices as comma lists")
        ->required();
    set->add_option("-o,--output", setOpt.output, "Write here instead of SCENE");

    CropOptions cropOpt;
    CLI::App* crop = app.add_subcommand(
        "crop", "Reset or fit a Mosaiq object's crop box to its pattern and write the scene");
    crop->add_option("OPERATION", cropOpt.operation,
                     "reset: enclose the pattern, unrotated; fit: keep the rotation")
        ->required()
        ->check(CLI::IsMember({"reset", "fit"}));
    crop->add_option("SCENE", cropOpt.scene, "Scene file")->required();
    crop->add_option("NODE", cropOpt.node, "Name of the Mosaiq node")->required();
    crop->add_option("--margin", cropOpt.margin,
                     "Then make the box this percent taller, keeping its centre: cures holes "
                     "from pattern faces lying exactly in its top or bottom")
        ->check(CLI::Range(0.0, 100.0));
    crop->add_option("-o,--output", cropOpt.output, "Write here instead of SCENE");

    RenderOptions renderOpt;
    CLI::App* render =
        app.add_subcommand("render", "Render a scene, or the built-in demo scene, to an image");
    render->add_option("SCENE", renderOpt.scene, "Scene file (.mosaiq); none: the demo scene");
    render->add_option("-o,--output", renderOpt.output,
                       "Image file (.png, .jpg, .exr); default <scene>.png or mosaiq-demo.png");
    render->add_option("--resolution", renderOpt.resolution, "Image size as WIDTHxHEIGHT");
    render->add_option("--spp", renderOpt.spp, "Samples per pixel")->check(CLI::Range(1, 1 << 20));
    render->add_option("-t,--threads", renderOpt.threads, "Render threads; 0: one per core")
        ->check(CLI::Range(0, 4096));
    render->add_option("--seed", renderOpt.seed, "Sampling seed")
        ->check(CLI::Range(0LL, 2147483647LL));
    render->add_option("--frames", renderOpt.frames,
                       "Frame range A-B; several frames write name.0001.png and so on");
    render->add_option("--crop", renderOpt.crop, "Render only pixels x0,x1,y0,y1");
    render
        ->add_option("-D", renderOpt.defines,
                     "Set a render setting (width, height, spp, seed, maxDepth, threads) or a "
                     "node parameter as Node.Param=value; repeatable")
        ->allow_extra_args(false);
    render->add_flag("-q,--quiet", renderOpt.quiet, "No progress output");
    render->add_option("--pass", renderOpt.pass, "Write a debug pass instead of the image")
        ->check(CLI::IsMember({"normal", "depth", "objectid", "uv"}));

    PreviewOptions previewOpt;
    CLI::App* preview = app.add_subcommand(
        "preview", "Render the top-view preview texture of a Mosaiq node's tile or a pattern file");
    preview->add_option("SCENE", previewOpt.scene, "Scene file (.mosaiq)");
    preview->add_option("NODE", previewOpt.node, "Name of the Mosaiq node");
    preview->add_option("--pattern", previewOpt.pattern, "Preview this pattern file instead");
    preview->add_option("--crop", previewOpt.crop,
                        "With --pattern: crop box as cx,cy,cz,sx,sy,sz (centre and size); "
                        "default: the whole pattern");
    preview->add_option("--size", previewOpt.size, "Texture size in pixels (Texture_Size)")
        ->check(CLI::Range(4, 2048));
    preview->add_option("-o,--output", previewOpt.output, "Image file (.png or .exr)");
    preview
        ->add_option("--repeat", previewOpt.repeat,
                     "Write the texture repeated N x N times, to judge its seams")
        ->check(CLI::Range(1, 16));

    BakeOptions bakeOpt;
    CLI::App* bake = app.add_subcommand(
        "bake", "Write the explicit triangle mesh a Mosaiq node shows at a frame");
    bake->add_option("SCENE", bakeOpt.scene, "Scene file (.mosaiq)")->required();
    bake->add_option("NODE", bakeOpt.node, "Name of the Mosaiq node")->required();
    bake->add_option("-o,--output", bakeOpt.output, "Mesh file (.glb or .obj)")->required();
    bake->add_option("--frame", bakeOpt.frame, "Frame to bake")
        ->check(CLI::Range(-1000000, 1000000));
    bake->add_option("--max-triangles", bakeOpt.maxTriangles,
                     "Refuse a bake of more triangles than this: nothing is written and the "
                     "exit code is 4, as for an output that cannot be written")
        ->check(CLI::Range(1LL, 4000000000LL));

    HelpOptions helpOpt;
    CLI::App* help = addHelpCommand(app, helpOpt);
    const auto runSetupCommand = addSetupCommands(app);
    // The first word that is no option names the command; CLI11 would only
    // call a misspelt one an unexpected argument.
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word.empty() || word[0] == '-') continue;
        std::vector<std::string> commands;
        for (const CLI::App* sub : app.get_subcommands({})) commands.push_back(sub->get_name());
        if (std::find(commands.begin(), commands.end(), word) == commands.end()) {
            std::cerr << "mosaiq: error: unknown command \"" << word << "\""
                      << mq::didYouMean(word, commands) << "\nRun 'mosaiq --help' for usage.\n";
            return kExitUsage;
        }
        break;
    }

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForVersion& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        std::cerr << "mosaiq: error: " << e.what() << "\nRun 'mosaiq --help' for usage.\n";
        return kExitUsage;
    }

    setStrict(strict);
    removeTemporariesOnSignal();
    // The command handler's boundary: a CliError carries its exit code;
    // anything else is a fault of this program.
    MQ_BOUNDARY_BEGIN
    try {
        // The host exists before any plug-in, so objects see that it runs
        // without a user interface.
        mq::HostInterface ip;
        ip.onWarning = printWarning;
        for (const std::string& skipped :
             mq::pluginManager().loadFolder(mq::PluginManager::defaultFolder())) {
            printWarning(skipped);
        }

        if (inspect->parsed()) {
            runInspect(ip, inspectOpt);
            // Inspect only reports; render refuses such a scene.
            for (const std::string& p : unreadablePatternFiles(ip))
                printWarning(inspectOpt.scene.string() + ": " + p);
        }
        if (create->parsed()) runNew(ip, newOpt);
        if (import->parsed()) runImport(ip, importOpt);
        if (set->parsed()) runSet(ip, setOpt);
        if (crop->parsed()) runCrop(ip, cropOpt);
        if (preview->parsed()) runPreview(ip, previewOpt);
        if (bake->parsed()) runBake(ip, bakeOpt);
        if (help->parsed()) runHelp(helpOpt);
        runSetupCommand(ip);
        if (render->parsed()) {
            const int code = runRender(ip, renderOpt);
            if (code != kExitOk) return code;
        }
        // Commands that write nothing fail here under --strict.
        checkStrict();
    } catch (const CliError& e) {
        std::cerr << "mosaiq: error: " << e.what() << "\n";
        return e.code();
    }
    return kExitOk;
    MQ_BOUNDARY_END([](const std::string& what) {
        std::cerr << "mosaiq: error: internal error: " << what << "\n";
    })
    return 1;
}
