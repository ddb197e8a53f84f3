// Discs and rectangles: the pixels they cover, and random ones that keep
// clear of a window.
//
// A disc misses the window when the window's closest point to the centre is
// farther than the radius; a rectangle misses it when their row or column
// spans don't overlap. Random draws that fail the test are repeated.
#include "synth/patches.h"

#include <algorithm>
#include <cmath>

namespace synth {
namespace {

Box clipped(Box box, int width, int length)
{
    box.row0 = std::max(box.row0, 0);
    box.col0 = std::max(box.col0, 0);
    box.row1 = std::min(box.row1, length - 1);
    box.col1 = std::min(box.col1, width - 1);
    return box;
}

}  // namespace

Patch disc(double row, double col, double radius, int width, int length)
{
    Patch p;
    p.row = row;
    p.col = col;
    p.radius = radius;
    p.bounds = clipped({static_cast<int>(std::floor(row - radius)), static_cast<int>(std::ceil(row + radius)),
                        static_cast<int>(std::floor(col - radius)), static_cast<int>(std::ceil(col + radius))},
                       width, length);
    return p;
}

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
        const bool is_disc = !allow_rectangles || rng.uniform() < 0.5;
        const double row = rng.uniform(0.0, length - 1.0);
        const double col = rng.uniform(0.0, width - 1.0);
        Patch p;
        if (is_disc) {
            p = disc(row, col, rng.uniform(min_radius, max_radius), width, length);
        } else {
            const double half_rows = rng.uniform(min_radius, max_radius);
            const double half_cols = rng.uniform(min_radius, max_radius);
            p.disc = false;
            p.row = row;
            p.col = col;
            p.bounds = clipped({static_cast<int>(std::lround(row - half_rows)),
                                static_cast<int>(std::lround(row + half_rows)),
                                static_cast<int>(std::lround(col - half_cols)),
                                static_cast<int>(std::lround(col + half_cols))},
                               width, length);
        }
        if (touches(p, keep_clear)) continue;
        patch = p;
        return true;
    }
    return false;
}

}  // namespace synth
