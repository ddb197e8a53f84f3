// Discs and rectangles painted onto interferograms: no-data patches, the
// invalid corner and unwrapping errors, always kept off a protected window
// around the reference.
#pragma once

#include <cstddef>
#include <vector>

#include "synth/random.h"

namespace synth {

// Inclusive pixel bounds.
struct Box {
    int row0 = 0;
    int row1 = -1;
    int col0 = 0;
    int col1 = -1;
};

// A disc (centre and radius, pixels; pixel (i, j) is inside when its
// distance to the centre is at most the radius) or a rectangle (`bounds`).
struct Patch {
    bool disc = true;
    double row = 0.0;
    double col = 0.0;
    double radius = 0.0;
    Box bounds;  // for a disc: its bounding box clipped to the grid
};

// The disc of centre (row, col) and `radius` pixels on a width x length grid.
Patch disc(double row, double col, double radius, int width, int length);

// True when the patch covers pixel (row, col).
bool covers(const Patch& patch, int row, int col);

// True when the patch covers a pixel of `box` (never for an empty box).
bool touches(const Patch& patch, const Box& box);

// Calls visit(row * width + col) for every pixel (row, col) the patch covers,
// row by row.
template <class Visit>
void for_each_covered(const Patch& patch, int width, Visit visit)
{
    for (int i = patch.bounds.row0; i <= patch.bounds.row1; ++i)
        for (int j = patch.bounds.col0; j <= patch.bounds.col1; ++j)
            if (covers(patch, i, j)) visit(static_cast<std::size_t>(i) * width + j);
}

// A random disc of radius in [min_radius, max_radius] pixels, or with
// `allow_rectangles` half the time a rectangle of half-sides in that range,
// centred inside the grid and covering no pixel of `keep_clear`. Returns
// false when 100 draws all touched it.
bool draw_patch(Rng& rng, int width, int length, const Box& keep_clear, double min_radius,
                double max_radius, bool allow_rectangles, Patch& patch);

}  // namespace synth
