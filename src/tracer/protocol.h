// The render-object protocol between the tracer and the scene objects that
// render themselves (a plug-in's side of a render).
//
// Call order for one render, all on the main thread:
//   RenderObject::init, RenderObject::renderBegin,
//   RenderObject::newRenderInstance(node, core, renderId), RenderInstance::renderBegin;
//   per frame: RenderObject::frameBegin, RenderInstance::frameBegin,
//     RenderInstance::compileGeometry (register dynamic primitives here),
//     the tracer expands them per thread, builds its scene and renders,
//     collapses them, RenderInstance::frameEnd, RenderObject::frameEnd;
//   at the end: RenderInstance::renderEnd, RenderObject::deleteRenderInstance,
//   RenderObject::renderEnd.
// Exceptions must not leave these calls; the tracer treats one as a failure of
// that node and leaves it out of the render.
#pragma once

#include "host/math.h"
#include "tracer/primitive.h"

#include <cstdint>
#include <string>

namespace mq {
class Node;
}

namespace mq::tracer {

// Object::GetInterface(kRenderObjectInterfaceId) returns a RenderObject* for
// objects that render themselves.
inline constexpr uint32_t kRenderObjectInterfaceId = 0x20122002;

class RenderInstance;

// Takes the dynamic primitives of the current frame. Registrations hold until
// the end of the frame.
class RayServer {
public:
    virtual ~RayServer() = default;
    // A fresh id, unique within the render.
    virtual int newRenderId() = 0;
    // Register prim for this frame. Neither pointer is owned; both must stay
    // valid until the owner's frameEnd. owner is the instance whose node gives
    // the material and object id of the primitive's hits.
    virtual void storeDynamicPrimitive(DynamicPrimitive* prim, RenderInstance* owner,
                                       int renderId) = 0;
};

// The tracer as the render objects see it.
class RenderCore {
public:
    virtual ~RenderCore() = default;
    // Render threads; every RayContext::threadIndex is below this.
    virtual int threadCount() const = 0;
    virtual RayServer& rayServer() = 0;
    // Time of the frame being rendered (ticks).
    virtual TimeValue currentTime() const = 0;
    // Tell the user about a problem that does not stop the render, such as
    // a node that renders nothing this frame, and why.
    virtual void warning(const std::string& text) {}
};

// One node of a render object inside one render. Created by the render
// object; the defaults do nothing.
class RenderInstance {
public:
    virtual ~RenderInstance() = default;

    // Record the instance's identity; called by the render object's factory.
    void init(class RenderObject* object, Node* node, RenderCore* core, int renderId) {
        renderObject_ = object;
        node_ = node;
        core_ = core;
        renderId_ = renderId;
    }

    virtual void renderBegin(TimeValue t, RenderCore& core) {}
    virtual void frameBegin(TimeValue t, RenderCore& core) {}
    // The geometry hook: register this frame's dynamic primitives with
    // core.rayServer().
    virtual void compileGeometry(RenderCore& core) {}
    virtual void frameEnd(RenderCore& core) {}
    virtual void renderEnd(RenderCore& core) {}

    class RenderObject* renderObject() const {
        return renderObject_;
    }
    Node* node() const { return node_; }
    RenderCore* core() const { return core_; }
    int renderId() const { return renderId_; }

private:
    class RenderObject* renderObject_ = nullptr;
    Node* node_ = nullptr;
    RenderCore* core_ = nullptr;
    int renderId_ = -1;
};

// The render side of a scene object.
class RenderObject {
public:
    virtual ~RenderObject() = default;
    // Once per render before anything else; false leaves the object out.
    virtual bool init(RenderCore& core) { return true; }
    virtual void renderBegin(TimeValue t, RenderCore& core) {}
    virtual void renderEnd(RenderCore& core) {}
    virtual void frameBegin(TimeValue t, RenderCore& core) {}
    virtual void frameEnd(RenderCore& core) {}
    // A new instance for node (owned by this object until deleteRenderInstance);
    // null to render nothing for the node.
    virtual RenderInstance* newRenderInstance(Node* node, RenderCore& core, int renderId) = 0;
    virtual void deleteRenderInstance(RenderInstance* instance) = 0;
};

}  // namespace mq::tracer
