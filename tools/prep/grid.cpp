// One grid for rasters whose grids differ, and nearest-neighbour resampling
// onto it.
#include <algorithm>
#include <cmath>
#include <tuple>

#include "prep/fail.h"
#include "prep/prep.h"

namespace prep {
namespace {

struct Span {
    double lo, hi;
};

Span span(double origin, double step, int64_t n)
{
    const double end = origin + static_cast<double>(n) * step;
    return {std::min(origin, end), std::max(origin, end)};
}

bool meet(Span a, Span b) { return a.lo < b.hi && b.lo < a.hi; }

// The axis of the first grid (origin, step) widened by whole steps to cover
// [lo, hi]; returns the new origin and count.
std::pair<double, int64_t> widen(double origin, double step, Span all)
{
    const double s = std::fabs(step);
    const double eps = 1e-6;
    if (step > 0) {
        const double o = origin - std::ceil((origin - all.lo) / s - eps) * s;
        return {o, static_cast<int64_t>(std::ceil((all.hi - o) / s - eps))};
    }
    const double o = origin + std::ceil((all.hi - origin) / s - eps) * s;
    return {o, static_cast<int64_t>(std::ceil((o - all.lo) / s - eps))};
}

// Source index of each target sample along one axis, -1 outside.
std::vector<int64_t> lookup(double t0, double dt, int64_t tn, double s0, double ds, int64_t sn)
{
    std::vector<int64_t> index(tn);
    for (int64_t k = 0; k < tn; ++k) {
        const double centre = t0 + (static_cast<double>(k) + 0.5) * dt;
        const double at = std::floor((centre - s0) / ds);
        index[k] = at >= 0 && at < static_cast<double>(sn) ? static_cast<int64_t>(at) : -1;
    }
    return index;
}

}  // namespace

bool overlap(const Grid& a, const Grid& b)
{
    return meet(span(a.x0, a.dx, a.width), span(b.x0, b.dx, b.width)) &&
           meet(span(a.y0, a.dy, a.length), span(b.y0, b.dy, b.length));
}

Grid common_grid(const std::vector<Grid>& grids, const std::vector<std::string>& names)
{
    const Grid& first = grids.front();
    if (std::all_of(grids.begin(), grids.end(), [&](const Grid& g) { return g == first; })) return first;
    Span x = span(first.x0, first.dx, first.width);
    Span y = span(first.y0, first.dy, first.length);
    for (size_t k = 1; k < grids.size(); ++k) {
        const Span gx = span(grids[k].x0, grids[k].dx, grids[k].width);
        const Span gy = span(grids[k].y0, grids[k].dy, grids[k].length);
        if (!overlap(grids[k], first))
            fail("%s does not overlap %s: the rasters cannot be put on one grid", names[k].c_str(), names[0].c_str());
        x = {std::min(x.lo, gx.lo), std::max(x.hi, gx.hi)};
        y = {std::min(y.lo, gy.lo), std::max(y.hi, gy.hi)};
    }
    Grid g = first;
    std::tie(g.x0, g.width) = widen(first.x0, first.dx, x);
    std::tie(g.y0, g.length) = widen(first.y0, first.dy, y);
    if (static_cast<double>(g.width) * static_cast<double>(g.length) > 1e9)
        fail("a grid holding every raster would be %lld x %lld pixels: the rasters cannot be put on one grid",
             static_cast<long long>(g.width), static_cast<long long>(g.length));
    return g;
}

std::vector<float> resample(const std::vector<float>& samples, const Grid& from, const Grid& to)
{
    const auto cols = lookup(to.x0, to.dx, to.width, from.x0, from.dx, from.width);
    const auto rows = lookup(to.y0, to.dy, to.length, from.y0, from.dy, from.length);
    std::vector<float> out(static_cast<size_t>(to.width * to.length), 0.0f);
    for (int64_t i = 0; i < to.length; ++i) {
        if (rows[i] < 0) continue;
        const float* row = samples.data() + rows[i] * from.width;
        float* dst = out.data() + i * to.width;
        for (int64_t j = 0; j < to.width; ++j)
            if (cols[j] >= 0) dst[j] = row[cols[j]];
    }
    return out;
}

}  // namespace prep
