// Interferogram corrections: removal of the elevation-dependent signal and of
// orbital ramps. Each stage writes a corrected copy of every interferogram of
// the run into the result folder, appends its suffix (".remove_hgt",
// ".remove_orbit") to every list entry and points the run's datafolder at the
// result folder, so that every later stage reads the copies. Files in the
// data folder are only ever read.
#pragma once

#include <cstdint>

#include "catalogue/header.h"
#include "config/cfg.h"
#include "numerics/arrays.h"
#include "numerics/error.h"

// One block's straight line phase = a + b * height, and the block's centre.
// A block without a usable fit has a = b = NaN.
struct EXPCOFF {
    float a;  // intercept, radians
    float b;  // slope, radians per kilometre of height
    float y;  // latitude of the block centre (grid units of the header)
    float x;  // longitude of the block centre
};

namespace quality {

// The elevation-dependent correction of a run (if_remove_eds): banner, the
// DEM resampled onto the grid, the closure mask when if_check_loop_closure
// is 1, then every interferogram corrected in parallel into resultfolder
// under name ".remove_hgt". Appends ".remove_hgt" to every list entry (also
// when an existing copy is reused, see if_use_existing_corrected_ifg) and sets
// datafolder to resultfolder. Reports a missing file, a short
// interferogram (the first in list order), or an eds_block_size below 1.
// `grid` is the job's grid.
lib::Status bach_removel_height_dependent(CFG* cfg, const HEADER& grid);

// The orbital correction of a run (if_remove_orbit): the closure mask, banner,
// then every interferogram corrected in parallel into resultfolder under
// name ".remove_orbit". Appends ".remove_orbit" to every list entry and sets
// datafolder to resultfolder. With if_remove_eds 1 the ".remove_hgt" copy it
// read is deleted afterwards. Reports a missing file, a short interferogram
// (the first in list order), or an orbit_quad_fit_sampling below 1.
lib::Status bach_removel_orbit(CFG* cfg, const HEADER& grid);

// The closure mask as the corrections use it: pixel_count(grid) floats read
// from "phase_loop_closure_mask" in resultfolder when if_check_loop_closure is
// 1 (no size check: the rest of a shorter file stays 0), zeros otherwise.
// Null for a grid without pixels.
lib::Result<lib::Owned<float>> correction_mask(const CFG& cfg, const HEADER& grid);

}  // namespace quality

namespace com {

// Intercept and slope of a straight line.
struct LineFit {
    float a;
    float b;
};

// Least-squares line y = a + b x through n samples: means, centred sums of
// products and squares in double; b rounded to float, then a = mean(y) -
// b mean(x) rounded to float. n < 1 gives NaN.
LineFit linear_fit(int64_t n, const float* y, const float* x);

// The block grid of the elevation correction over `grid`: blocks of side
// B = eds_block_size / 100 (float, grid units), centres h = B / 2 apart
// (X_STEP = h, Y_STEP = -h), WIDTH = round(W X_STEP / h) + 1 and
// FILE_LENGTH = round(-L Y_STEP / h) + 1 block columns and rows, from the
// grid's first pixel. eds_block_size must be positive.
HEADER eds_block_grid(const HEADER& grid, int eds_block_size);

// Blocks of a block grid: WIDTH x FILE_LENGTH, 0 when either is below 1.
int64_t block_count(const HEADER& block_grid);

// K, the capacity of a block's sample arrays: a block uses at most K - 1
// samples. Always at least 1 and at most pixel_count(grid) + 1 (a larger
// cap could never be reached).
int64_t eds_sample_cap(const HEADER& grid, const HEADER& block_grid);

// What the resampling of a DEM met, counted on the job's grid.
struct DemCoverage {
    int64_t claimed = 0;     // samples demfile_header describes
    int64_t held = 0;        // of those, the samples demfile holds
    int64_t reached = 0;     // grid pixels some DEM sample lands on
    int64_t usable = 0;      // grid pixels whose height is data (lib::isvalid)
    int64_t void_code = 0;   // grid pixels at -32768 m, the usual void code
    int64_t not_finite = 0;  // grid pixels whose height is NaN or infinite
};

struct Dem {
    HEADER header;             // demfile_header
    lib::Owned<float> height;  // km, one per grid pixel, 0 where no sample lands
    DemCoverage coverage;
};

// The height raster (km, pixel_count(grid) floats): every DEM sample of
// demfile (read without a size check, described by demfile_header) put at
// its nearest grid pixel, later samples over earlier ones; 0 where no sample
// lands. Null for a grid without pixels. A missing file is reported, and so
// is a header claiming more samples than memory holds.
lib::Result<Dem> read_dem(const CFG& cfg, const HEADER& grid);
lib::Result<lib::Owned<float>> resample_dem(const CFG& cfg, const HEADER& grid);

// Standard error, one "warning: ..." line for each: a DEM file shorter than
// its header; no usable height on the grid (the correction then changes
// nothing), or else grid pixels no DEM sample reaches, with the reason the
// headers give; pixels at the void code -32768 m. Nothing when all is well.
void warn_dem(const CFG& cfg, const HEADER& grid, const Dem& dem);

// Fits every block of `block_grid` (block_count records into `blocks`) on
// the pixels of the block whose phase and height are both data, at most
// K - 1 of them, first in row order. Fewer than 10 samples give NaN
// coefficients. sample_phase and sample_height hold K floats each.
void estimate_blocks(const HEADER& grid, const HEADER& block_grid, int64_t K, const float* phase,
                     const float* height, float* sample_phase, float* sample_height, EXPCOFF* blocks);

// Inverse-distance interpolation of the block lines at (y, x): over the
// blocks with a and b not NaN, in index order, d = squared distance (double,
// then float); a block with |d| < 1e-9 is returned at once; otherwise each
// block weighs w = 1 / d (float, stored in weights[block] when weights is
// not null) and the result is (sum w a / sum w, sum w b / sum w), summed in
// double. `unused` has no effect.
LineFit IDW_COFFS(const EXPCOFF* blocks, HEADER block_grid, double y, double x, double unused, float* weights);

// Working storage of subtract_elevation_signal for one thread.
struct IdwScratch {
    int64_t capacity = 0;      // blocks the arrays below hold
    int64_t columns = 0;       // grid columns the arrays below hold
    double* block_y = nullptr;  // usable blocks, index order
    double* block_x = nullptr;
    double* block_a = nullptr;
    double* block_b = nullptr;
    double* dy2 = nullptr;      // (block y - row y)^2 of the current row
    double* column_x = nullptr;  // longitude of each column
    int64_t* valid = nullptr;   // valid columns of the current row
    int64_t* near = nullptr;    // usable blocks a pixel of the current row may sit on
};

// Allocates `scratch` for a grid and block grid (ends the run when memory
// fails); free_scratch releases it.
void alloc_scratch(IdwScratch& scratch, const HEADER& grid, const HEADER& block_grid);
void free_scratch(IdwScratch& scratch);

// Corrects `phase` in place: every valid pixel (lib::isvalid) gets (a, b) =
// IDW_COFFS at its position (each coordinate rounded to float) and, when
// both are data, becomes (phase - a) - b height in float. Byte for byte the
// same as calling IDW_COFFS pixel by pixel; several pixels of a row are
// interpolated side by side, each with the block sums in index order.
void subtract_elevation_signal(const HEADER& grid, const HEADER& block_grid, const EXPCOFF* blocks,
                               const float* height, float* phase, IdwScratch& scratch);

// Corrects one interferogram for the elevation-dependent signal: reads `in`
// (with the size check), sets pixels whose mask is above 0.5 to NaN, fits
// the blocks and subtracts the interpolated lines; writes `out`. height and
// mask hold one float per pixel of `grid`, the job's grid.
lib::Status remove_heigh_dependent(CFG cfg, const HEADER& grid, HEADER block_grid, const char* in, const char* out,
                                   const float* height, const float* mask);

// Corrects one interferogram for an orbital ramp: reads `in` (with the size
// check), sets pixels whose mask is above 0.5 to NaN, fits
// c0 + c1 x + c2 y + c3 x y + c4 x^2 + c5 y^2 (x column, y row) to the valid
// pixels of every orbit_quad_fit_sampling-th row and column and writes
// value - fit for valid pixels, 0 elsewhere, to `out`.
lib::Status remove_orbit(CFG cfg, const HEADER& grid, const char* in, const char* out, const float* mask);

}  // namespace com
