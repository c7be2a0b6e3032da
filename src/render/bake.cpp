// Baking. Each piece's tetrahedron is carried into tile space; every segment
// cell under it shows the segment the walk picks for that cell. The tile's
// triangles, clipped once per segment to the segment box, are shifted into
// the cell as the walk shifts its rays, clipped to the tetrahedron
// (Sutherland-Hodgman), fanned into triangles and carried to world space.
// A first pass only counts, so an oversized bake is refused before anything
// is allocated, and gives every piece its place in the output so that the
// second pass can fill pieces on any thread in a fixed order.
#include "render/bake.h"

#include "engine/segment_walk.h"
#include "host/check.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstddef>
#include <functional>
#include <limits>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <vector>

namespace mq {

namespace {

constexpr uint32_t kNoCorner = 0xffffffffu;
constexpr uint32_t kNoIndex = 0xffffffffu;
// A convex polygon gains at most one corner per plane (a triangle cut by ten
// planes has 13); rounding can make a sliver look otherwise, so there is room
// to spare, and corners beyond it are dropped.
constexpr int kMaxCorners = 32;
// Pieces handed to a worker at a time.
constexpr int32_t kPieceBlock = 32;
// Polygons a bin of a segment holds on average.
constexpr size_t kPolygonsPerBin = 4;
// A piece over more segment cells than this is refused rather than visited
// cell by cell for hours; no sensible tiling comes near it.
constexpr int64_t kMaxCellsPerPiece = int64_t(1) << 26;
// One mesh indexes its vertices and normals with int.
constexpr int64_t kMaxMeshElements = std::numeric_limits<int32_t>::max();

struct ClipVertex {
    Point3 p;                         // tile space
    float beta = 0.0f, gamma = 0.0f;  // weights of the face's corners 1 and 2
    uint32_t corner = kNoCorner;      // shared tile corner; kNoCorner for a cut point
};

struct Polygon {
    int count = 0;
    ClipVertex v[kMaxCorners];
};

// The part of in where distance(p) <= 0, in out; in itself when it lies
// wholly inside. A NaN distance counts as outside. A cut point on an
// axis-aligned plane takes the plane's coordinate exactly (snapAxis >= 0), so
// that neighbouring cells meet on one line.
template <class Distance>
const Polygon* clip(const Polygon* in, Polygon* out, const Distance& distance, int snapAxis = -1,
                    float snapValue = 0.0f) {
    float d[kMaxCorners];
    bool allInside = true;
    for (int i = 0; i < in->count; ++i) {
        d[i] = distance(in->v[i].p);
        allInside = allInside && d[i] <= 0.0f;
    }
    if (allInside) return in;
    out->count = 0;
    for (int i = 0; i < in->count; ++i) {
        const int j = i + 1 == in->count ? 0 : i + 1;
        const ClipVertex& a = in->v[i];
        const ClipVertex& b = in->v[j];
        if (d[i] <= 0.0f && out->count < kMaxCorners) out->v[out->count++] = a;
        if (((d[i] < 0.0f && d[j] > 0.0f) || (d[i] > 0.0f && d[j] < 0.0f)) &&
            out->count < kMaxCorners) {
            const float t = d[i] / (d[i] - d[j]);
            ClipVertex& c = out->v[out->count++];
            c.p = a.p + (b.p - a.p) * t;
            if (snapAxis >= 0) c.p[snapAxis] = snapValue;
            c.beta = a.beta + (b.beta - a.beta) * t;
            c.gamma = a.gamma + (b.gamma - a.gamma) * t;
            c.corner = kNoCorner;
        }
    }
    return out;
}

// Cell coordinates wrap as the walk's do.
int32_t wrapAdd(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}
int32_t wrapSub(int32_t a, int32_t b) {
    return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

// floor(x / size) as a cell coordinate, saturated to the int32 range.
int32_t floorCell(double x, double size) {
    const double q = std::floor(x / size);
    if (!(q > -2147483648.0)) return std::numeric_limits<int32_t>::min();
    if (q >= 2147483647.0) return std::numeric_limits<int32_t>::max();
    return static_cast<int32_t>(q);
}

// One tile triangle clipped to a segment box.
struct SegmentPolygon {
    int32_t face = 0;
    uint32_t first = 0;  // into Segment::vertices
    int32_t count = 0;
    Point3 lo, hi;               // bounds, tile space
    int32_t binU = 0, binV = 0;  // the first bin it lies in
};

// What one segment of the tile shows: its triangles clipped to its box, and
// those binned over the box's XY extent so that a small piece only looks at
// the polygons near it.
struct Segment {
    Box3 box;
    std::vector<SegmentPolygon> polygons;
    std::vector<ClipVertex> vertices;
    int32_t bins = 1;                // per axis
    std::vector<uint32_t> binStart;  // bins * bins + 1 offsets into binPolygons
    std::vector<uint32_t> binPolygons;

    int32_t binOf(float x, int axis) const {
        const float extent = box.pmax[axis] - box.pmin[axis];
        if (!(extent > 0.0f)) return 0;
        const float b = (x - box.pmin[axis]) / extent * float(bins);
        if (!(b > 0.0f)) return 0;  // also NaN
        return std::min(bins - 1, static_cast<int32_t>(b));
    }
};

// Index of p in pool, or kNoIndex for a stand-in that lives elsewhere.
uint32_t indexIn(const Point3* p, const std::vector<Point3>& pool) {
    const std::less<const Point3*> less;
    if (pool.empty() || less(p, pool.data()) || !less(p, pool.data() + pool.size()))
        return kNoIndex;
    return static_cast<uint32_t>(p - pool.data());
}

struct CornerKey {
    uint32_t vertex, normal, uvw;
    bool operator==(const CornerKey&) const = default;
};
struct CornerKeyHash {
    size_t operator()(const CornerKey& k) const {
        uint64_t h = k.vertex;
        h = h * 0x9E3779B97F4A7C15ull ^ k.normal;
        h = h * 0x9E3779B97F4A7C15ull ^ k.uvw;
        return static_cast<size_t>(h ^ (h >> 31));
    }
};

// A piece as the bake sees it: its tetrahedron in tile space.
struct PieceFrame {
    Point3 corners[4];
    // Face i (opposite corner i): a point on it and a normal pointing out.
    Point3 planePoint[4], planeNormal[4];
    Point3 lo, hi;
    bool mirrored = false;  // tileToWorld turns handedness: triangles are wound the other way
};

bool pieceFrame(const MosaiqPrimitive& piece, PieceFrame& f) {
    for (int i = 0; i < 4; ++i) {
        f.corners[i] = piece.corners[i] * piece.worldToTile;
        if (!isFinite(f.corners[i])) return false;
    }
    for (int i = 0; i < 4; ++i) {
        const Point3& a = f.corners[(i + 1) % 4];
        const Point3& b = f.corners[(i + 2) % 4];
        const Point3& c = f.corners[(i + 3) % 4];
        Point3 n = CrossProd(b - a, c - a);
        const float side = DotProd(n, f.corners[i] - a);
        if (!(side != 0.0f) || !std::isfinite(side)) return false;  // flat: shows nothing
        f.planePoint[i] = a;
        f.planeNormal[i] = side > 0.0f ? -n : n;
    }
    f.lo = f.hi = f.corners[0];
    for (int i = 1; i < 4; ++i) {
        for (int a = 0; a < 3; ++a) {
            f.lo[a] = std::min(f.lo[a], f.corners[i][a]);
            f.hi[a] = std::max(f.hi[a], f.corners[i][a]);
        }
    }
    f.mirrored = piece.tileToWorld.Determinant() < 0.0f;
    return true;
}

// Where one piece's output goes. Null arrays: count only.
struct Output {
    Point3* verts = nullptr;
    Point3* normals = nullptr;
    Point3* uvws = nullptr;  // null when the tile has no UVs
    Face* faces = nullptr;
    TVFace* uvFaces = nullptr;
    std::array<int, 3>* normalFaces = nullptr;
    uint32_t vertexBase = 0;
};

struct PieceCounts {
    int64_t triangles = 0;
    int64_t vertices = 0;
    int64_t cells = 0;
    bool tooManyCells = false;  // over kMaxCellsPerPiece: nothing counted
};

class Baker {
public:
    explicit Baker(const PatternTile& tile) : tile_(tile) {
        if (tile.mapFaces[1].size() == size_t(tile.faceCount) && tile.faceCount > 0)
            uvFaces_ = &tile.mapFaces[1];
        numberCorners();
        buildSegments();
    }

    bool hasUvs() const { return uvFaces_ != nullptr; }

    // Per-thread scratch: which shared corner already has a vertex in the
    // current piece and cell.
    struct Scratch {
        std::vector<uint32_t> stamp, slot;
        uint32_t serial = 0;
    };
    void initScratch(Scratch& s) const {
        s.stamp.assign(cornerCount_, 0);
        s.slot.assign(cornerCount_, 0);
        s.serial = 0;
    }

    // Count (out null) or write one piece. Never allocates.
    PieceCounts bakePiece(const MosaiqPrimitive& source, Scratch& scratch,
                          const Output* out) const {
        PieceCounts counts;
        if (tile_.segmentCountU < 1 || tile_.segmentCountV < 1 || segments_.empty()) return counts;
        PieceFrame frame;
        if (!pieceFrame(source, frame)) return counts;
        MosaiqPrimitive piece = source;  // for its shading normals, against this tile
        piece.tile = &tile_;

        const Point3& size = tile_.segmentSize;
        if (!(size.x > 0.0f) || !(size.y > 0.0f)) return counts;  // no cells to walk either
        // A hair beyond the bounds, so that rounding never loses a cell.
        const double slackU = 1e-6 * double(size.x), slackV = 1e-6 * double(size.y);
        const int32_t u0 = floorCell(double(frame.lo.x) - slackU, size.x);
        const int32_t u1 = floorCell(double(frame.hi.x) + slackU, size.x);
        const int32_t v0 = floorCell(double(frame.lo.y) - slackV, size.y);
        const int32_t v1 = floorCell(double(frame.hi.y) + slackV, size.y);
        const int64_t cells = (int64_t(u1) - u0 + 1) * (int64_t(v1) - v0 + 1);
        if (cells > kMaxCellsPerPiece) {
            counts.cells = cells;
            counts.tooManyCells = true;
            return counts;
        }

        for (int64_t cv = v0; cv <= v1; ++cv) {
            for (int64_t cu = u0; cu <= u1; ++cu) {
                ++counts.cells;
                bakeCell(piece, frame, int32_t(cu), int32_t(cv), scratch, out, counts);
            }
        }
        return counts;
    }

private:
    // Shared corners: tile corners with the same vertex, normal and UV.
    void numberCorners() {
        cornerIds_.assign(size_t(tile_.faceCount) * 3, kNoCorner);
        std::unordered_map<CornerKey, uint32_t, CornerKeyHash> ids;
        for (int32_t f = 0; f < tile_.faceCount; ++f) {
            const PatternFace& face = tile_.faces[size_t(f)];
            for (int c = 0; c < 3; ++c) {
                const CornerKey key{
                    indexIn(face.vertex[c], tile_.vertices), indexIn(face.normal[c], tile_.normals),
                    uvFaces_ ? indexIn((*uvFaces_)[size_t(f)][c], tile_.mapVertices[1]) : kNoIndex};
                if (key.vertex == kNoIndex) continue;  // a stand-in corner is never shared
                const auto [it, added] = ids.try_emplace(key, uint32_t(ids.size()));
                cornerIds_[size_t(f) * 3 + size_t(c)] = it->second;
            }
        }
        cornerCount_ = uint32_t(ids.size());
    }

    // Every segment's triangles clipped to its box, as the walk clips its rays.
    void buildSegments() {
        if (tile_.segmentCountU < 1 || tile_.segmentCountV < 1) return;
        const Point3& size = tile_.segmentSize;
        segments_.resize(size_t(tile_.segmentCountU) * size_t(tile_.segmentCountV));
        for (int32_t sv = 0; sv < tile_.segmentCountV; ++sv) {
            for (int32_t su = 0; su < tile_.segmentCountU; ++su) {
                Segment& seg = segments_[size_t(sv) * size_t(tile_.segmentCountU) + size_t(su)];
                seg.box = Box3(size * Point3(float(su), float(sv), 0.0f),
                               size * Point3(float(su + 1), float(sv + 1), 1.0f));
                clipFacesToSegment(seg);
                binSegment(seg);
            }
        }
    }

    void clipFacesToSegment(Segment& seg) const {
        const Box3& box = seg.box;
        Polygon a, b;
        for (int32_t f = 0; f < tile_.faceCount; ++f) {
            const PatternFace& face = tile_.faces[size_t(f)];
            // A degenerate face is never hit.
            if (face.faceNormal == Point3(0.0f, 0.0f, 0.0f)) continue;
            bool apart = false;
            for (int axis = 0; axis < 3 && !apart; ++axis) {
                const float p0 = (*face.vertex[0])[axis], p1 = (*face.vertex[1])[axis],
                            p2 = (*face.vertex[2])[axis];
                apart = std::max({p0, p1, p2}) < box.pmin[axis] ||
                        std::min({p0, p1, p2}) > box.pmax[axis] || !std::isfinite(p0 + p1 + p2);
            }
            if (apart) continue;

            a.count = 3;
            for (int c = 0; c < 3; ++c) {
                a.v[c].p = *face.vertex[c];
                a.v[c].beta = c == 1 ? 1.0f : 0.0f;
                a.v[c].gamma = c == 2 ? 1.0f : 0.0f;
                a.v[c].corner = cornerIds_[size_t(f) * 3 + size_t(c)];
            }
            const Polygon* poly = &a;
            for (int axis = 0; axis < 3 && poly->count >= 3; ++axis) {
                const float lo = box.pmin[axis], hi = box.pmax[axis];
                Polygon* next = poly == &a ? &b : &a;
                poly = clip(
                    poly, next, [&](const Point3& p) { return lo - p[axis]; }, axis, lo);
                if (poly->count < 3) break;
                next = poly == &a ? &b : &a;
                poly = clip(
                    poly, next, [&](const Point3& p) { return p[axis] - hi; }, axis, hi);
            }
            if (poly->count < 3) continue;

            SegmentPolygon sp;
            sp.face = f;
            sp.first = uint32_t(seg.vertices.size());
            sp.count = poly->count;
            sp.lo = sp.hi = poly->v[0].p;
            for (int i = 0; i < poly->count; ++i) {
                seg.vertices.push_back(poly->v[i]);
                for (int axis = 0; axis < 3; ++axis) {
                    sp.lo[axis] = std::min(sp.lo[axis], poly->v[i].p[axis]);
                    sp.hi[axis] = std::max(sp.hi[axis], poly->v[i].p[axis]);
                }
            }
            seg.polygons.push_back(sp);
        }
    }

    void binSegment(Segment& seg) const {
        const size_t n = seg.polygons.size();
        seg.bins =
            int32_t(std::clamp<size_t>(size_t(std::sqrt(double(n) / kPolygonsPerBin)), 1, 64));
        const size_t binCount = size_t(seg.bins) * size_t(seg.bins);
        std::vector<uint32_t> counts(binCount + 1, 0);
        auto eachBin = [&](SegmentPolygon& sp, auto&& visit) {
            const int32_t bu0 = seg.binOf(sp.lo.x, 0), bu1 = seg.binOf(sp.hi.x, 0);
            const int32_t bv0 = seg.binOf(sp.lo.y, 1), bv1 = seg.binOf(sp.hi.y, 1);
            sp.binU = bu0;
            sp.binV = bv0;
            for (int32_t bv = bv0; bv <= bv1; ++bv) {
                for (int32_t bu = bu0; bu <= bu1; ++bu) visit(size_t(bv) * seg.bins + size_t(bu));
            }
        };
        for (SegmentPolygon& sp : seg.polygons) eachBin(sp, [&](size_t b) { ++counts[b + 1]; });
        for (size_t b = 0; b < binCount; ++b) counts[b + 1] += counts[b];
        seg.binStart = counts;
        seg.binPolygons.resize(counts[binCount]);
        for (size_t i = 0; i < n; ++i) {
            eachBin(seg.polygons[i], [&](size_t b) { seg.binPolygons[counts[b]++] = uint32_t(i); });
        }
    }

    void bakeCell(const MosaiqPrimitive& piece, const PieceFrame& frame, int32_t cellU,
                  int32_t cellV, Scratch& scratch, const Output* out, PieceCounts& counts) const {
        // The walk's pick: only U is offset by the seed.
        const SegmentPick pick = segmentPick(wrapAdd(cellU, piece.seed), cellV);
        const int32_t segU = static_cast<int32_t>(pick.u) % tile_.segmentCountU;
        const int32_t segV = static_cast<int32_t>(pick.v) % tile_.segmentCountV;
        const Segment& seg = segments_[size_t(segV) * size_t(tile_.segmentCountU) + size_t(segU)];
        if (seg.polygons.empty()) return;

        // The walk moves its ray by shift onto the segment; the triangles move back by it.
        const Point3& size = tile_.segmentSize;
        const Point3 shift(float(wrapSub(segU, cellU)) * size.x,
                           float(wrapSub(segV, cellV)) * size.y, 0.0f);
        const Point3 qlo = frame.lo + shift, qhi = frame.hi + shift;
        if (qhi.x < seg.box.pmin.x || qlo.x > seg.box.pmax.x || qhi.y < seg.box.pmin.y ||
            qlo.y > seg.box.pmax.y || qhi.z < seg.box.pmin.z || qlo.z > seg.box.pmax.z)
            return;

        if (++scratch.serial == 0) {
            std::fill(scratch.stamp.begin(), scratch.stamp.end(), 0u);
            scratch.serial = 1;
        }
        const int32_t bu0 = seg.binOf(qlo.x, 0), bu1 = seg.binOf(qhi.x, 0);
        const int32_t bv0 = seg.binOf(qlo.y, 1), bv1 = seg.binOf(qhi.y, 1);
        Polygon a, b;
        for (int32_t bv = bv0; bv <= bv1; ++bv) {
            for (int32_t bu = bu0; bu <= bu1; ++bu) {
                const size_t bin = size_t(bv) * seg.bins + size_t(bu);
                for (uint32_t k = seg.binStart[bin]; k < seg.binStart[bin + 1]; ++k) {
                    const SegmentPolygon& sp = seg.polygons[seg.binPolygons[k]];
                    // A polygon in several bins is taken in the first one the query shares.
                    if (std::max(sp.binU, bu0) != bu || std::max(sp.binV, bv0) != bv) continue;
                    if (sp.hi.x < qlo.x || sp.lo.x > qhi.x || sp.hi.y < qlo.y || sp.lo.y > qhi.y ||
                        sp.hi.z < qlo.z || sp.lo.z > qhi.z)
                        continue;

                    a.count = sp.count;
                    for (int i = 0; i < sp.count; ++i) {
                        a.v[i] = seg.vertices[sp.first + uint32_t(i)];
                        a.v[i].p = a.v[i].p - shift;
                    }
                    const Polygon* poly = &a;
                    for (int plane = 0; plane < 4 && poly->count >= 3; ++plane) {
                        const Point3 point = frame.planePoint[plane];
                        const Point3 normal = frame.planeNormal[plane];
                        Polygon* next = poly == &a ? &b : &a;
                        poly = clip(poly, next,
                                    [&](const Point3& p) { return DotProd(normal, p - point); });
                    }
                    if (poly->count >= 3) emit(piece, frame, sp.face, *poly, scratch, out, counts);
                }
            }
        }
    }

    // Fan the polygon into triangles, skipping those without area.
    void emit(const MosaiqPrimitive& piece, const PieceFrame& frame, int32_t face,
              const Polygon& poly, Scratch& scratch, const Output* out, PieceCounts& counts) const {
        uint32_t index[kMaxCorners];
        std::fill(index, index + poly.count, kNoIndex);
        auto vertexOf = [&](int i) {
            if (index[i] != kNoIndex) return index[i];
            const uint32_t corner = poly.v[i].corner;
            if (corner != kNoCorner && scratch.stamp[corner] == scratch.serial)
                return index[i] = scratch.slot[corner];
            const uint32_t local = uint32_t(counts.vertices++);
            if (out) writeVertex(piece, face, poly.v[i], *out, out->vertexBase + local);
            if (corner != kNoCorner) {
                scratch.stamp[corner] = scratch.serial;
                scratch.slot[corner] = local;
            }
            return index[i] = local;
        };
        const Point3& p0 = poly.v[0].p;
        for (int k = 1; k + 1 < poly.count; ++k) {
            const Point3 n = CrossProd(poly.v[k].p - p0, poly.v[k + 1].p - p0);
            if (n == Point3(0.0f, 0.0f, 0.0f) || !isFinite(n)) continue;
            uint32_t tri[3] = {vertexOf(0), vertexOf(k), vertexOf(k + 1)};
            if (frame.mirrored) std::swap(tri[1], tri[2]);
            if (out) {
                const size_t t = size_t(counts.triangles);
                Face& f = out->faces[t];
                f.smGroup = 1;
                for (int c = 0; c < 3; ++c) {
                    f.v[c] = out->vertexBase + tri[c];
                    out->normalFaces[t][size_t(c)] = int(f.v[c]);
                    if (out->uvFaces) out->uvFaces[t].t[c] = f.v[c];
                }
            }
            ++counts.triangles;
        }
    }

    void writeVertex(const MosaiqPrimitive& piece, int32_t face, const ClipVertex& v,
                     const Output& out, uint32_t at) const {
        const Point3 world = v.p * piece.tileToWorld;
        out.verts[at] = world;
        // The shading normal the renderer would give a hit at this point.
        TileHit hit;
        hit.faceIndex = face;
        hit.beta = v.beta;
        hit.gamma = v.gamma;
        hit.shadingPoint = world * piece.shadingTM;
        Point3 n = piece.shadingNormal(hit);
        if (!isFinite(n) || LengthSquared(n) == 0.0f) n = piece.geometricNormal(hit);
        out.normals[at] = n;
        if (out.uvws) {
            const auto& c = (*uvFaces_)[size_t(face)];
            out.uvws[at] = *c[0] * (1.0f - v.beta - v.gamma) + *c[1] * v.beta + *c[2] * v.gamma;
        }
    }

    const PatternTile& tile_;
    const std::vector<std::array<const Point3*, 3>>* uvFaces_ = nullptr;
    std::vector<uint32_t> cornerIds_;  // per face corner
    uint32_t cornerCount_ = 0;
    std::vector<Segment> segments_;  // row by row: segV * segmentCountU + segU
};

// Run work(piece, scratch) for every piece, on up to the hardware's threads.
template <class Work>
void forEachPiece(const Baker& baker, int32_t count, const Work& work) {
    const unsigned hardware = std::max(1u, std::thread::hardware_concurrency());
    const int32_t blocks = (count + kPieceBlock - 1) / kPieceBlock;
    const unsigned workers = std::min<unsigned>(hardware, unsigned(std::max(blocks, 1)));
    // Scratch is allocated up front: the workers themselves never allocate.
    std::vector<Baker::Scratch> scratch(workers);
    for (Baker::Scratch& s : scratch) baker.initScratch(s);

    std::atomic<int32_t> next{0};
    auto run = [&](Baker::Scratch& s) {
        for (;;) {
            const int32_t block = next.fetch_add(1);
            if (block >= blocks) return;
            const int32_t end = std::min(count, (block + 1) * kPieceBlock);
            for (int32_t i = block * kPieceBlock; i < end; ++i) work(i, s);
        }
    };
    std::vector<std::thread> threads;
    try {
        for (unsigned w = 1; w < workers; ++w) threads.emplace_back(run, std::ref(scratch[w]));
    } catch (const std::system_error&) {
        // Fewer threads: this one does the rest.
    }
    run(scratch[0]);
    for (std::thread& t : threads) t.join();
}

}  // namespace

bool bakePieces(const MosaiqPrimitive* pieces, int32_t count, const PatternTile& tile,
                const BakeLimits& limits, Mesh& out, BakeStats& stats, std::string& error) {
    MQ_ASSERT(tile.tree, "pieces are baked from a tile that was never built");
    stats = BakeStats();
    stats.pieces = std::max(count, 0);
    if (count < 0 || (count > 0 && !pieces)) {
        error = "no pieces to bake";
        return false;
    }

    const Baker baker(tile);

    // Count, and give every piece its place in the output.
    std::vector<PieceCounts> perPiece(size_t(std::max(count, 0)));
    forEachPiece(baker, count, [&](int32_t i, Baker::Scratch& s) {
        perPiece[size_t(i)] = baker.bakePiece(pieces[i], s, nullptr);
    });
    int64_t triangles = 0, vertices = 0;
    std::vector<int64_t> triangleBase(perPiece.size()), vertexBase(perPiece.size());
    for (size_t i = 0; i < perPiece.size(); ++i) {
        if (perPiece[i].tooManyCells) {
            error = "piece " + std::to_string(i) + " spans " + std::to_string(perPiece[i].cells) +
                    " segment cells, more than " + std::to_string(kMaxCellsPerPiece) +
                    "; the tiling is far too fine for the surface's UVs";
            return false;
        }
        triangleBase[i] = triangles;
        vertexBase[i] = vertices;
        triangles += perPiece[i].triangles;
        vertices += perPiece[i].vertices;
        stats.cells += perPiece[i].cells;
    }

    if (triangles > limits.maxTriangles) {
        stats.triangles = triangles;
        error = "would write " + std::to_string(triangles) + " triangles, more than the limit of " +
                std::to_string(limits.maxTriangles);
        return false;
    }
    if (triangles > kMaxMeshElements || vertices > kMaxMeshElements) {
        stats.triangles = triangles;
        error = "would write " + std::to_string(triangles) + " triangles with " +
                std::to_string(vertices) + " vertices, more than one mesh can hold (" +
                std::to_string(kMaxMeshElements) + " of each)";
        return false;
    }

    Mesh mesh;
    mesh.verts.resize(size_t(vertices));
    mesh.faces.resize(size_t(triangles));
    std::vector<Point3> normals(static_cast<size_t>(vertices));
    std::vector<std::array<int, 3>> normalFaces(static_cast<size_t>(triangles));
    if (baker.hasUvs()) {
        mesh.setMapSupport(1, true);
        mesh.Map(1).verts.resize(size_t(vertices));
    }

    forEachPiece(baker, count, [&](int32_t i, Baker::Scratch& s) {
        Output o;
        const size_t t = size_t(triangleBase[size_t(i)]);
        o.vertexBase = uint32_t(vertexBase[size_t(i)]);
        o.verts = mesh.verts.data();
        o.normals = normals.data();
        o.faces = mesh.faces.data() + t;
        o.normalFaces = normalFaces.data() + t;
        if (baker.hasUvs()) {
            o.uvws = mesh.Map(1).verts.data();
            o.uvFaces = mesh.Map(1).faces.data() + t;
        }
        baker.bakePiece(pieces[i], s, &o);
    });

    mesh.SpecifyNormals();
    mesh.GetSpecifiedNormals()->SetNormals(std::move(normals), std::move(normalFaces));
    stats.triangles = triangles;
    out = std::move(mesh);
    return true;
}

}  // namespace mq
