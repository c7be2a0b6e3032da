// The path-tracing integrator of the embedded renderer (internal): per-pixel
// paths with next-event estimation, combined with BSDF sampling by multiple
// importance sampling (Veach and Guibas, "Optimally Combining Sampling
// Techniques for Monte Carlo Rendering", SIGGRAPH 1995; power heuristic).
#pragma once

#include "tracer/embree_scene.h"
#include "tracer/renderer.h"
#include "tracer/shading.h"

#include <cstdint>
#include <vector>

namespace mq::tracer {

// One render thread's state, on its own cache line. Used by that thread only.
struct alignas(64) ThreadState {
    uint32_t sequence = 0;
    // A ray number never used before on this thread, and never 0.
    uint32_t nextSequence() {
        if (++sequence == 0) sequence = 1;
        return sequence;
    }
};

// Renders the pixels of one frame. Holds references only: the scene,
// materials, lights, camera and settings must outlive it and stay unchanged
// while it renders. Every material index in the scene's records must be
// below materials.size().
class Integrator {
public:
    Integrator(const FrameScene& scene, const std::vector<Material>& materials,
               const std::vector<Light>& lights, const Camera& camera,
               const RenderSettings& settings)
        : scene_(scene),
          materials_(materials),
          lights_(lights),
          camera_(camera),
          settings_(settings) {}

    // Writes pixel (x, y) of every pass of img, averaging settings.samplesPerPixel
    // paths seeded by (x, y, sample, frameIndex, settings.seed). threadIndex
    // is the calling render thread's and ts its state. Concurrent calls must
    // be for different pixels and different threads. Never throws or allocates.
    void renderPixel(int x, int y, int frameIndex, int threadIndex, ThreadState& ts,
                     Image& img) const {
        float sums[4] = {0, 0, 0, 0};
        accumulatePixel(x, y, frameIndex, 0, settings_.samplesPerPixel, threadIndex, ts, sums, img);
    }
    // Adds samples [firstSample, endSample) of pixel (x, y) to sums (red,
    // green, blue and coverage summed over samples [0, firstSample)) and
    // writes the pixel as the mean of samples [0, endSample). Summing goes on
    // in the same order, so passes that meet end to end give renderPixel's
    // values bit for bit. Same rules as renderPixel.
    void accumulatePixel(int x, int y, int frameIndex, int firstSample, int endSample,
                         int threadIndex, ThreadState& ts, float sums[4], Image& img) const;

private:
    // Nearest hit of rc with isect filled and rec its geometry; false for a miss.
    bool trace(RayContext& rc, ThreadState& ts, IntersectionData& isect,
               const GeomRecord*& rec) const;
    // Whether anything blocks the shadow ray rc.
    bool occluded(RayContext& rc, ThreadState& ts) const;

    const FrameScene& scene_;
    const std::vector<Material>& materials_;
    const std::vector<Light>& lights_;
    const Camera& camera_;
    const RenderSettings& settings_;
};

}  // namespace mq::tracer
