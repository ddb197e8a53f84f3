// Drawing patches that keep clear of a window.
//
// A disc misses the window when the window's closest point to the centre is
// farther than the radius; a rectangle misses it when their row or column
// spans don't overlap. Draws that fail the test are repeated.
#include "synth/patches.h"

#include <algorithm>
#include <cmath>

namespace synth {
namespace {

bool touches(const Patch& patch, const Box& box)
{
    if (box.row1 < box.row0 || box.col1 < box.col0) return false;
    if (!patch.disc) {
        return patch.bounds.row0 <= box.row1 && box.row0 <= patch.bounds.row1 &&
               patch.bounds.col0 <= box.col1 && box.col0 <= patch.bounds.col1;
    }
    const double dr = patch.row - std::clamp(patch.row, double(box.row0), double(box.row1));
    const double dc = patch.col - std::clamp(patch.col, double(box.col0), double(box.col1));
    return dr * dr + dc * dc <= patch.radius * patch.radius;
}

}  // namespace

bool covers(const Patch& patch, int row, int col)
{
    if (row < patch.bounds.row0 || row > patch.bounds.row1) return false;
    if (col < patch.bounds.col0 || col > patch.bounds.col1) return false;
    if (!patch.disc) return true;
    const double dr = row - patch.row;
    const double dc = col - patch.col;
    return dr * dr + dc * dc <= patch.radius * patch.radius;
}

bool draw_patch(Rng& rng, int width, int length, const Box& keep_clear, double min_radius,
                double max_radius, bool allow_rectangles, Patch& patch)
{
    for (int attempt = 0; attempt < 100; ++attempt) {
        Patch p;
        p.disc = !allow_rectangles || rng.uniform() < 0.5;
        p.row = rng.uniform(0.0, length - 1.0);
        p.col = rng.uniform(0.0, width - 1.0);
        if (p.disc) {
            p.radius = rng.uniform(min_radius, max_radius);
            p.bounds = {static_cast<int>(std::floor(p.row - p.radius)),
                        static_cast<int>(std::ceil(p.row + p.radius)),
                        static_cast<int>(std::floor(p.col - p.radius)),
                        static_cast<int>(std::ceil(p.col + p.radius))};
        } else {
            const double half_rows = rng.uniform(min_radius, max_radius);
            const double half_cols = rng.uniform(min_radius, max_radius);
            p.bounds = {static_cast<int>(std::lround(p.row - half_rows)),
                        static_cast<int>(std::lround(p.row + half_rows)),
                        static_cast<int>(std::lround(p.col - half_cols)),
                        static_cast<int>(std::lround(p.col + half_cols))};
        }
        p.bounds.row0 = std::max(p.bounds.row0, 0);
        p.bounds.col0 = std::max(p.bounds.col0, 0);
        p.bounds.row1 = std::min(p.bounds.row1, length - 1);
        p.bounds.col1 = std::min(p.bounds.col1, width - 1);
        if (touches(p, keep_clear)) continue;
        patch = p;
        return true;
    }
    return false;
}

}  // namespace synth
