// Materials, their BSDF, lights and the camera of the embedded renderer
// (internal). Colours are linear RGB in Point3.
#pragma once

#include "host/math.h"
#include "tracer/ray_context.h"
#include "tracer/sampling.h"
#include "tracer/texture.h"

#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace mq::tracer {

// A material of the scene's "materials" section:
//   {"baseColor": [r, g, b] or {"texture": "file", "channel": 1},
//    "roughness": 0.5, "metallic": 0, "specular": 0.5, "emission": [r, g, b]}
// An image base colour is looked up, bilinearly and repeating, at the UVW of
// map channel "channel" (0..99, default 1) of each hit, which the hit's
// ShadeData answers: a host mesh's own channel, or for a Mosaiq object the
// surface's UVs on its map channel and the pattern's UVs otherwise. A hit
// without the channel reads UVW (0, 0, 0). A relative file name resolves
// against RenderSettings::assetFolder, or the working directory when unset.
struct Material {
    Point3 baseColor{0.8f, 0.8f, 0.8f};
    float roughness = 0.5f;
    float metallic = 0.0f;
    float specular = 0.5f;  // dielectric reflectance at normal incidence is 0.08 * specular
    Point3 emission;
    // The base colour image, replacing baseColor when set; owned by the
    // render's AssetCache.
    const Texture* baseColorTexture = nullptr;
    int baseColorChannel = 1;

    // Base colour at the hit rc.hit (which must be set). Render threads.
    Point3 baseColorAt(const RayContext& rc) const {
        if (!baseColorTexture) return baseColor;
        const Point3 uvw = rc.hit->shadeData->uvw(rc, baseColorChannel);
        return baseColorTexture->lookup(uvw.x, uvw.y);
    }
};

// A GGX microfacet lobe (Walter et al., "Microfacet Models for Refraction
// through Rough Surfaces", EGSR 2007) with height-correlated Smith masking
// (Heitz, "Understanding the Masking-Shadowing Function in Microfacet-Based
// BRDFs", JCGT 2014), sampled by its visible normals (Heitz, "Sampling the
// GGX Distribution of Visible Normals", JCGT 2018), over a diffuse base that
// gets only what the dielectric coat does not reflect: the base is weighted
// by (1 - E(wo)) (1 - E(wi)) / (1 - Eavg), E being the coat's directional
// albedo (Kelemen and Szirmay-Kalos, "A Microfacet Based Coupled
// Specular-Matte BRDF Model", Eurographics 2001), and a lobe of the same
// shape gives back the energy single scattering loses (see shading.cpp). So f
// is reciprocal, and under a white dome white materials reflect 1 at every
// angle, metals and dielectrics alike.
// The local frame has the shading normal on +z; wo and wi point away from
// the surface. Nothing here allocates; the albedo tables are built once.
class Bsdf {
public:
    Bsdf(const Material& m, const Point3& baseColor);
    // f(wo, wi); zero below the surface.
    Point3 eval(const Point3& wo, const Point3& wi) const;
    // Solid-angle density of sample() choosing wi.
    float pdf(const Point3& wo, const Point3& wi) const;
    // A direction wi with its density; false when none could be drawn.
    bool sample(const Point3& wo, float uLobe, float u1, float u2, Point3& wi, float& pdfOut) const;

private:
    // Directional albedos seen from cosine cosV: of the single-scattering
    // lobe with F = 1, of the dielectric coat, and of the specular lobe
    // (single scattering, F0 the luminance of f0_).
    struct Albedos {
        float single = 0, coat = 0, specular = 0;
    };
    Albedos albedos(float cosV) const;
    // Probability of drawing wi from the specular lobe, given wo's albedos.
    float specularChance(const Albedos& o) const;
    Point3 kd_, f0_, fms_;  // fms_: Fresnel of the multiple-scattering lobe
    float alpha_, dielectricF0_, coatFms_;
    float diffuseNorm_, msNorm_;  // 1 / (pi (1 - Eavg)), of the coat and of F = 1
};

// A light of the scene's "lights" array. A dome is constant,
//   {"type": "dome", "color": [r, g, b], "intensity": 1},
// or an HDR lat-long image (see EnvironmentMap for the mapping):
//   {"type": "dome", "image": "sky.exr", "intensity": 1, "rotation": 0,
//    "color": [1, 1, 1], "sampling": "importance"}
// whose radiance is the texel times color times intensity, and which camera
// rays that miss see. The file resolves as a texture's does. "rotation" turns
// the image about +z by that many degrees, counterclockwise seen from above
// (the image centre moves from +x towards +y). Directions towards an image
// dome are drawn in proportion to its brightness; "sampling": "uniform" draws
// them uniformly over the sphere instead, to check the former or compare noise.
struct Light {
    enum class Kind { Sun, Point, Sphere, Dome };
    Kind kind = Kind::Dome;
    Point3 color;         // radiance (sun with a size, sphere, dome), irradiance (sun
                          // without size) or intensity (point); image dome: texel scale
    Point3 direction;     // sun: unit, towards the sun
    float cosMax = 1.0f;  // sun: cosine of the angular radius
    Point3 position;      // point, sphere
    float radius = 0.0f;  // sphere
    const EnvironmentMap* image = nullptr;  // dome: null when constant; owned by the AssetCache
    float rotationCos = 1.0f, rotationSin = 0.0f;  // image dome: turn about +z
    bool uniformSampling = false;                  // image dome

    // Between world directions and the dome image's own frame.
    Point3 worldToImage(const Point3& w) const {
        return {rotationCos * w.x + rotationSin * w.y, rotationCos * w.y - rotationSin * w.x, w.z};
    }
    Point3 imageToWorld(const Point3& d) const {
        return {rotationCos * d.x - rotationSin * d.y, rotationSin * d.x + rotationCos * d.y, d.z};
    }

    bool isDelta() const { return kind == Kind::Point || (kind == Kind::Sun && cosMax >= 1.0f); }
};

struct LightSample {
    Point3 wi;           // unit, towards the light
    float distance = 0;  // to the light; 1e30 for distant lights
    Point3 radiance;     // for delta lights the incident irradiance
    float pdf = 0;       // solid angle density; 1 for delta lights
};

// Samples light l as seen from p; false when it cannot light p.
bool sampleLight(const Light& l, const Point3& p, float u1, float u2, LightSample& s);
// Solid-angle density with which sampleLight picks direction w from p, and the
// radiance arriving along it, for a ray that reached light l (no hit in the
// scene for distant lights; a hit at distance t for spheres).
float lightPdf(const Light& l, const Point3& p, const Point3& w);
// Radiance arriving along unit direction w from light l, for a ray that
// reached it (see lightPdf).
Point3 lightRadiance(const Light& l, const Point3& w);
// Distance along the unit ray to sphere light l, or a negative value for a miss.
float hitSphereLight(const Light& l, const Point3& origin, const Point3& dir);

struct Camera {
    Point3 position, forward, right, up;  // unit axes
    float tanHalfFovX = 0.4142f;
    float aspect = 1.0f;  // height / width
    // Unit direction through image point (sx, sy) in [0, 1)^2, y down.
    Point3 direction(float sx, float sy) const {
        const float px = (2.0f * sx - 1.0f) * tanHalfFovX;
        const float py = (1.0f - 2.0f * sy) * tanHalfFovX * aspect;
        return Normalize(forward + right * px + up * py);
    }
};

// Parsers for the scene's JSON sections; checkRenderData (renderer.h) runs
// them without loading images. They throw InputError naming the JSON path and
// the value (and for images the file and the reason): colours, emission and
// intensities must be finite and >= 0, and every number must fit a float.
// `warn` gets keys that are unknown or ignored, named by their JSON path with
// the nearest known key. Images are loaded through `assets`.
Material parseMaterial(const nlohmann::json& j, const std::string& name, AssetCache& assets,
                       const std::function<void(const std::string&)>& warn);
// Lights of the scene; a default sky dome and sun when there are none.
std::vector<Light> parseLights(const nlohmann::json& lights, AssetCache& assets,
                               const std::function<void(const std::string&)>& warn = {});
// Camera from {position, target, up, fov (horizontal, degrees)}, or, when j
// is null, a three-quarter view from above that fits `bounds` to the frame.
Camera makeCamera(const nlohmann::json& j, const Box3& bounds, int width, int height,
                  const std::function<void(const std::string&)>& warn = {});

}  // namespace mq::tracer
