// Rays and hits in tile space, as the primitive, the segment walk and the
// octree pass them along. All per-ray state lives in these records.
#pragma once

#include "host/math.h"

#include <cstdint>

namespace mq {

struct TileRay {
    uint32_t ownerKey = 0;  // low 32 bits of the primitive's identity
    int64_t skipKey = -1;   // key of the face the ray must not hit again
    int32_t seed = 0;       // cell seed of the segment walk
    Point3 direction;       // not normalised: t is the same as in world space
    Point3 origin;
    float tStart = 0.0f;
    float tEnd = 0.0f;  // shrinks as nearer hits are found
};

struct TileHit {
    int64_t faceKey = 0;  // sign-extended (ownerKey ^ faceIndex)
    int32_t faceIndex = -1;
    float beta = 0.0f, gamma = 0.0f;  // weights of corners 1 and 2
    Point3 shadingPoint;
};

// The key that marks a face hit through a given primitive.
inline int64_t faceKeyOf(uint32_t ownerKey, int32_t faceIndex) {
    return static_cast<int64_t>(static_cast<int32_t>(ownerKey ^ static_cast<uint32_t>(faceIndex)));
}

}  // namespace mq
