// Pattern meshes built from simple solids (tori, swept tubes, domed shells,
// bevelled boxes). Each solid is laid out over one period plus its
// neighbours' copies, then clipped to the tile box, which makes the tile
// exactly periodic: what leaves at +X is what the copy at -X brings in.
#include "pattern_gen.h"

#include <array>
#include <cmath>
#include <cstdio>
#include <map>
#include <stdexcept>
#include <tuple>

namespace mq::patterns {

namespace {

constexpr float kPi = 3.14159265358979f;

struct Corner {
    Point3 p, n, uv;
};
using Tri = std::array<Corner, 3>;
using Soup = std::vector<Tri>;

Corner lerp(const Corner& a, const Corner& b, float t) {
    return {a.p + (b.p - a.p) * t, Normalize(a.n + (b.n - a.n) * t), a.uv + (b.uv - a.uv) * t};
}

// Keep the part of a convex polygon where sign * (p[axis] - limit) >= 0.
// Points on the plane get the limit exactly, so both sides of a seam agree.
std::vector<Corner> clipPolygon(const std::vector<Corner>& poly, int axis, float limit,
                                float sign) {
    std::vector<Corner> out;
    const size_t n = poly.size();
    for (size_t i = 0; i < n; ++i) {
        const Corner& a = poly[i];
        const Corner& b = poly[(i + 1) % n];
        const float da = sign * (a.p[axis] - limit), db = sign * (b.p[axis] - limit);
        if (da >= 0.0f) out.push_back(a);
        if ((da >= 0.0f) != (db >= 0.0f)) {
            Corner c = lerp(a, b, da / (da - db));
            c.p[axis] = limit;
            out.push_back(c);
        }
    }
    return out;
}

// Copies of soup shifted by whole periods around the tile, clipped to it.
Soup wrapAndClip(const Soup& soup, const Box3& tile) {
    const float tx = tile.pmax.x - tile.pmin.x, ty = tile.pmax.y - tile.pmin.y;
    Soup out;
    for (int j = -1; j <= 1; ++j) {
        for (int i = -1; i <= 1; ++i) {
            const Point3 shift(float(i) * tx, float(j) * ty, 0.0f);
            for (const Tri& t : soup) {
                std::vector<Corner> poly(t.begin(), t.end());
                for (Corner& c : poly) {
                    c.p += shift;
                    // Points a rounding away from an edge go onto it, so both
                    // sides of the seam see the same vertex.
                    for (int a = 0; a < 2; ++a) {
                        for (float edge : {tile.pmin[a], tile.pmax[a]})
                            if (std::abs(c.p[a] - edge) < 1e-5f * (tx + ty)) c.p[a] = edge;
                    }
                }
                poly = clipPolygon(poly, 0, tile.pmin.x, 1.0f);
                if (poly.size() >= 3) poly = clipPolygon(poly, 0, tile.pmax.x, -1.0f);
                if (poly.size() >= 3) poly = clipPolygon(poly, 1, tile.pmin.y, 1.0f);
                if (poly.size() >= 3) poly = clipPolygon(poly, 1, tile.pmax.y, -1.0f);
                for (size_t k = 2; k < poly.size(); ++k) {
                    const Tri f{poly[0], poly[k - 1], poly[k]};
                    // Slivers left by clipping at a vertex carry no area.
                    if (LengthSquared(CrossProd(f[1].p - f[0].p, f[2].p - f[0].p)) > 1e-12f)
                        out.push_back(f);
                }
            }
        }
    }
    return out;
}

struct PointLess {
    bool operator()(const Point3& a, const Point3& b) const {
        return std::tie(a.x, a.y, a.z) < std::tie(b.x, b.y, b.z);
    }
};

// Indexed mesh with positions, UVs and normals each welded where equal.
Mesh toMesh(const Soup& soup) {
    Mesh m;
    m.setMapSupport(1);
    std::map<Point3, uint32_t, PointLess> posIndex, uvIndex, nIndex;
    std::vector<Point3> normals;
    std::vector<std::array<int, 3>> normalFaces;
    auto index = [](std::map<Point3, uint32_t, PointLess>& idx, std::vector<Point3>& pool,
                    const Point3& p) {
        auto [it, added] = idx.emplace(p, uint32_t(pool.size()));
        if (added) pool.push_back(p);
        return it->second;
    };
    for (const Tri& t : soup) {
        Face f;
        TVFace tf;
        std::array<int, 3> nf{};
        for (int k = 0; k < 3; ++k) {
            f.v[k] = index(posIndex, m.verts, t[k].p);
            tf.t[k] = index(uvIndex, m.Map(1).verts, t[k].uv);
            nf[k] = int(index(nIndex, normals, t[k].n));
        }
        f.smGroup = 1;
        m.faces.push_back(f);
        m.Map(1).faces.push_back(tf);
        normalFaces.push_back(nf);
    }
    m.SpecifyNormals();
    m.GetSpecifiedNormals()->SetParent(&m);
    m.GetSpecifiedNormals()->SetNormals(std::move(normals), std::move(normalFaces));
    return m;
}

// Quad a-b-c-d, counter-clockwise seen from outside.
void quad(Soup& s, const Corner& a, const Corner& b, const Corner& c, const Corner& d) {
    s.push_back({a, b, c});
    s.push_back({a, c, d});
}

// A grid of corners (rows x cols, wrapping as told) turned into quads.
void gridToSoup(Soup& s, const std::vector<Corner>& g, int rows, int cols) {
    for (int r = 0; r + 1 < rows; ++r) {
        for (int c = 0; c + 1 < cols; ++c) {
            quad(s, g[size_t(r * cols + c)], g[size_t(r * cols + c + 1)],
                 g[size_t((r + 1) * cols + c + 1)], g[size_t((r + 1) * cols + c)]);
        }
    }
}

// A torus in the XY plane, leaned by tilt radians about Y, centred at centre.
void torus(Soup& s, Point3 centre, float major, float minor, float tilt, int segs, int sides) {
    const float ct = std::cos(tilt), st = std::sin(tilt);
    auto lean = [&](const Point3& v) {
        return Point3(v.x * ct + v.z * st, v.y, -v.x * st + v.z * ct);
    };
    std::vector<Corner> g;
    // Closing row and column repeat the first so UVs run 0..1 without a jump.
    for (int i = 0; i <= segs; ++i) {
        const float u = 2.0f * kPi * float(i % segs) / float(segs);
        for (int j = 0; j <= sides; ++j) {
            const float v = 2.0f * kPi * float(j % sides) / float(sides);
            const Point3 n(std::cos(v) * std::cos(u), std::cos(v) * std::sin(u), std::sin(v));
            const Point3 p((major + minor * std::cos(v)) * std::cos(u),
                           (major + minor * std::cos(v)) * std::sin(u), minor * std::sin(v));
            g.push_back({lean(p) + centre,
                         lean(n),
                         {float(i) / float(segs), float(j) / float(sides), 0.0f}});
        }
    }
    Soup part;
    gridToSoup(part, g, segs + 1, sides + 1);
    // The grid runs around the ring, then around the wire: turn faces outward.
    for (Tri& tr : part) std::swap(tr[1], tr[2]);
    s.insert(s.end(), part.begin(), part.end());
}

Box3 tileBox(const Soup& soup, float size) {
    Box3 b({0.0f, 0.0f, 1e30f}, {size, size, -1e30f});
    for (const Tri& t : soup) {
        for (const Corner& c : t) {
            b.pmin.z = std::min(b.pmin.z, c.p.z);
            b.pmax.z = std::max(b.pmax.z, c.p.z);
        }
    }
    return b;
}

Pattern finish(std::string name, const Soup& laidOut, float size) {
    Box3 tile({0.0f, 0.0f, 0.0f}, {size, size, 0.0f});
    const Soup clipped = wrapAndClip(laidOut, tile);
    tile = tileBox(clipped, size);
    return {std::move(name), toMesh(clipped), tile};
}

}  // namespace

Pattern chainMail(float tileSize, int ringSegments, int wireSides) {
    const float t = tileSize;
    const float major = 0.32f * t, minor = 0.06f * t, tilt = 0.5f;
    // Lowest point of a leaned ring sits on z = 0.
    const float z = (major + minor) * std::sin(tilt) + minor * std::cos(tilt);
    Soup s;
    // Two rows of two rings; the second row leans the other way, half a ring along.
    for (int k = 0; k < 2; ++k) {
        torus(s, {0.25f * t + 0.5f * t * float(k), 0.25f * t, z}, major, minor, tilt, ringSegments,
              wireSides);
        torus(s, {0.5f * t * float(k), 0.75f * t, z}, major, minor, -tilt, ringSegments, wireSides);
    }
    return finish("chainmail", s, t);
}

Pattern basketWeave(float tileSize, int segments, int sides) {
    const float t = tileSize, w = 0.5f * t;
    const float halfWidth = 0.42f * w, halfThick = 0.05f * t, amp = 1.1f * halfThick;
    const float e = 0.55f;  // superellipse exponent: a flat strip with rounded edges
    Soup s;
    // Strip along X (axis 0) or Y (axis 1) at offset `at`, height amp * sign * cos(...).
    auto strip = [&](int axis, float at, float phase, float sign) {
        std::vector<Corner> g;
        for (int i = 0; i <= segments; ++i) {
            const float a = t * float(i) / float(segments);
            const float arg = kPi * (a - 0.5f * w) / w + phase;
            const float zc = halfThick + amp + sign * amp * std::cos(arg);
            const float slope = -sign * amp * std::sin(arg) * kPi / w;
            for (int j = 0; j <= sides; ++j) {
                const float v = 2.0f * kPi * float(j % sides) / float(sides);
                const float c = std::cos(v), sn = std::sin(v);
                const float across = halfWidth * std::copysign(std::pow(std::abs(c), e), c);
                const float up = halfThick * std::copysign(std::pow(std::abs(sn), e), sn);
                const float nAcross = std::copysign(std::pow(std::abs(c), 2.0f - e), c) / halfWidth;
                const float nUp = std::copysign(std::pow(std::abs(sn), 2.0f - e), sn) / halfThick;
                Point3 p, n;
                p[axis] = a;
                p[1 - axis] = at + across;
                p.z = zc + up;
                // Tilt the section normal to stay square to the sloping strip.
                n[axis] = -nUp * slope;
                n[1 - axis] = nAcross;
                n.z = nUp;
                const float uvAlong = float(i) / float(segments);
                g.push_back({p, Normalize(n), {uvAlong, float(j) / float(sides), 0.0f}});
            }
        }
        Soup part;
        gridToSoup(part, g, segments + 1, sides + 1);
        // Along Y the grid's handedness flips; turn those faces outward.
        if (axis == 1) {
            for (Tri& tr : part) std::swap(tr[1], tr[2]);
        }
        s.insert(s.end(), part.begin(), part.end());
    };
    for (int k = 0; k < 2; ++k) {
        strip(0, 0.5f * w + float(k) * w, float(k) * kPi, 1.0f);
        strip(1, 0.5f * w + float(k) * w, float(k) * kPi, -1.0f);
    }
    return finish("weave", s, t);
}

Pattern scales(float tileSize, int rings, int segments) {
    const float t = tileSize;
    const float radius = 0.32f * t, rise = 0.14f * t, dome = 0.06f * t, thick = 0.025f * t;
    // Height of the top surface at offset (dx, dy) from a scale's centre: it
    // rises towards the free edge at -Y so each row lies on the one below.
    auto top = [&](float dx, float dy) {
        const float d2 = (dx * dx + dy * dy) / (radius * radius);
        return thick + rise * (radius - dy) / (2.0f * radius) + dome * (1.0f - d2);
    };
    auto topNormal = [&](float dx, float dy) {
        const float gx = -2.0f * dome * dx / (radius * radius);
        const float gy = -rise / (2.0f * radius) - 2.0f * dome * dy / (radius * radius);
        return Normalize(Point3(-gx, -gy, 1.0f));
    };
    Soup s;
    auto shell = [&](float cx, float cy) {
        std::vector<Corner> topGrid, bottomGrid;
        for (int r = 0; r <= rings; ++r) {
            const float rr = radius * float(r) / float(rings);
            for (int k = 0; k <= segments; ++k) {
                const float a = 2.0f * kPi * float(k % segments) / float(segments);
                const float dx = rr * std::cos(a), dy = rr * std::sin(a);
                const Point3 uv(0.5f + 0.5f * dx / radius, 0.5f + 0.5f * dy / radius, 0.0f);
                const float z = top(dx, dy);
                topGrid.push_back({{cx + dx, cy + dy, z}, topNormal(dx, dy), uv});
                const Point3 nb = -topNormal(dx, dy);
                bottomGrid.push_back({{cx + dx, cy + dy, z - thick}, nb, uv});
            }
        }
        const int cols = segments + 1;
        Soup part;
        // The grid runs outward, then around: the top needs its faces turned up.
        gridToSoup(part, topGrid, rings + 1, cols);
        for (Tri& tr : part) std::swap(tr[1], tr[2]);
        Soup under;
        gridToSoup(under, bottomGrid, rings + 1, cols);
        part.insert(part.end(), under.begin(), under.end());
        // The rim joins the two surfaces, facing outward.
        for (int k = 0; k < segments; ++k) {
            const float a0 = 2.0f * kPi * float(k) / float(segments);
            const float a1 = 2.0f * kPi * float(k + 1) / float(segments);
            const Corner& t0 = topGrid[size_t(rings * cols + k)];
            const Corner& t1 = topGrid[size_t(rings * cols + k + 1)];
            const Corner& b0 = bottomGrid[size_t(rings * cols + k)];
            const Corner& b1 = bottomGrid[size_t(rings * cols + k + 1)];
            const Point3 n0(std::cos(a0), std::sin(a0), 0.0f), n1(std::cos(a1), std::sin(a1), 0.0f);
            quad(part, {b0.p, n0, b0.uv}, {b1.p, n1, b1.uv}, {t1.p, n1, t1.uv}, {t0.p, n0, t0.uv});
        }
        s.insert(s.end(), part.begin(), part.end());
    };
    // Four staggered rows of two; later rows sit higher where they overlap.
    for (int row = 0; row < 4; ++row) {
        const float y = 0.25f * t * float(row);
        const float offset = (row % 2) ? 0.25f * t : 0.0f;
        for (int k = 0; k < 2; ++k) shell(offset + 0.5f * t * float(k), y);
    }
    return finish("scales", s, t);
}

Pattern pavers(float tileSize) {
    const float t = tileSize;
    const float gap = 0.03f * t, height = 0.12f * t, bevel = 0.025f * t;
    Soup s;
    auto brick = [&](float cx, float cy, float lx, float ly) {
        const float x0 = cx - 0.5f * lx, x1 = cx + 0.5f * lx;
        const float y0 = cy - 0.5f * ly, y1 = cy + 0.5f * ly;
        auto c = [&](float x, float y, float z, Point3 n) {
            return Corner{{x, y, z}, Normalize(n), {x / t, y / t, 0.0f}};
        };
        const float zs = height - bevel, zt = height;
        const float ix0 = x0 + bevel, ix1 = x1 - bevel, iy0 = y0 + bevel, iy1 = y1 - bevel;
        // Top, chamfers, then sides; no bottom, it lies on the surface.
        const Point3 up(0, 0, 1);
        quad(s, c(ix0, iy0, zt, up), c(ix1, iy0, zt, up), c(ix1, iy1, zt, up), c(ix0, iy1, zt, up));
        const Point3 cmx(-1, 0, 1), cpx(1, 0, 1), cmy(0, -1, 1), cpy(0, 1, 1);
        quad(s, c(x0, y0, zs, cmy), c(x1, y0, zs, cmy), c(ix1, iy0, zt, cmy), c(ix0, iy0, zt, cmy));
        quad(s, c(x1, y0, zs, cpx), c(x1, y1, zs, cpx), c(ix1, iy1, zt, cpx), c(ix1, iy0, zt, cpx));
        quad(s, c(x1, y1, zs, cpy), c(x0, y1, zs, cpy), c(ix0, iy1, zt, cpy), c(ix1, iy1, zt, cpy));
        quad(s, c(x0, y1, zs, cmx), c(x0, y0, zs, cmx), c(ix0, iy0, zt, cmx), c(ix0, iy1, zt, cmx));
        const Point3 mx(-1, 0, 0), px(1, 0, 0), my(0, -1, 0), py(0, 1, 0);
        quad(s, c(x0, y0, 0, my), c(x1, y0, 0, my), c(x1, y0, zs, my), c(x0, y0, zs, my));
        quad(s, c(x1, y0, 0, px), c(x1, y1, 0, px), c(x1, y1, zs, px), c(x1, y0, zs, px));
        quad(s, c(x1, y1, 0, py), c(x0, y1, 0, py), c(x0, y1, zs, py), c(x1, y1, zs, py));
        quad(s, c(x0, y1, 0, mx), c(x0, y0, 0, mx), c(x0, y0, zs, mx), c(x0, y1, zs, mx));
    };
    // Running bond: bricks twice as long as wide, alternate rows half a brick along.
    const float lx = 0.5f * t, ly = 0.25f * t;
    for (int row = 0; row < 4; ++row) {
        const float cy = ly * (float(row) + 0.5f);
        const float offset = (row % 2) ? 0.5f * lx : 0.0f;
        for (int k = 0; k < 2; ++k) brick(offset + lx * (float(k) + 0.5f), cy, lx - gap, ly - gap);
    }
    return finish("pavers", s, t);
}

std::vector<Pattern> allPatterns() {
    std::vector<Pattern> out;
    out.push_back(chainMail());
    out.push_back(basketWeave());
    out.push_back(scales());
    out.push_back(pavers());
    return out;
}

void writeObj(const Pattern& pattern, const std::filesystem::path& file) {
    const Mesh& m = pattern.mesh;
    const MeshNormalSpec* nspec = m.GetSpecifiedNormals();
    if (!nspec) throw std::runtime_error(file.string() + ": pattern has no normals");
    std::FILE* f = std::fopen(file.string().c_str(), "w");
    if (!f) throw std::runtime_error(file.string() + ": cannot open for writing");
    // Z-up (x, y, z) is written Y-up as (x, z, -y).
    std::fprintf(f, "# Mosaiq pattern \"%s\", generated by mosaiq-patterns.\n",
                 pattern.name.c_str());
    std::fprintf(f, "# Tile (Z-up): x %g..%g, y %g..%g, z %g..%g; written Y-up.\n",
                 pattern.tile.pmin.x, pattern.tile.pmax.x, pattern.tile.pmin.y, pattern.tile.pmax.y,
                 pattern.tile.pmin.z, pattern.tile.pmax.z);
    std::fprintf(f, "o %s\n", pattern.name.c_str());
    for (const Point3& p : m.verts) std::fprintf(f, "v %.7g %.7g %.7g\n", p.x, p.z, -p.y);
    for (const Point3& t : m.Map(1).verts) std::fprintf(f, "vt %.7g %.7g\n", t.x, t.y);
    for (int i = 0; i < nspec->GetNumNormals(); ++i) {
        const Point3& n = nspec->Normal(i);
        std::fprintf(f, "vn %.6g %.6g %.6g\n", n.x, n.z, -n.y);
    }
    for (int i = 0; i < m.getNumFaces(); ++i) {
        const Face& fc = m.faces[size_t(i)];
        const TVFace& tf = m.Map(1).faces[size_t(i)];
        std::fprintf(f, "f");
        for (int k = 0; k < 3; ++k) {
            std::fprintf(f, " %u/%u/%d", fc.v[k] + 1, tf.t[k] + 1, nspec->GetNormalIndex(i, k) + 1);
        }
        std::fprintf(f, "\n");
    }
    const bool ok = std::ferror(f) == 0;
    if (std::fclose(f) != 0 || !ok) throw std::runtime_error(file.string() + ": write failed");
}

}  // namespace mq::patterns
