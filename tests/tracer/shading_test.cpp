// The BSDF against Monte Carlo oracles: the white furnace, reciprocity, and
// a chi-square test of sample() against pdf().
#include "tracer/shading.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace mq::tracer {
namespace {

Material material(float metallic, float roughness) {
    Material m;
    m.baseColor = {1, 1, 1};
    m.metallic = metallic;
    m.roughness = roughness;
    return m;
}

Point3 outgoing(float cosO) { return {std::sqrt(1.0f - cosO * cosO), 0.0f, cosO}; }

// Albedo at wo estimated with the BSDF's own sampling, and independently with
// uniform hemisphere directions (usable only for broad lobes).
float sampledAlbedo(const Bsdf& b, const Point3& wo, int n, Rng& rng) {
    double sum = 0.0;
    for (int i = 0; i < n; ++i) {
        Point3 wi;
        float pdf = 0.0f;
        if (b.sample(wo, rng.uniform(), rng.uniform(), rng.uniform(), wi, pdf))
            sum += b.eval(wo, wi).x * wi.z / pdf;
    }
    return float(sum / n);
}

float uniformAlbedo(const Bsdf& b, const Point3& wo, int n, Rng& rng) {
    double sum = 0.0;
    for (int i = 0; i < n; ++i) {
        Point3 wi = sampleUniformSphere(rng.uniform(), rng.uniform());
        wi.z = std::fabs(wi.z);
        sum += b.eval(wo, wi).x * wi.z * 2.0f * kPi;
    }
    return float(sum / n);
}

TEST(TracerBsdf, WhiteFurnaceConservesEnergyAndIsReciprocal) {
    Rng rng(11);
    for (float rough : {0.05f, 0.2f, 0.5f, 0.8f, 1.0f}) {
        for (float metal : {0.0f, 0.5f, 1.0f}) {
            const Bsdf b(material(metal, rough), {1, 1, 1});
            for (float cosO : {1.0f, 0.7f, 0.4f, 0.15f}) {
                SCOPED_TRACE(testing::Message()
                             << "roughness " << rough << " metallic " << metal << " cos " << cosO);
                const Point3 wo = outgoing(cosO);
                const float albedo = sampledAlbedo(b, wo, 40000, rng);
                // White materials lose nothing: the base gets what the coat
                // does not reflect, and metals what single scattering loses.
                EXPECT_LE(albedo, 1.01f);
                EXPECT_GT(albedo, 0.98f);
                if (rough >= 0.5f) {
                    EXPECT_NEAR(uniformAlbedo(b, wo, 100000, rng), albedo, 0.02f);
                }
            }
            for (int i = 0; i < 200; ++i) {
                const Point3 wo = sampleCosineHemisphere(rng.uniform(), rng.uniform());
                const Point3 wi = sampleCosineHemisphere(rng.uniform(), rng.uniform());
                const float fwd = b.eval(wo, wi).x, back = b.eval(wi, wo).x;
                ASSERT_NEAR(fwd, back, 1e-4f * (1.0f + fwd));
            }
        }
    }
}

// Pearson's chi-square over equal solid-angle bins in (cos theta, phi),
// expected counts from pdf() integrated over each bin; bins expecting under
// five samples are pooled.
TEST(TracerBsdf, SampledDirectionsFollowThePdf) {
    constexpr int kTheta = 16, kPhi = 32, kSub = 6, kSamples = 400000;
    const struct {
        float metallic, roughness, cosO;
    } cases[] = {{0.0f, 0.3f, 0.6f},
                 {0.0f, 0.7f, 0.2f},
                 {1.0f, 0.3f, 0.9f},
                 {1.0f, 0.8f, 0.35f},
                 {0.5f, 0.5f, 0.5f}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "metallic " << c.metallic << " roughness " << c.roughness
                                        << " cos " << c.cosO);
        const Bsdf b(material(c.metallic, c.roughness), {0.9f, 0.6f, 0.3f});
        const Point3 wo = outgoing(c.cosO);
        auto bin = [&](const Point3& w) {
            const int t = std::min(int(w.z * kTheta), kTheta - 1);
            float phi = std::atan2(w.y, w.x);
            if (phi < 0.0f) phi += 2.0f * kPi;
            return t * kPhi + std::min(int(phi / (2.0f * kPi) * kPhi), kPhi - 1);
        };
        std::vector<double> observed(kTheta * kPhi, 0.0), expected(kTheta * kPhi, 0.0);
        Rng rng(5);
        int drawn = 0;
        for (int i = 0; i < kSamples; ++i) {
            Point3 wi;
            float pdf = 0.0f;
            if (!b.sample(wo, rng.uniform(), rng.uniform(), rng.uniform(), wi, pdf)) continue;
            ++drawn;
            ASSERT_NEAR(pdf, b.pdf(wo, wi), 1e-3f * pdf);
            observed[size_t(bin(wi))] += 1.0;
        }
        // Midpoint rule; a bin's solid angle is (1 / kTheta) (2 pi / kPhi).
        double total = 0.0;
        const double cell = 2.0 * kPi / (double(kTheta) * kPhi * kSub * kSub);
        for (int t = 0; t < kTheta * kSub; ++t) {
            for (int p = 0; p < kPhi * kSub; ++p) {
                const float z = (float(t) + 0.5f) / float(kTheta * kSub);
                const float phi = (float(p) + 0.5f) / float(kPhi * kSub) * 2.0f * kPi;
                const float r = std::sqrt(1.0f - z * z);
                const Point3 wi{r * std::cos(phi), r * std::sin(phi), z};
                const double mass = b.pdf(wo, wi) * cell;
                expected[size_t(bin(wi))] += mass * kSamples;
                total += mass;
            }
        }
        // Reflections below the horizon are dropped, by both.
        EXPECT_NEAR(total, double(drawn) / kSamples, 0.01);
        double chi2 = 0.0, pooledObs = 0.0, pooledExp = 0.0;
        int dof = 0;
        for (size_t i = 0; i < observed.size(); ++i) {
            if (expected[i] < 5.0) {
                pooledObs += observed[i];
                pooledExp += expected[i];
                continue;
            }
            chi2 += (observed[i] - expected[i]) * (observed[i] - expected[i]) / expected[i];
            ++dof;
        }
        if (pooledExp >= 5.0) {
            chi2 += (pooledObs - pooledExp) * (pooledObs - pooledExp) / pooledExp;
            ++dof;
        }
        // Normal approximation of the 99.99th percentile, with slack for the
        // quadrature of the expected counts.
        EXPECT_LT(chi2, dof + 5.0 * std::sqrt(2.0 * dof)) << dof << " bins";
    }
}

}  // namespace
}  // namespace mq::tracer
