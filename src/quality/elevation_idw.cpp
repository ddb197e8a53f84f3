// Inverse-distance interpolation of the block lines to every pixel.
//
// Every usable block (a and b not NaN) contributes to every pixel with the
// weight w = 1 / d, d the squared distance between the pixel and the block
// centre in the header's units, formed in double and rounded to float, w a
// float. The pixel's line is (sum w a / sum w, sum w b / sum w), the sums in
// double and in block index order. A pixel within 1e-9 (squared) of a block
// centre takes that block's line unweighted: the first such block in index
// order.
//
// The cost is pixels x blocks, so the correction interpolates several pixels
// of a row side by side. Each lane performs exactly the operations of
// IDW_COFFS for its own pixel, in the same order, and vector lanes round
// like scalar operations, so the result is the same to the bit. Two things
// are shared along a row: (block y - y)^2, as y is the row's, and the check
// for a centre, which can only succeed for a block whose (block y - y)^2
// alone, rounded to float, is below 1e-9 (adding (block x - x)^2 >= 0 cannot
// make a rounded sum smaller); such rare rows check their pixels one by one.
#include <cmath>
#include <cstdlib>

#include "numerics/arrays.h"
#include "numerics/validity.h"
#include "quality/corrections.h"

namespace com {
namespace {

constexpr int kLanes = 8;   // pixels in one vector
constexpr int kGroups = 2;  // vectors in flight, to hide the latency of the sums
constexpr int kWidth = kLanes * kGroups;

using Doubles = double __attribute__((vector_size(kLanes * sizeof(double))));
using Floats = float __attribute__((vector_size(kLanes * sizeof(float))));

struct Sums {
    Doubles wa[kGroups];
    Doubles wb[kGroups];
    Doubles w[kGroups];
};

bool on_centre(double dy2, double dx) { return std::fabs(static_cast<float>(dy2 + dx * dx)) < 1e-9; }

// The block sums of kWidth pixels of one row at longitudes x, over the
// `usable` blocks of `scratch` with dy2 set for the row. The processor picks
// the widest vectors it has at run time; every variant rounds each operation
// alike (the build never fuses a multiply and an add), so the sums do not
// depend on the machine.
__attribute__((target_clones("avx512f", "avx2", "default")))
void lane_sums(const IdwScratch& scratch, int64_t usable, const double* x, Sums& sums)
{
    Doubles px[kGroups], wa[kGroups], wb[kGroups], w[kGroups];
    for (int g = 0; g < kGroups; ++g) {
        for (int l = 0; l < kLanes; ++l) px[g][l] = x[g * kLanes + l];
        wa[g] = wb[g] = w[g] = Doubles{};
    }
    const double* block_x = scratch.block_x;
    const double* block_a = scratch.block_a;
    const double* block_b = scratch.block_b;
    const double* dy2 = scratch.dy2;
    for (int64_t j = 0; j < usable; ++j) {
        for (int g = 0; g < kGroups; ++g) {
            const Doubles dx = block_x[j] - px[g];
            const Doubles d = dy2[j] + dx * dx;
            const Doubles weight = __builtin_convertvector(1.0f / __builtin_convertvector(d, Floats), Doubles);
            wa[g] += weight * block_a[j];
            wb[g] += weight * block_b[j];
            w[g] += weight;
        }
    }
    for (int g = 0; g < kGroups; ++g) {
        sums.wa[g] = wa[g];
        sums.wb[g] = wb[g];
        sums.w[g] = w[g];
    }
}

}  // namespace

LineFit IDW_COFFS(const EXPCOFF* blocks, HEADER block_grid, double y, double x, double /*unused*/, float* weights)
{
    const int64_t count = block_count(block_grid);
    double sum_wa = 0.0;
    double sum_wb = 0.0;
    double sum_w = 0.0;
    for (int64_t i = 0; i < count; ++i) {
        const EXPCOFF& block = blocks[i];
        if (std::isnan(block.a) || std::isnan(block.b)) continue;
        const double dy = block.y - y;
        const double dx = block.x - x;
        const float d = static_cast<float>(dy * dy + dx * dx);
        if (std::fabs(d) < 1e-9) return {block.a, block.b};
        const float w = 1.0f / d;
        if (weights) weights[i] = w;
        sum_wa += static_cast<double>(w) * block.a;
        sum_wb += static_cast<double>(w) * block.b;
        sum_w += w;
    }
    return {static_cast<float>(sum_wa / sum_w), static_cast<float>(sum_wb / sum_w)};
}

void alloc_scratch(IdwScratch& scratch, const HEADER& grid, const HEADER& block_grid)
{
    scratch.capacity = block_count(block_grid);
    scratch.columns = grid.WIDTH > 0 ? grid.WIDTH : 0;
    scratch.block_y = lib::need<double>(scratch.capacity);
    scratch.block_x = lib::need<double>(scratch.capacity);
    scratch.block_a = lib::need<double>(scratch.capacity);
    scratch.block_b = lib::need<double>(scratch.capacity);
    scratch.dy2 = lib::need<double>(scratch.capacity);
    scratch.column_x = lib::need<double>(scratch.columns + kWidth);
    scratch.valid = lib::need<int64_t>(scratch.columns);
    scratch.near = lib::need<int64_t>(scratch.capacity);
}

void free_scratch(IdwScratch& scratch)
{
    for (double* p : {scratch.block_y, scratch.block_x, scratch.block_a, scratch.block_b, scratch.dy2,
                      scratch.column_x})
        std::free(p);
    std::free(scratch.valid);
    std::free(scratch.near);
    scratch = IdwScratch{};
}

void subtract_elevation_signal(const HEADER& grid, const HEADER& block_grid, const EXPCOFF* blocks,
                               const float* height, float* phase, IdwScratch& s)
{
    const int64_t W = grid.WIDTH;
    const int64_t L = grid.FILE_LENGTH;
    if (W < 1 || L < 1) return;

    int64_t usable = 0;
    for (int64_t i = 0; i < block_count(block_grid); ++i) {
        if (std::isnan(blocks[i].a) || std::isnan(blocks[i].b)) continue;
        s.block_y[usable] = blocks[i].y;
        s.block_x[usable] = blocks[i].x;
        s.block_a[usable] = blocks[i].a;
        s.block_b[usable] = blocks[i].b;
        ++usable;
    }
    for (int64_t q = 0; q < W; ++q) s.column_x[q] = static_cast<float>(q * grid.X_STEP + grid.X_FIRST);

    double x[kWidth];
    Sums sums;
    for (int64_t r = 0; r < L; ++r) {
        const double y = static_cast<float>(r * grid.Y_STEP + grid.Y_FIRST);
        float* row = phase + r * W;
        const float* row_height = height + r * W;
        int64_t near = 0;  // blocks whose centre a pixel of this row may hit
        for (int64_t j = 0; j < usable; ++j) {
            const double dy = s.block_y[j] - y;
            s.dy2[j] = dy * dy;
            if (on_centre(s.dy2[j], 0.0)) s.near[near++] = j;
        }
        int64_t n = 0;
        for (int64_t q = 0; q < W; ++q)
            if (lib::isvalid(row[q])) s.valid[n++] = q;

        for (int64_t first = 0; first < n; first += kWidth) {
            const int64_t lanes = n - first < kWidth ? n - first : kWidth;
            // Spare lanes repeat the last pixel; their sums are dropped.
            for (int l = 0; l < kWidth; ++l) x[l] = s.column_x[s.valid[first + (l < lanes ? l : lanes - 1)]];
            lane_sums(s, usable, x, sums);
            for (int64_t l = 0; l < lanes; ++l) {
                const int64_t q = s.valid[first + l];
                const int g = static_cast<int>(l / kLanes);
                const int lane = static_cast<int>(l % kLanes);
                LineFit line{static_cast<float>(sums.wa[g][lane] / sums.w[g][lane]),
                             static_cast<float>(sums.wb[g][lane] / sums.w[g][lane])};
                for (int64_t c = 0; c < near; ++c) {
                    const int64_t j = s.near[c];
                    if (on_centre(s.dy2[j], s.block_x[j] - x[l])) {
                        line = {static_cast<float>(s.block_a[j]), static_cast<float>(s.block_b[j])};
                        break;
                    }
                }
                if (lib::isvalid(line.a) && lib::isvalid(line.b)) row[q] = (row[q] - line.a) - line.b * row_height[q];
            }
        }
    }
}

}  // namespace com
