// The path tracer: camera paths with next-event estimation and MIS.
#include "tracer/integrator.h"

#include "host/check.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace mq::tracer {

namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();

// Shade data for a hit with no texture coordinates at all.
class NoShadeData final : public ShadeData {
public:
    Point3 uvw(const RayContext&, int) const override { return {}; }
};
const NoShadeData kNoShadeData;

}  // namespace

bool Integrator::trace(RayContext& rc, ThreadState& ts, IntersectionData& isect,
                       const GeomRecord*& rec) const {
    rc.raySequence = ts.nextSequence();
    rc.hit = nullptr;
    SceneHit hit;
    if (!scene_.intersect(rc, hit)) return false;
    rec = hit.record;
    isect = IntersectionData{};
    if (rec->mesh) {
        rec->mesh->fill(int(hit.primID), hit.u, hit.v, isect);
        isect.primitiveId = hit.primID;
    } else {
        const PrimitiveEntry& e = rec->dynamic->entry(rc.threadIndex, hit.primID);
        isect.primitiveId = e.id;
        isect.t = hit.t;
        for (int a = 0; a < 3; ++a)
            isect.point[a] = rc.origin[a] + double(rc.direction[a]) * isect.t;
        if (!rec->dynamic->prim->intersectionData(rc, e.id, isect)) return false;
        if (!isect.shadeData) isect.shadeData = &kNoShadeData;
    }
    isect.t = hit.t;
    for (int a = 0; a < 3; ++a) isect.point[a] = rc.origin[a] + double(rc.direction[a]) * isect.t;
    return true;
}

bool Integrator::occluded(RayContext& rc, ThreadState& ts) const {
    rc.raySequence = ts.nextSequence();
    rc.hit = nullptr;
    rc.shadowRay = true;
    const bool blocked = scene_.occluded(rc);
    rc.shadowRay = false;
    return blocked;
}

namespace {

float maxComponent(const Point3& p) { return std::max(p.x, std::max(p.y, p.z)); }
float luminance(const Point3& c) { return 0.2126f * c.x + 0.7152f * c.y + 0.0722f * c.z; }

// A point just off the surface on the side of direction d, so the next ray
// does not hit the surface it leaves.
void offsetOrigin(const IntersectionData& isect, const Point3& ng, const Point3& d, double out[3]) {
    const double scale =
        1e-4 * (1.0 + std::max({std::fabs(isect.point[0]), std::fabs(isect.point[1]),
                                std::fabs(isect.point[2])}));
    const double s = DotProd(ng, d) >= 0.0f ? scale : -scale;
    for (int a = 0; a < 3; ++a) out[a] = isect.point[a] + double(ng[a]) * s;
}

}  // namespace

void Integrator::accumulatePixel(int x, int y, int frameIndex, int firstSample, int endSample,
                                 int threadIndex, ThreadState& ts, float sums[4],
                                 Image& img) const {
    MQ_DCHECK(x >= 0 && x < img.width && y >= 0 && y < img.height);
    MQ_DCHECK(firstSample >= 0 && firstSample < endSample);
    const size_t pix = size_t(y) * img.width + x;
    Point3 sum{sums[0], sums[1], sums[2]};
    float coverage = sums[3];

    for (int s = firstSample; s < endSample; ++s) {
        Rng rng(sampleHash(uint32_t(x), uint32_t(y), uint32_t(s), uint32_t(frameIndex),
                           settings_.seed));
        RayContext rc;
        rc.threadIndex = threadIndex;
        const float sx = (float(x) + rng.uniform()) / float(img.width);
        const float sy = (float(y) + rng.uniform()) / float(img.height);
        rc.direction = camera_.direction(sx, sy);
        for (int a = 0; a < 3; ++a) rc.origin[a] = camera_.position[a];
        rc.tMax = kInf;

        // Light reaching the first hit directly, and the rest, which the
        // firefly clamp bounds.
        Point3 direct, indirect, beta{1, 1, 1};
        float prevBsdfPdf = 0.0f;  // 0: the ray came from the camera
        Point3 prevPoint;
        for (int depth = 0;; ++depth) {
            IntersectionData isect;
            const GeomRecord* rec = nullptr;
            const bool hit = trace(rc, ts, isect, rec);
            const float tHit = hit ? float(isect.t) : kInf;
            if (depth == 0 && hit) coverage += 1.0f;

            // Emitters the ray reaches: sphere lights in front of the hit, or
            // the distant lights on a miss.
            bool absorbed = false;
            const Point3 orig{float(rc.origin[0]), float(rc.origin[1]), float(rc.origin[2])};
            for (const Light& l : lights_) {
                float pdfL = 0.0f;
                if (l.kind == Light::Kind::Sphere) {
                    const float t = hitSphereLight(l, orig, rc.direction);
                    if (t <= 0.0f || t >= tHit) continue;
                    pdfL = lightPdf(l, prevPoint, rc.direction);
                    absorbed = true;
                } else if (!hit && !l.isDelta()) {
                    pdfL = lightPdf(l, prevPoint, rc.direction);
                    if (l.kind == Light::Kind::Sun && pdfL == 0.0f) continue;
                } else {
                    continue;
                }
                const float w = prevBsdfPdf > 0.0f ? powerHeuristic(prevBsdfPdf, pdfL) : 1.0f;
                (depth <= 1 ? direct : indirect) += beta * lightRadiance(l, rc.direction) * w;
            }
            if (!hit || absorbed) break;

            rc.hit = &isect;
            MQ_DCHECK(rec->material >= 0 && size_t(rec->material) < materials_.size());
            const Material& m = materials_[rec->material];
            (depth <= 1 ? direct : indirect) += beta * m.emission;
            if (depth == 0) {
                const Point3& n = isect.shadingNormal;
                img.normal[3 * pix] = n.x;
                img.normal[3 * pix + 1] = n.y;
                img.normal[3 * pix + 2] = n.z;
                img.depth[pix] = float(isect.t);
                img.objectId[pix] = float(rec->objectId);
                const Point3 uv = isect.shadeData->uvw(rc, 1);
                img.uv[3 * pix] = uv.x;
                img.uv[3 * pix + 1] = uv.y;
                img.uv[3 * pix + 2] = uv.z;
            }
            if (depth >= settings_.maxDepth) break;

            // Shading frame facing the incoming ray.
            const Point3 wo = -rc.direction;
            Point3 ng = isect.geometricNormal, ns = isect.shadingNormal;
            if (DotProd(ng, wo) < 0.0f) ng = -ng;
            if (DotProd(ns, ng) < 0.0f) ns = -ns;
            const Frame frame(ns);
            const Point3 woL = frame.toLocal(wo);
            if (woL.z <= 1e-6f) break;
            const Bsdf bsdf(m, m.baseColorAt(rc));
            const Point3 p{float(isect.point[0]), float(isect.point[1]), float(isect.point[2])};

            // Next-event estimation towards every light: scenes hold a few,
            // and choosing one at random left half the samples without sun.
            for (const Light& l : lights_) {
                const float ul1 = rng.uniform(), ul2 = rng.uniform();
                LightSample ls;
                if (!sampleLight(l, p, ul1, ul2, ls) || DotProd(ls.wi, ng) <= 0.0f) continue;
                const Point3 wiL = frame.toLocal(ls.wi);
                const Point3 f = bsdf.eval(woL, wiL) * std::fabs(wiL.z);
                if (!(maxComponent(f) > 0.0f)) continue;
                RayContext shadow;
                shadow.threadIndex = threadIndex;
                shadow.rayLevel = rc.rayLevel + 1;
                shadow.skipTag = isect.skipTag;
                offsetOrigin(isect, ng, ls.wi, shadow.origin);
                shadow.direction = ls.wi;
                shadow.tMax = ls.distance < 1e29f ? ls.distance * (1.0f - 1e-4f) : kInf;
                if (occluded(shadow, ts)) continue;
                const float w = l.isDelta() ? 1.0f : powerHeuristic(ls.pdf, bsdf.pdf(woL, wiL));
                (depth == 0 ? direct : indirect) += beta * f * ls.radiance * (w / ls.pdf);
            }

            // Continue the path by sampling the BSDF.
            const float uLobe = rng.uniform(), u1 = rng.uniform(), u2 = rng.uniform();
            const float uRoulette = rng.uniform();
            Point3 wiL;
            float pdf = 0.0f;
            if (!bsdf.sample(woL, uLobe, u1, u2, wiL, pdf)) break;
            const Point3 wi = frame.toWorld(wiL);
            if (DotProd(wi, ng) <= 0.0f) break;
            beta = beta * bsdf.eval(woL, wiL) * (std::fabs(wiL.z) / pdf);
            if (depth >= 3) {
                const float q = std::max(0.05f, 1.0f - maxComponent(beta));
                if (uRoulette < q) break;
                beta = beta / (1.0f - q);
            }
            if (!(maxComponent(beta) > 0.0f)) break;
            prevBsdfPdf = pdf;
            prevPoint = p;
            offsetOrigin(isect, ng, wi, rc.origin);
            rc.direction = wi;
            rc.tMin = 0.0f;
            rc.tMax = kInf;
            rc.rayLevel += 1;
            rc.skipTag = isect.skipTag;
            rc.hit = nullptr;
        }
        const float indirectLum = luminance(indirect);
        if (settings_.clamp > 0.0f && indirectLum > settings_.clamp)
            indirect = indirect * (settings_.clamp / indirectLum);
        const Point3 radiance = direct + indirect;
        if (std::isfinite(radiance.x) && std::isfinite(radiance.y) && std::isfinite(radiance.z)) {
            sum += radiance;
        }
    }
    sums[0] = sum.x;
    sums[1] = sum.y;
    sums[2] = sum.z;
    sums[3] = coverage;
    const float inv = 1.0f / float(endSample);
    img.rgba[4 * pix] = sum.x * inv;
    img.rgba[4 * pix + 1] = sum.y * inv;
    img.rgba[4 * pix + 2] = sum.z * inv;
    img.rgba[4 * pix + 3] = coverage * inv;
}

}  // namespace mq::tracer
