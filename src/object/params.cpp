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
// the others are bound by InitParamBlockUI.
// clang-format off
const ParamDef kParamTable[] = {
    {.id = kPatternOn, .internalName = "Pattern_On", .type = TYPE_BOOL, .defaultValue = 1},
    {.id = kPatternSource, .internalName = "Pattern_Source", .type = TYPE_INT,
     .defaultValue = kSourceScene},
    {.id = kPattern, .internalName = "Pattern", .type = TYPE_INODE, .defaultValue = NodeRef{},
     .accessor = &gPatternAccessor},
    {.id = kPatternFile, .internalName = "Pattern_File", .type = TYPE_FILENAME,
     .defaultValue = std::string()},
    {.id = kCropSize, .internalName = "Crop_Size", .type = TYPE_WORLD, .tableSize = 3,
     .defaultValue = 100.0f, .rangeMin = 1e-7f, .rangeMax = 100000.0f},
    {.id = kCropTransform, .internalName = "Crop_Transfrom", .type = TYPE_MATRIX3,
     .defaultValue = Matrix3()},
    {.id = kHeight, .internalName = "Height", .type = TYPE_WORLD, .defaultValue = 100.0f,
     .rangeMin = 0.01f, .rangeMax = 100000.0f},
    {.id = kShift, .internalName = "Shift", .type = TYPE_WORLD, .defaultValue = 0.0f,
     .rangeMin = -100000.0f, .rangeMax = 100000.0f},
    {.id = kUseSurfaceMapping, .internalName = "Use_Surface_Mapping", .type = TYPE_BOOL,
     .defaultValue = 1},
    {.id = kSurface, .internalName = "Surface", .type = TYPE_INODE, .defaultValue = NodeRef{}},
    {.id = kMapChannel, .internalName = "Map_Channel", .type = TYPE_INT, .defaultValue = 1,
     .rangeMin = 1, .rangeMax = 99},
    {.id = kRealWorldScale, .internalName = "Real_World_Scale", .type = TYPE_BOOL,
     .defaultValue = 0, .ui = checkBox(kSurfaceMap, 1187, "Real World Scale:")},
    {.id = kTiling, .internalName = "Tiling", .type = TYPE_FLOAT, .tableSize = 2,
     .defaultValue = 1.0f, .rangeMin = 0.0001f, .rangeMax = 100000.0f},
    {.id = kPoliId, .internalName = "Poli_ID", .type = TYPE_INT, .tableSize = 2,
     .defaultValue = 1, .rangeMin = 1, .rangeMax = 100000},
    {.id = kRandomSegmentCount, .internalName = "Random_Segment_Count", .type = TYPE_INT,
     .tableSize = 2, .defaultValue = 1, .rangeMin = 1, .rangeMax = 1000},
    {.id = kUvRandomSeed, .internalName = "UV_Random_Seed", .type = TYPE_INT, .defaultValue = 42,
     .rangeMin = 0, .rangeMax = 1000000},
    {.id = kDummySize, .internalName = "Dummy_Size", .type = TYPE_WORLD, .defaultValue = 1.0f,
     .rangeMin = 0.001f, .rangeMax = 1000000.0f},
    {.id = kTextureSize, .internalName = "Texture_Size", .type = TYPE_INT, .defaultValue = 256,
     .rangeMin = 4, .rangeMax = 2048},
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
