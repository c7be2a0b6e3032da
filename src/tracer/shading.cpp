// Materials, BSDF, lights and camera, and the check of a scene's render data
// built on their parsers.
#include "tracer/shading.h"

#include "host/node.h"
#include "host/suggest.h"
#include "tracer/renderer.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

namespace mq::tracer {

namespace {

using json = nlohmann::json;
using WarnFn = std::function<void(const std::string&)>;

constexpr float kMaxFloat = std::numeric_limits<float>::max();

float luminance(const Point3& c) { return 0.2126f * c.x + 0.7152f * c.y + 0.0722f * c.z; }

[[noreturn]] void fail(const std::string& path, const std::string& what) {
    throw InputError(path + ": " + what);
}

std::string shortText(float f) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%g", double(f));
    return buf;
}

// The number v as a float within [lo, hi]; failures name path and the value.
float numberAt(const json& v, const std::string& path, float lo, float hi) {
    if (!v.is_number()) fail(path, "expected a number, found " + v.dump());
    const double d = v.get<double>();
    if (std::fabs(d) > double(kMaxFloat)) fail(path, v.dump() + " is beyond single precision");
    if (!(d >= lo && d <= hi)) {
        const std::string expected =
            hi < kMaxFloat    ? "a number in [" + shortText(lo) + ", " + shortText(hi) + "]"
            : lo > -kMaxFloat ? "a finite number >= " + shortText(lo)
                              : "a finite number";
        fail(path, "expected " + expected + ", found " + v.dump());
    }
    return float(d);
}

float number(const json& j, const char* key, float def, const std::string& path,
             float lo = -kMaxFloat, float hi = kMaxFloat) {
    if (!j.contains(key)) return def;
    return numberAt(j[key], path + "/" + key, lo, hi);
}

// Three numbers, each at least lo.
Point3 vec3(const json& j, const char* key, Point3 def, const std::string& path,
            float lo = -kMaxFloat) {
    if (!j.contains(key)) return def;
    const auto& v = j[key];
    const std::string at = path + "/" + key;
    if (!v.is_array() || v.size() != 3) fail(at, "expected three numbers, found " + v.dump());
    return {numberAt(v[0], at + "/0", lo, kMaxFloat), numberAt(v[1], at + "/1", lo, kMaxFloat),
            numberAt(v[2], at + "/2", lo, kMaxFloat)};
}

// Warns of each key of object j (at path) that is not among known, with the
// nearest known one: a misspelt key would otherwise silently keep its default.
void warnUnknownKeys(const json& j, const std::string& path, const std::vector<std::string>& known,
                     const WarnFn& warn) {
    if (!warn || !j.is_object()) return;
    for (const auto& [key, value] : j.items()) {
        if (std::find(known.begin(), known.end(), key) == known.end())
            warn(path + "/" + key + ": unknown key" + didYouMean(key, known));
    }
}

// Colours and radiances are never negative.
Point3 colour(const json& j, const char* key, Point3 def, const std::string& path) {
    return vec3(j, key, def, path, 0.0f);
}

}  // namespace

namespace {

float ggxD(float cosH, float alpha) {
    const float a2 = alpha * alpha;
    const float d = cosH * cosH * (a2 - 1.0f) + 1.0f;
    return a2 / (kPi * d * d);
}

// Smith's Lambda for GGX; G1 = 1 / (1 + Lambda), G2 = 1 / (1 + Lo + Li).
float smithLambda(float cosV, float alpha) {
    const float c2 = std::max(cosV * cosV, 1e-12f);
    return 0.5f * (std::sqrt(1.0f + alpha * alpha * (1.0f - c2) / c2) - 1.0f);
}

// A microfacet normal drawn from the normals visible from wo (wo.z > 0).
Point3 sampleVisibleNormal(const Point3& wo, float alpha, float u1, float u2) {
    const Point3 vh = Normalize(Point3(alpha * wo.x, alpha * wo.y, wo.z));
    const float lensq = vh.x * vh.x + vh.y * vh.y;
    const Point3 t1 =
        lensq > 0.0f ? Point3(-vh.y, vh.x, 0.0f) / std::sqrt(lensq) : Point3(1.0f, 0.0f, 0.0f);
    const Point3 t2 = CrossProd(vh, t1);
    const float r = std::sqrt(u1), phi = 2.0f * kPi * u2;
    const float p1 = r * std::cos(phi);
    const float s = 0.5f * (1.0f + vh.z);
    const float p2 = (1.0f - s) * std::sqrt(std::max(0.0f, 1.0f - p1 * p1)) + s * r * std::sin(phi);
    const Point3 nh = t1 * p1 + t2 * p2 + vh * std::sqrt(std::max(0.0f, 1.0f - p1 * p1 - p2 * p2));
    return Normalize(Point3(alpha * nh.x, alpha * nh.y, std::max(nh.z, 1e-6f)));
}

float schlickWeight(float cosOH) {
    const float m = std::clamp(1.0f - cosOH, 0.0f, 1.0f);
    const float m2 = m * m;
    return m2 * m2 * m;
}

// Directional albedo of the GGX lobe with Schlick's Fresnel, which is linear
// in F0: E = F0 * scale + bias. Tabled over cos(theta_o) at cell midpoints
// and alpha at grid points, with the cosine-weighted hemisphere average per
// alpha; estimated once by stratified visible-normal sampling.
class AlbedoTable {
public:
    static constexpr int kN = 32, kStrata = 16;

    static const AlbedoTable& get() {
        static const AlbedoTable table;
        return table;
    }

    // E = f0 * scale + bias at (cosV, alpha), bilinearly.
    struct Split {
        float scale, bias;
        float albedo(float f0) const { return f0 * scale + bias; }
    };
    Split lookup(float cosV, float alpha) const {
        const float fa = std::clamp(alpha, 0.0f, 1.0f) * float(kN - 1);
        const int a0 = std::min(int(fa), kN - 2);
        const float ta = fa - float(a0);
        const float fm = std::clamp(cosV * float(kN) - 0.5f, 0.0f, float(kN - 1));
        const int m0 = std::min(int(fm), kN - 2);
        const float tm = fm - float(m0);
        auto mix = [&](const float(&t)[kN][kN]) {
            const float lo = t[a0][m0] * (1.0f - tm) + t[a0][m0 + 1] * tm;
            const float hi = t[a0 + 1][m0] * (1.0f - tm) + t[a0 + 1][m0 + 1] * tm;
            return lo * (1.0f - ta) + hi * ta;
        };
        return {mix(scale_), mix(bias_)};
    }

    float average(float alpha, float f0) const {
        const float fa = std::clamp(alpha, 0.0f, 1.0f) * float(kN - 1);
        const int a0 = std::min(int(fa), kN - 2);
        const float ta = fa - float(a0);
        auto at = [&](int a) { return f0 * avgScale_[a] + avgBias_[a]; };
        return at(a0) * (1.0f - ta) + at(a0 + 1) * ta;
    }

private:
    AlbedoTable() {
        for (int a = 0; a < kN; ++a) {
            const float alpha = std::max(float(a) / float(kN - 1), 1e-3f);
            avgScale_[a] = avgBias_[a] = 0.0f;
            for (int m = 0; m < kN; ++m) {
                const float mu = (float(m) + 0.5f) / float(kN);
                const Point3 wo{std::sqrt(1.0f - mu * mu), 0.0f, mu};
                const float lo = smithLambda(mu, alpha);
                double sc = 0.0, bi = 0.0;
                for (int i = 0; i < kStrata * kStrata; ++i) {
                    const float u1 = (float(i % kStrata) + 0.5f) / float(kStrata);
                    const float u2 = (float(i / kStrata) + 0.5f) / float(kStrata);
                    const Point3 h = sampleVisibleNormal(wo, alpha, u1, u2);
                    const float cosOH = DotProd(wo, h);
                    const float wiz = 2.0f * cosOH * h.z - mu;
                    if (wiz <= 0.0f) continue;
                    // f cos / pdf of visible-normal sampling is F G2 / G1(wo).
                    const float w = (1.0f + lo) / (1.0f + lo + smithLambda(wiz, alpha));
                    const float s5 = schlickWeight(cosOH);
                    sc += w * (1.0f - s5);
                    bi += w * s5;
                }
                scale_[a][m] = float(sc / (kStrata * kStrata));
                bias_[a][m] = float(bi / (kStrata * kStrata));
                // Midpoint rule for the average of E(mu) * 2 mu over [0, 1].
                avgScale_[a] += 2.0f * mu * scale_[a][m] / float(kN);
                avgBias_[a] += 2.0f * mu * bias_[a][m] / float(kN);
            }
        }
    }

    float scale_[kN][kN], bias_[kN][kN];  // [alpha][cosine]
    float avgScale_[kN], avgBias_[kN];
};

// Fresnel factor of the energy multiple scattering adds (Kulla and Conty,
// "Revisiting Physically Based Shading at Imageworks", SIGGRAPH 2017 course):
// Favg^2 Eavg / (1 - Favg (1 - Eavg)), with Schlick's Favg = F0 + (1 - F0) / 21.
float multipleFresnel(float f0, float eAvg) {
    const float fAvg = f0 + (1.0f - f0) / 21.0f;
    return fAvg * fAvg * eAvg / (1.0f - fAvg * (1.0f - eAvg));
}

}  // namespace

// The single-scattering lobe loses 1 - E(wo) of its energy (most at high
// roughness: E <= 0.5 at normal incidence when alpha = 1); a cosine-like lobe
// (1 - E(wo)) (1 - E(wi)) / (pi (1 - Eavg)) gives it back, tinted by the
// multiple-scattering Fresnel (Kulla and Conty). The diffuse base takes what
// the dielectric coat, both lobes together, leaves.
Bsdf::Bsdf(const Material& m, const Point3& baseColor) {
    const float metal = std::clamp(m.metallic, 0.0f, 1.0f);
    dielectricF0_ = 0.08f * std::clamp(m.specular, 0.0f, 1.0f);
    // Schlick's Fresnel is linear in F0, so this one lobe is the blend of a
    // dielectric's and a metal's.
    f0_ = Point3(dielectricF0_, dielectricF0_, dielectricF0_) * (1.0f - metal) + baseColor * metal;
    kd_ = baseColor * (1.0f - metal);
    const float r = std::clamp(m.roughness, 0.0f, 1.0f);
    alpha_ = std::max(r * r, 1e-3f);
    const AlbedoTable& t = AlbedoTable::get();
    const float e1Avg = t.average(alpha_, 1.0f);
    msNorm_ = kInvPi / std::max(1.0f - e1Avg, 1e-4f);
    coatFms_ = dielectricF0_ > 0.0f ? multipleFresnel(dielectricF0_, e1Avg) : 0.0f;
    // Blended like f0_: the factor is convex in F0, so taking it of the
    // blended F0 would lose energy on half-metals.
    const Point3 metalFms{multipleFresnel(baseColor.x, e1Avg), multipleFresnel(baseColor.y, e1Avg),
                          multipleFresnel(baseColor.z, e1Avg)};
    fms_ = Point3(coatFms_, coatFms_, coatFms_) * (1.0f - metal) + metalFms * metal;
    const float coatAvg = t.average(alpha_, dielectricF0_) + coatFms_ * (1.0f - e1Avg);
    diffuseNorm_ = kInvPi / std::max(1.0f - coatAvg, 1e-4f);
}

Bsdf::Albedos Bsdf::albedos(float cosV) const {
    const auto split = AlbedoTable::get().lookup(cosV, alpha_);
    Albedos a;
    a.single = split.albedo(1.0f);
    a.coat =
        dielectricF0_ > 0.0f ? split.albedo(dielectricF0_) + coatFms_ * (1.0f - a.single) : 0.0f;
    a.specular = split.albedo(luminance(f0_));
    return a;
}

float Bsdf::specularChance(const Albedos& o) const {
    if (!(luminance(f0_) > 0.0f)) return 0.0f;
    // Each lobe's share of the albedo at wo; the luminance of F0 * scale +
    // bias is that of F0 times scale plus bias, as the weights sum to 1.
    const float ws = o.specular;
    const float wc = luminance(kd_) * (1.0f - o.coat) + luminance(fms_) * (1.0f - o.single);
    return ws + wc > 0.0f ? ws / (ws + wc) : 0.0f;
}

Point3 Bsdf::eval(const Point3& wo, const Point3& wi) const {
    if (wo.z <= 0.0f || wi.z <= 0.0f) return {};
    const Albedos o = albedos(wo.z), i = albedos(wi.z);
    Point3 f = kd_ * (diffuseNorm_ * (1.0f - o.coat) * (1.0f - i.coat));
    if (luminance(f0_) > 0.0f) {
        f += fms_ * (msNorm_ * (1.0f - o.single) * (1.0f - i.single));
        const Point3 h = Normalize(wo + wi);
        const Point3 fresnel = f0_ + (Point3(1, 1, 1) - f0_) * schlickWeight(DotProd(wo, h));
        const float g2 = 1.0f / (1.0f + smithLambda(wo.z, alpha_) + smithLambda(wi.z, alpha_));
        f += fresnel * (ggxD(h.z, alpha_) * g2 / (4.0f * wo.z * wi.z));
    }
    return f;
}

float Bsdf::pdf(const Point3& wo, const Point3& wi) const {
    if (wo.z <= 0.0f || wi.z <= 0.0f) return 0.0f;
    const float pSpec = specularChance(albedos(wo.z));
    float p = (1.0f - pSpec) * wi.z * kInvPi;
    if (pSpec > 0.0f) {
        // Visible normals: G1(wo) D(h) (wo.h) / wo.z, times the reflection's
        // Jacobian 1 / (4 wo.h).
        const Point3 h = Normalize(wo + wi);
        const float g1 = 1.0f / (1.0f + smithLambda(wo.z, alpha_));
        p += pSpec * g1 * ggxD(h.z, alpha_) / (4.0f * wo.z);
    }
    return p;
}

bool Bsdf::sample(const Point3& wo, float uLobe, float u1, float u2, Point3& wi,
                  float& pdfOut) const {
    if (wo.z <= 0.0f) return false;
    if (uLobe < specularChance(albedos(wo.z))) {
        const Point3 h = sampleVisibleNormal(wo, alpha_, u1, u2);
        wi = h * (2.0f * DotProd(wo, h)) - wo;
    } else {
        wi = sampleCosineHemisphere(u1, u2);
    }
    if (wi.z <= 0.0f) return false;
    pdfOut = pdf(wo, wi);
    return pdfOut > 0.0f;
}

bool sampleLight(const Light& l, const Point3& p, float u1, float u2, LightSample& s) {
    switch (l.kind) {
        case Light::Kind::Dome:
            s.distance = 1e30f;
            if (l.image && !l.uniformSampling) {
                Point3 d;
                if (!l.image->sample(u1, u2, d, s.pdf)) return false;
                s.wi = l.imageToWorld(d);
                s.radiance = l.image->radiance(d) * l.color;
                return true;
            }
            s.wi = sampleUniformSphere(u1, u2);
            s.radiance = l.image ? lightRadiance(l, s.wi) : l.color;
            s.pdf = 1.0f / (4.0f * kPi);
            return true;
        case Light::Kind::Sun:
            s.distance = 1e30f;
            s.radiance = l.color;
            if (l.isDelta()) {
                s.wi = l.direction;
                s.pdf = 1.0f;
            } else {
                s.wi = Normalize(Frame(l.direction).toWorld(sampleUniformCone(u1, u2, l.cosMax)));
                s.pdf = 1.0f / (2.0f * kPi * (1.0f - l.cosMax));
            }
            return true;
        case Light::Kind::Point: {
            const Point3 d = l.position - p;
            const float d2 = LengthSquared(d);
            if (d2 <= 0.0f) return false;
            s.distance = std::sqrt(d2);
            s.wi = d / s.distance;
            s.radiance = l.color / d2;
            s.pdf = 1.0f;
            return true;
        }
        case Light::Kind::Sphere: {
            const Point3 d = l.position - p;
            const float d2 = LengthSquared(d);
            const float r2 = l.radius * l.radius;
            if (d2 <= r2) return false;
            const float cosMax = std::sqrt(std::max(0.0f, 1.0f - r2 / d2));
            s.wi = Normalize(Frame(Normalize(d)).toWorld(sampleUniformCone(u1, u2, cosMax)));
            const float t = hitSphereLight(l, p, s.wi);
            s.distance = t > 0.0f ? t : std::sqrt(d2) - l.radius;
            s.radiance = l.color;
            s.pdf = 1.0f / (2.0f * kPi * std::max(1.0f - cosMax, 1e-7f));
            return true;
        }
    }
    return false;
}

float lightPdf(const Light& l, const Point3& p, const Point3& w) {
    switch (l.kind) {
        case Light::Kind::Dome:
            if (l.image && !l.uniformSampling) return l.image->pdf(l.worldToImage(w));
            return 1.0f / (4.0f * kPi);
        case Light::Kind::Sun:
            if (l.isDelta() || DotProd(w, l.direction) < l.cosMax) return 0.0f;
            return 1.0f / (2.0f * kPi * (1.0f - l.cosMax));
        case Light::Kind::Point:
            return 0.0f;
        case Light::Kind::Sphere: {
            const Point3 d = l.position - p;
            const float d2 = LengthSquared(d), r2 = l.radius * l.radius;
            if (d2 <= r2) return 0.0f;
            const float cosMax = std::sqrt(std::max(0.0f, 1.0f - r2 / d2));
            return 1.0f / (2.0f * kPi * std::max(1.0f - cosMax, 1e-7f));
        }
    }
    return 0.0f;
}

Point3 lightRadiance(const Light& l, const Point3& w) {
    if (l.image) return l.image->radiance(l.worldToImage(w)) * l.color;
    return l.color;
}

float hitSphereLight(const Light& l, const Point3& origin, const Point3& dir) {
    const Point3 oc = origin - l.position;
    const float b = DotProd(oc, dir);
    const float c = LengthSquared(oc) - l.radius * l.radius;
    const float disc = b * b - c;
    if (disc < 0.0f) return -1.0f;
    const float sq = std::sqrt(disc);
    const float t0 = -b - sq;
    return t0 > 0.0f ? t0 : (-b + sq > 0.0f ? -b + sq : -1.0f);
}

namespace {

// The parsers proper; without assets, image names are checked but no image is
// loaded.
Material materialFrom(const json& j, const std::string& name, AssetCache* assets,
                      const WarnFn& warn) {
    const std::string path = "/materials/" + name;
    if (!j.is_object()) fail(path, "expected an object, found " + j.dump());
    Material m;
    if (j.contains("baseColor") && j["baseColor"].is_object()) {
        // An image: {"texture": file, "channel": n}.
        const auto& t = j["baseColor"];
        const std::string at = path + "/baseColor";
        if (!t.contains("texture") || !t["texture"].is_string() ||
            t["texture"].get<std::string>().empty()) {
            fail(at, "expected three numbers or {\"texture\": file, \"channel\": n}, found " +
                         t.dump());
        }
        if (t.contains("channel")) {
            const auto& c = t["channel"];
            if (!c.is_number_integer() || c.get<int64_t>() < 0 || c.get<int64_t>() >= 100) {
                fail(at + "/channel", "expected a map channel 0 to 99, found " + c.dump());
            }
            m.baseColorChannel = c.get<int>();
        }
        warnUnknownKeys(t, at, {"texture", "channel"}, warn);
        try {
            if (assets) m.baseColorTexture = &assets->texture(t["texture"].get<std::string>());
        } catch (const InputError& e) {
            fail(at + "/texture", "texture of material \"" + name + "\": " + e.what());
        }
    } else {
        m.baseColor = colour(j, "baseColor", m.baseColor, path);
    }
    m.roughness = number(j, "roughness", m.roughness, path, 0.0f, 1.0f);
    m.metallic = number(j, "metallic", m.metallic, path, 0.0f, 1.0f);
    m.specular = number(j, "specular", m.specular, path, 0.0f, 1.0f);
    m.emission = colour(j, "emission", m.emission, path);
    if (j.contains("baseColorTexture") && warn) {
        warn(path +
             "/baseColorTexture: ignored; an image base colour is written as "
             "\"baseColor\": {\"texture\": file, \"channel\": n}");
    }
    json rest = j;
    rest.erase("baseColorTexture");
    warnUnknownKeys(rest, path, {"baseColor", "roughness", "metallic", "specular", "emission"},
                    warn);
    return m;
}

// Keys a light of each type reads besides "type", "color" and "intensity".
void warnLightKeys(const json& j, const std::string& type, const std::string& path,
                   const WarnFn& warn) {
    if (!warn) return;
    static const std::vector<std::pair<std::string, std::vector<std::string>>> kKeys = {
        {"sun", {"direction", "angle"}},
        {"point", {"position"}},
        {"sphere", {"position", "radius"}},
        {"dome", {"image", "rotation", "sampling"}}};
    std::vector<std::string> known = {"type", "color", "intensity"};
    for (const auto& [t, keys] : kKeys) {
        if (t == type) known.insert(known.end(), keys.begin(), keys.end());
    }
    for (const auto& [key, value] : j.items()) {
        if (std::find(known.begin(), known.end(), key) != known.end()) continue;
        std::string owner;
        for (const auto& [t, keys] : kKeys) {
            if (owner.empty() && std::find(keys.begin(), keys.end(), key) != keys.end()) owner = t;
        }
        if (!owner.empty()) {
            warn(path + "/" + key + ": ignored; a \"" + type + "\" light has no \"" + key +
                 "\" (a \"" + owner + "\" light has)");
        } else {
            warn(path + "/" + key + ": unknown key" + didYouMean(key, known));
        }
    }
    if (type == "dome" && !j.contains("image")) {
        for (const char* key : {"rotation", "sampling"}) {
            if (j.contains(key))
                warn(path + "/" + key + ": ignored; it applies to a dome with an \"image\"");
        }
    }
}

std::vector<Light> lightsFrom(const json& lights, AssetCache* assets, const WarnFn& warn) {
    std::vector<Light> out;
    if (!lights.is_null() && !lights.is_array()) fail("/lights", "expected an array");
    for (size_t i = 0; lights.is_array() && i < lights.size(); ++i) {
        const auto& j = lights[i];
        const std::string path = "/lights/" + std::to_string(i);
        if (!j.is_object() || !j.contains("type") || !j["type"].is_string()) {
            fail(path, "expected an object with a \"type\"");
        }
        const std::string type = j["type"].get<std::string>();
        Light l;
        const Point3 color = colour(j, "color", {1, 1, 1}, path);
        const float intensity = number(j, "intensity", 1.0f, path, 0.0f);
        if (type == "sun") {
            l.kind = Light::Kind::Sun;
            l.direction = Normalize(vec3(j, "direction", {0, 0, 1}, path));
            if (!(LengthSquared(l.direction) > 0.0f)) fail(path + "/direction", "zero vector");
            const float angle = number(j, "angle", 0.53f, path, 0.0f, 90.0f);  // degrees, diameter
            l.cosMax = std::cos(0.5f * angle * kPi / 180.0f);
            // intensity is the irradiance on a surface facing the sun.
            const float solid = 2.0f * kPi * (1.0f - l.cosMax);
            l.color = color * (l.isDelta() ? intensity : intensity / solid);
        } else if (type == "point" || type == "sphere") {
            l.kind = type == "point" ? Light::Kind::Point : Light::Kind::Sphere;
            l.position = vec3(j, "position", {0, 0, 0}, path);
            l.radius = type == "sphere" ? number(j, "radius", 1.0f, path, 1e-6f) : 0.0f;
            // intensity is radiant intensity (per steradian), as seen from afar.
            l.color =
                color * (l.kind == Light::Kind::Point ? intensity
                                                      : intensity / (kPi * l.radius * l.radius));
        } else if (type == "dome") {
            l.kind = Light::Kind::Dome;
            l.color = color * intensity;
            if (j.contains("image")) {
                const auto& file = j["image"];
                if (!file.is_string() || file.get<std::string>().empty()) {
                    fail(path + "/image", "expected an image file name, found " + file.dump());
                }
                try {
                    if (assets) l.image = &assets->environment(file.get<std::string>());
                } catch (const InputError& e) {
                    fail(path + "/image", std::string("dome image: ") + e.what());
                }
                const float degrees = number(j, "rotation", 0.0f, path, -1e6f, 1e6f);
                const double radians =
                    std::fmod(double(degrees), 360.0) * (3.14159265358979323846 / 180.0);
                l.rotationCos = float(std::cos(radians));
                l.rotationSin = float(std::sin(radians));
                if (j.contains("sampling")) {
                    const auto& sm = j["sampling"];
                    if (sm != "importance" && sm != "uniform") {
                        fail(path + "/sampling",
                             "expected \"importance\" or \"uniform\", found " + sm.dump());
                    }
                    l.uniformSampling = sm == "uniform";
                }
            }
        } else {
            fail(path + "/type", "unknown light type \"" + type + "\"" +
                                     didYouMean(type, {"sun", "point", "sphere", "dome"}));
        }
        warnLightKeys(j, type, path, warn);
        // A bright colour times a large intensity (or over a tiny sun or sphere) can overflow.
        if (!isFinite(l.color))
            fail(path + "/intensity", "the light's radiance is beyond single precision");
        out.push_back(l);
    }
    if (out.empty()) {
        // A soft sky and a key sun from the upper left of the default
        // camera, so form reads; a grey 0.8 facing the sun comes to about
        // 0.65, below the tone curve's shoulder, and about 0.17 in shadow.
        Light sky;
        sky.kind = Light::Kind::Dome;
        sky.color = {0.18f, 0.22f, 0.28f};
        Light sun;
        sun.kind = Light::Kind::Sun;
        sun.direction = Normalize(Point3(-0.35f, -0.6f, 0.72f));
        sun.cosMax = std::cos(0.5f * 0.53f * kPi / 180.0f);
        sun.color = Point3(1.0f, 0.95f, 0.87f) * (2.0f / (2.0f * kPi * (1.0f - sun.cosMax)));
        out = {sky, sun};
    }
    return out;
}

}  // namespace

Material parseMaterial(const json& j, const std::string& name, AssetCache& assets,
                       const WarnFn& warn) {
    return materialFrom(j, name, &assets, warn);
}

std::vector<Light> parseLights(const json& lights, AssetCache& assets, const WarnFn& warn) {
    return lightsFrom(lights, &assets, warn);
}

Camera makeCamera(const nlohmann::json& j, const Box3& bounds, int width, int height,
                  const WarnFn& warn) {
    Point3 position, target, up{0, 0, 1};
    float fovDeg = 45.0f;
    if (!j.is_null()) {
        if (!j.is_object()) fail("/camera", "expected an object");
        position = vec3(j, "position", {0, -10, 0}, "/camera");
        target = vec3(j, "target", {0, 0, 0}, "/camera");
        up = vec3(j, "up", up, "/camera");
        fovDeg = number(j, "fov", fovDeg, "/camera", 0.1f, 179.0f);
        warnUnknownKeys(j, "/camera", {"position", "target", "up", "fov"}, warn);
    } else {
        // A three-quarter view from the front left and above, at the nearest
        // distance that keeps every corner of the bounds inside the frame
        // with a small margin: a box fits far tighter than its sphere.
        const Box3 b = bounds.IsEmpty() ? Box3({-1, -1, -1}, {1, 1, 1}) : bounds;
        target = b.Center();
        const Point3 back = Normalize(Point3(0.55f, -0.75f, 0.45f));  // target to camera
        const Point3 right = Normalize(CrossProd(-back, up));
        const Point3 viewUp = CrossProd(right, -back);
        const float tanX = std::tan(0.5f * fovDeg * kPi / 180.0f);
        const float tanY = tanX * float(height) / float(width);
        constexpr float kMargin = 1.08f;
        auto corner = [&](int i) {
            return Point3{i & 1 ? b.pmax.x : b.pmin.x, i & 2 ? b.pmax.y : b.pmin.y,
                          i & 4 ? b.pmax.z : b.pmin.z};
        };
        // The nearest distance from target at which every corner is in view.
        auto fit = [&] {
            float dist = 0.0f, nearest = 0.0f;
            for (int i = 0; i < 8; ++i) {
                const Point3 d = corner(i) - target;
                const float along = DotProd(d, back);
                const float x = std::fabs(DotProd(d, right)) * kMargin / tanX;
                const float y = std::fabs(DotProd(d, viewUp)) * kMargin / tanY;
                dist = std::max(dist, along + std::max(x, y));
                nearest = std::max(nearest, along);
            }
            // Outside the box, whatever its shape.
            return std::max({dist, 1.05f * nearest, 1e-3f});
        };
        // Perspective draws the near corners larger: centre the projected
        // extent by moving the target across the view, then fit again.
        float dist = fit();
        for (int pass = 0; pass < 4; ++pass) {
            float lo[2] = {1e30f, 1e30f}, hi[2] = {-1e30f, -1e30f};
            for (int i = 0; i < 8; ++i) {
                const Point3 d = corner(i) - target;
                const float depth = std::max(dist - DotProd(d, back), 1e-6f);
                const float sx = DotProd(d, right) / depth, sy = DotProd(d, viewUp) / depth;
                lo[0] = std::min(lo[0], sx), hi[0] = std::max(hi[0], sx);
                lo[1] = std::min(lo[1], sy), hi[1] = std::max(hi[1], sy);
            }
            target += (right * (lo[0] + hi[0]) + viewUp * (lo[1] + hi[1])) * (0.5f * dist);
            dist = fit();
        }
        position = target + back * dist;
    }
    Camera c;
    c.position = position;
    c.forward = Normalize(target - position);
    c.right = Normalize(CrossProd(c.forward, up));
    // Not above zero also catches NaN, from points so far apart that their
    // difference overflows.
    if (!(LengthSquared(c.forward) > 0.0f) || !(LengthSquared(c.right) > 0.0f)) {
        fail("/camera", "position, target and up do not define a view");
    }
    c.up = CrossProd(c.right, c.forward);
    c.tanHalfFovX = std::tan(0.5f * fovDeg * kPi / 180.0f);
    c.aspect = float(height) / float(width);
    return c;
}

// Declared in renderer.h; it lives beside the parsers it runs.
void checkRenderData(const Scene& scene, const WarnFn& warn) {
    RenderSettings settings;
    try {
        settings = RenderSettings::fromJson(scene.render, warn);
    } catch (const RenderError& e) {
        throw InputError(e.what());
    }
    if (scene.materials.is_object()) {
        for (const auto& [name, j] : scene.materials.items()) materialFrom(j, name, nullptr, warn);
    }
    lightsFrom(scene.lights, nullptr, warn);
    makeCamera(scene.camera, Box3(), settings.width, settings.height, warn);
}

}  // namespace mq::tracer
