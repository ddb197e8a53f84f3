// Discs and rectangles painted onto interferograms: no-data patches and
// unwrapping errors, always kept off a protected window around the reference.
#pragma once

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

// True when the patch covers pixel (row, col).
bool covers(const Patch& patch, int row, int col);

// A random disc of radius in [min_radius, max_radius] pixels, or with
// `allow_rectangles` half the time a rectangle of half-sides in that range,
// centred inside the grid and covering no pixel of `keep_clear`. Returns
// false when 100 draws all touched it.
bool draw_patch(Rng& rng, int width, int length, const Box& keep_clear, double min_radius,
                double max_radius, bool allow_rectangles, Patch& patch);

}  // namespace synth
