// The graphics window objects draw through in the OpenGL viewport: it
// gathers their lines, points and triangles, in world space and with their
// colours, into one batch per frame that the viewport uploads and draws.
#pragma once

#include "host/viewport.h"

#include <vector>

namespace mosaiq::studio {

class BatchWindow : public mq::GraphicsWindow {
public:
    // Position and colour, as the batch shader reads them.
    struct Vertex {
        float p[3];
        float c[3];
    };
    // Dots of one size, a run of points().
    struct PointRun {
        float size;
        int first, count;
    };

    void clear();
    void setTransform(const mq::Matrix3& objectToWorld) override { tm_ = objectToWorld; }
    void setColor(const mq::Point3& rgb) override { color_ = rgb; }
    void polyline(const mq::Point3* points, int count, bool closed) override;
    void segments(const mq::Point3* points, int count) override;
    void points(const mq::Point3* points, int count, float size = 1.0f) override;
    void triangles(const mq::Point3* verts, int vertCount, const int* indices,
                   int triangleCount) override;
    // Drawing only: nothing is ever hit here.
    const mq::HitRegion* hitRegion() const override { return nullptr; }
    bool checkHitCode() const override { return false; }
    void clearHitCode() override {}
    float hitDistance() const override { return 1e30f; }

    const std::vector<Vertex>& lines() const { return lines_; }  // pairs
    const std::vector<Vertex>& dots() const { return dots_; }
    const std::vector<PointRun>& pointRuns() const { return runs_; }
    const std::vector<Vertex>& tris() const { return tris_; }  // triples
    bool empty() const { return lines_.empty() && dots_.empty() && tris_.empty(); }

private:
    Vertex vertex(const mq::Point3& p) const;

    mq::Matrix3 tm_;
    mq::Point3 color_{1, 1, 1};
    std::vector<Vertex> lines_, dots_, tris_;
    std::vector<PointRun> runs_;
};

}  // namespace mosaiq::studio
