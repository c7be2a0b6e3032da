#include "object/params.h"

#include "host/check.h"
#include "host/node.h"
#include "object/mosaiq.h"
#include "object/resource.h"

#include <vector>

namespace mosaiq {

using namespace mq;

namespace {

PatternPBAccessor gPatternAccessor;

// Spinners here always scale automatically.
ParamUIBinding spinner(PatternMap map, EditSpinnerType type, std::vector<int> editSpinnerPairs,
                       const char* labels) {
    return {.map = map,
            .control = TYPE_SPINNER,
            .spinnerType = type,
            .autoScale = true,
            .controls = std::move(editSpinnerPairs),
            .labels = labels};
}
ParamUIBinding checkBox(PatternMap map, int control, const char* label) {
    return {.map = map, .control = TYPE_SINGLECHEKBOX, .controls = {control}, .labels = label};
}
ParamUIBinding pickButton(PatternMap map, int control, const char* label) {
    return {.map = map, .control = TYPE_PICKNODEBUTTON, .controls = {control}, .labels = label};
}

// The parameters, in declaration order. Float limits are the single-precision
// numbers the block stores. Only "Real_World_Scale" names its control here;
// the others are bound by InitParamBlockUI. Units and descriptions are what
// `mosaiq help params` and docs/parameters.md show users.
// clang-format off
const ParamDef kParamTable[] = {
    {.id = kPatternOn, .internalName = "Pattern_On", .type = TYPE_BOOL, .defaultValue = 1,
     .description = "The panel's \"Enabled\" switch, saved with the scene. Rendering does not "
                    "read it: the pattern renders even when it is off. To leave a Mosaiq node "
                    "out of a render, make the node not renderable."},
    {.id = kPatternSource, .internalName = "Pattern_Source", .type = TYPE_INT,
     .defaultValue = kSourceScene,
     .description = "Where the pattern mesh comes from: 0 takes the scene node picked in "
                    "\"Pattern\", 1 reads the first mesh of the file named in \"Pattern_File\"."},
    {.id = kPattern, .internalName = "Pattern", .type = TYPE_INODE, .defaultValue = NodeRef{},
     .accessor = &gPatternAccessor,
     .description = "The scene node whose mesh is the pattern (with \"Pattern_Source\" 0). "
                    "The crop box moves with the node, so moving it changes nothing; rotating or "
                    "scaling it turns or scales the pattern inside the box. Picking a node "
                    "resets the crop box to enclose its mesh. Make the node not renderable if "
                    "it should not show by itself."},
    {.id = kPatternFile, .internalName = "Pattern_File", .type = TYPE_FILENAME,
     .defaultValue = std::string(),
     .description = "The mesh file (OBJ, glTF, FBX, PLY, ...) the pattern is read from (with "
                    "\"Pattern_Source\" 1). Its first mesh is used in its own object space. A "
                    "relative path is looked up beside the scene file first."},
    {.id = kCropSize, .internalName = "Crop_Size", .type = TYPE_WORLD, .tableSize = 3,
     .defaultValue = 100.0f, .rangeMin = 1e-7f, .rangeMax = 100000.0f,
     .unit = "scene units",
     .description = "Edge lengths X, Y, Z of the crop box that cuts one tile out of the pattern. "
                    "X and Y are the tile's repeat: make them one period of a seamless pattern, "
                    "or seams and gaps show. Z is the thickness of the layer taken; geometry "
                    "outside the box is cut off. `mosaiq crop reset` fits it to the pattern."},
    {.id = kCropTransform, .internalName = "Crop_Transfrom", .type = TYPE_MATRIX3,
     .defaultValue = Matrix3(),
     .description = "Position and rotation of the crop box's centre (the name's spelling is "
                    "kept for saved scenes). For a scene pattern the position is relative to "
                    "the pattern node's position, for a file pattern to the file's origin. It "
                    "has no control of its own: `mosaiq crop reset|fit` or `mosaiq set` (twelve "
                    "numbers, row by row) change it. Rotating the box about Z turns the pattern "
                    "on the surface; the box must still span one period for seams to close."},
    {.id = kHeight, .internalName = "Height", .type = TYPE_WORLD, .defaultValue = 100.0f,
     .rangeMin = 0.01f, .rangeMax = 100000.0f, .unit = "%",
     .description = "Thickness of the pattern layer above the surface, in percent of the crop "
                    "box's own height at the scale the tile is laid at: 100 keeps the pattern's "
                    "proportions, 50 squashes it to half its height, 200 stretches it to "
                    "double."},
    {.id = kShift, .internalName = "Shift", .type = TYPE_WORLD, .defaultValue = 0.0f,
     .rangeMin = -100000.0f, .rangeMax = 100000.0f, .unit = "½ pattern unit",
     .description = "Moves the pattern layer along the surface normals: positive values sink "
                    "it into the surface, negative values lift it off. It scales with the tile "
                    "as Height does: one unit is half a crop-box unit as laid on the surface, so "
                    "Shift = 2 × Crop_Size Z sinks a layer of Height 100 by its whole "
                    "thickness."},
    {.id = kUseSurfaceMapping, .internalName = "Use_Surface_Mapping", .type = TYPE_BOOL,
     .defaultValue = 1,
     .description = "On: textures of the Mosaiq node's material that use \"Map_Channel\" are "
                    "looked up with the surface's UVs, so a texture laid on the surface runs on "
                    "across the pattern. Off: they use the pattern mesh's own UVs, so every "
                    "tile shows the same part of the texture."},
    {.id = kSurface, .internalName = "Surface", .type = TYPE_INODE, .defaultValue = NodeRef{},
     .description = "The scene node to cover with the pattern. Its mesh needs UVs on "
                    "\"Map_Channel\"; the tiles follow those UVs and the mesh's shape, frame by "
                    "frame when it animates. Make the node not renderable if only the pattern "
                    "should show."},
    {.id = kMapChannel, .internalName = "Map_Channel", .type = TYPE_INT, .defaultValue = 1,
     .rangeMin = 1, .rangeMax = 99,
     .description = "The surface's UV channel that lays out the tiles. Channel 1 is a mesh "
                    "file's first UV set. A surface without this channel renders no pattern."},
    {.id = kRealWorldScale, .internalName = "Real_World_Scale", .type = TYPE_BOOL,
     .defaultValue = 0, .ui = checkBox(kSurfaceMap, 1187, "Real World Scale:"),
     .description = "Off: \"Tiling\" counts tiles per UV unit. On: \"Tiling\" is the size of "
                    "one tile in UV units, which is its size in scene units on a surface with "
                    "real-world UVs."},
    {.id = kTiling, .internalName = "Tiling", .type = TYPE_FLOAT, .tableSize = 2,
     .defaultValue = 1.0f, .rangeMin = 0.0001f, .rangeMax = 100000.0f,
     .unit = "tiles per UV unit",
     .description = "How often the tile repeats along the surface's U and V: 4 puts four "
                    "tiles across a 0–1 UV range, so each tile gets smaller. With "
                    "\"Real_World_Scale\" on it is instead the size of one tile in UV units."},
    {.id = kPoliId, .internalName = "Poli_ID", .type = TYPE_INT, .tableSize = 2,
     .defaultValue = 1, .rangeMin = 1, .rangeMax = 100000, .unit = "material ID",
     .description = "The range From, To (both included) of the surface's material IDs that "
                    "get the pattern; other faces stay bare. IDs count from 1: the first "
                    "material of a mesh file is ID 1. The name's spelling is kept for saved "
                    "scenes."},
    {.id = kRandomSegmentCount, .internalName = "Random_Segment_Count", .type = TYPE_INT,
     .tableSize = 2, .defaultValue = 1, .rangeMin = 1, .rangeMax = 1000, .unit = "segments",
     .description = "Splits the crop box into U × V equal segments and the surface into cells "
                    "of one segment's size; each cell shows a segment picked at random, which "
                    "breaks up visible repetition. 1, 1 repeats the whole box. The pattern should be seamless at "
                    "the segment borders (pavers split along their joints, for instance)."},
    {.id = kUvRandomSeed, .internalName = "UV_Random_Seed", .type = TYPE_INT, .defaultValue = 42,
     .rangeMin = 0, .rangeMax = 1000000,
     .description = "Saved with the scene, but the render does not read it: the random "
                    "segments are seeded by each UV island of the surface, so faces joined in "
                    "UV share one arrangement and separate islands differ."},
    {.id = kDummySize, .internalName = "Dummy_Size", .type = TYPE_WORLD, .defaultValue = 1.0f,
     .rangeMin = 0.001f, .rangeMax = 1000000.0f, .unit = "scene units",
     .description = "Size of the Mosaiq object's icon in the studio's viewports. It does not "
                    "change the render."},
    {.id = kTextureSize, .internalName = "Texture_Size", .type = TYPE_INT, .defaultValue = 256,
     .rangeMin = 4, .rangeMax = 2048, .unit = "pixels",
     .description = "Size of the preview texture (\"Make Preview Texture\", `mosaiq preview`): "
                    "a top view of the tile with the tile's aspect ratio, whose sides average "
                    "this many pixels; the longer side is capped at 2048."},
};
// clang-format on

// Controls of the rollouts. Spinners list edit/spinner pairs in element
// order. Labels: the group's label first when it has one, then one per
// element or button, separated by '\n'.
struct ControlBinding {
    ParamID id;
    ParamUIBinding ui;
};

const std::vector<ControlBinding>& controlBindings() {
    // clang-format off
    static const std::vector<ControlBinding> bindings = {
        {kPatternOn, checkBox(kBaseMap, 1096, "Enabled:")},
        {kPatternSource,
         {.map = kBaseMap, .control = TYPE_RADIO, .controls = {1182, 1183},
          .radioValues = {kSourceScene, kSourceFile}, .labels = "From Scene\nFrom File"}},
        {kPattern, pickButton(kBaseMap, 1029, "Pattern Object:")},
        {kPatternFile, {.map = kBaseMap, .control = TYPE_EDITBOX, .controls = {1030}}},
        {kCropSize, spinner(kBaseMap, EDITTYPE_UNIVERSE, {1173, 1174, 1184, 1185, 1188, 1189},
                            "Crop Size:\nX\nY\nZ")},
        {kHeight, spinner(kBaseMap, EDITTYPE_FLOAT, {1193, 1194}, "Height (%):")},
        {kShift, spinner(kBaseMap, EDITTYPE_UNIVERSE, {1195, 1196}, "Shift:")},
        {kUseSurfaceMapping, checkBox(kBaseMap, 1192, "Use surface mapping:")},
        {kSurface, pickButton(kSurfaceMap, 1173, "Surface:")},
        {kMapChannel, spinner(kSurfaceMap, EDITTYPE_INT, {1174, 1175}, "Map. Channel:")},
        {kTiling, spinner(kSurfaceMap, EDITTYPE_FLOAT, {1176, 1177, 1178, 1179},
                          "Tiling U:\nTiling V:")},
        {kPoliId, spinner(kSurfaceMap, EDITTYPE_INT, {1181, 1182, 1183, 1184},
                          "Poligon ID:\nFrom:\nTo:")},
        {kRandomSegmentCount, spinner(kSurfaceMap, EDITTYPE_INT, {1185, 1186, 1189, 1190},
                                      "Random Segment Count:")},
        {kUvRandomSeed, spinner(kSurfaceMap, EDITTYPE_INT, {1191, 1192}, "  Seed:")},
        {kDummySize, spinner(kPreviewMap, EDITTYPE_UNIVERSE, {1063, 1064}, "Dummy Size:")},
        {kTextureSize, spinner(kPreviewMap, EDITTYPE_INT, {1065, 1066}, "Texture Size:")},
    };
    // clang-format on
    return bindings;
}

class PatternParamBlockDesc : public ParamBlockDesc {
public:
    // The class descriptor adopts the block when it is built (see patternPBDesc).
    PatternParamBlockDesc()
        : ParamBlockDesc(kPatternBlockId, "parameters", 0, nullptr,
                         P_AUTO_CONSTRUCT | P_AUTO_UI | P_MULTIMAP, 0) {
        addMap({.id = kBaseMap, .dialogResource = kDlgBase, .titleStringId = kStrBaseParameters});
        addMap({.id = kSurfaceMap, .dialogResource = kDlgSurface, .titleStringId = kStrSurface});
        addMap({.id = kPreviewMap, .dialogResource = kDlgPreview, .titleStringId = kStrPreview});
        for (const ParamDef& def : kParamTable) addParam(def);
    }
};
static_assert((P_AUTO_CONSTRUCT | P_AUTO_UI | P_MULTIMAP) == 0x26);

}  // namespace

ParamBlockDesc& patternPBDesc() {
    // Built on first use, after the table it copies.
    static PatternParamBlockDesc desc;
    return desc;
}

mq::ClassDesc& mosaiqClassDesc() {
    ClassDesc* cd = patternPBDesc().cd;
    MQ_ASSERT(cd, "the Mosaiq class descriptor has not adopted its parameter block");
    return *cd;
}

void PatternPBAccessor::Set(ParamValue& v, ReferenceMaker* owner, ParamID id, int tabIndex,
                            TimeValue t) {
    if (id != kPattern) return;
    MQ_BOUNDARY_BEGIN
    auto* obj = dynamic_cast<Mosaiq*>(owner);
    if (!obj) return;
    const NodeRef* ref = std::get_if<NodeRef>(&v);
    obj->setPatternNode(ref && ref->handle ? Node::fromHandle(ref->handle) : nullptr);
    obj->resetCropBox(false);
    MQ_BOUNDARY_END([](const std::string& what) {
        reportError("\"Pattern\" could not reset the crop box: " + what);
    })
}

void bindPatternControls(ParamBlockDesc* pbd) {
    if (!pbd) return;
    for (const ControlBinding& b : controlBindings()) pbd->bindUI(b.id, b.ui);
}

}  // namespace mosaiq
