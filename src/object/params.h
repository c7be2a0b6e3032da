// The parameter block of a Mosaiq object: ids, the static descriptor, the
// accessor of "Pattern" and the control bindings.
//
// Parameter ids and internal names are what saved scenes and scripts use:
// never renumber or rename them (the misspellings included).
#pragma once

#include "host/classdesc.h"
#include "host/paramblock.h"

namespace mosaiq {

inline constexpr mq::BlockID kPatternBlockId = 0;

// Rollout maps of the block.
enum PatternMap : mq::MapID {
    kBaseMap = 0,
    kSurfaceMap = 1,
    kPreviewMap = 2,
};

// Parameter ids. There is no id 2.
enum PatternParam : mq::ParamID {
    kPatternOn = 0,            // "Pattern_On", bool
    kPattern = 1,              // "Pattern", node
    kCropSize = 3,             // "Crop_Size", 3 world lengths x, y, z
    kHeight = 4,               // "Height", percent (typed as world)
    kShift = 5,                // "Shift", world
    kCropTransform = 6,        // "Crop_Transfrom", matrix
    kUseSurfaceMapping = 7,    // "Use_Surface_Mapping", bool
    kSurface = 8,              // "Surface", node
    kMapChannel = 9,           // "Map_Channel", int 1..99
    kTiling = 10,              // "Tiling", 2 floats U, V
    kPoliId = 11,              // "Poli_ID", 2 ints from, to
    kRandomSegmentCount = 12,  // "Random_Segment_Count", 2 ints U, V
    kUvRandomSeed = 13,        // "UV_Random_Seed", int
    kDummySize = 14,           // "Dummy_Size", world
    kTextureSize = 15,         // "Texture_Size", int 4..2048
    kRealWorldScale = 16,      // "Real_World_Scale", bool
    kPatternSource = 17,       // "Pattern_Source", 0 = from scene, 1 = from file
    kPatternFile = 18,         // "Pattern_File", file name
};

// "Pattern_Source" values.
inline constexpr int kSourceScene = 0;
inline constexpr int kSourceFile = 1;

// The block's descriptor: a static of the library, built on first use. The
// Mosaiq class descriptor adopts it when the class descriptor is built,
// before any object exists.
mq::ParamBlockDesc& patternPBDesc();
// The class descriptor that adopted the block; asserts that one has.
mq::ClassDesc& mosaiqClassDesc();

// Attached to "Pattern": a newly picked node becomes the owning object's
// pattern node and resets its crop box (without an undo record).
class PatternPBAccessor : public mq::PBAccessor {
public:
    void Set(mq::ParamValue& v, mq::ReferenceMaker* owner, mq::ParamID id, int tabIndex,
             mq::TimeValue t) override;
};

// Attach every control binding to pbd (null: nothing). Both routines issue
// the same bindings; see InitParamBlockUI.
void bindPatternControls(mq::ParamBlockDesc* pbd);

}  // namespace mosaiq
