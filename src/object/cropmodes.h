// The viewport modes that move, rotate and scale an object's crop box. Each
// holds the object and the interface it was made for; what the mouse does in
// each mode comes with the viewport work.
#pragma once

#include "host/interface.h"

namespace mosaiq {

class Mosaiq;

class CropBoxCMode : public mq::CommandMode {
public:
    CropBoxCMode(Mosaiq* obj, mq::HostInterface* ip) : obj_(obj), ip_(ip) {}
    Mosaiq* object() const { return obj_; }
    mq::HostInterface* ip() const { return ip_; }

private:
    Mosaiq* obj_;
    mq::HostInterface* ip_;
};

class MoveModBoxCMode : public CropBoxCMode {
public:
    using CropBoxCMode::CropBoxCMode;
    const char* name() const override { return "Move Crop Box"; }
};

class RotateModBoxCMode : public CropBoxCMode {
public:
    using CropBoxCMode::CropBoxCMode;
    const char* name() const override { return "Rotate Crop Box"; }
};

class UScaleModBoxCMode : public CropBoxCMode {
public:
    using CropBoxCMode::CropBoxCMode;
    const char* name() const override { return "Uniform Scale Crop Box"; }
};

class NUScaleModBoxCMode : public CropBoxCMode {
public:
    using CropBoxCMode::CropBoxCMode;
    const char* name() const override { return "Non-uniform Scale Crop Box"; }
};

class SquashModBoxCMode : public CropBoxCMode {
public:
    using CropBoxCMode::CropBoxCMode;
    const char* name() const override { return "Squash Crop Box"; }
};

}  // namespace mosaiq
