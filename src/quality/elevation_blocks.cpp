// Block fits of the elevation-dependent correction.
//
// The grid is covered by square blocks of side B = eds_block_size / 100 in
// the header's units (degrees on a geographic grid), held in single
// precision, whose centres lie h = B / 2 apart from the grid's first pixel:
// neighbouring blocks overlap by half. In every block a straight line
// phase = a + b * height is fitted by least squares to the pixels whose phase
// and height are both data, taken row by row up to a cap of K - 1 samples;
// a block with fewer than 10 samples has no usable line (a = b = NaN).
//
// The centres and the pixel range of a block are formed with the float
// half-width: the centre is (float)(k * -h + first) with k * -h a float
// product, and a block edge is centre +- h, a float sum, before it is turned
// into a pixel index.
#include <cmath>
#include <limits>

#include "numerics/validity.h"
#include "quality/corrections.h"

namespace com {
namespace {

// round(v) + 1 blocks, halves away from zero; a value no grid can have
// (not finite, or beyond any memory) gives no blocks.
int64_t blocks_along(double v)
{
    if (!(std::fabs(v) < 1e15)) return 0;
    return static_cast<int64_t>(std::llround(v)) + 1;
}

}  // namespace

LineFit linear_fit(int64_t n, const float* y, const float* x)
{
    double sum_x = 0.0;
    double sum_y = 0.0;
    for (int64_t i = 0; i < n; ++i) {
        sum_x += x[i];
        sum_y += y[i];
    }
    const double count = static_cast<double>(n);
    const double mx = sum_x / count;
    const double my = sum_y / count;
    double sxy = 0.0;
    double sxx = 0.0;
    for (int64_t i = 0; i < n; ++i) {
        const double dx = x[i] - mx;
        sxy += dx * (y[i] - my);
        sxx += dx * dx;
    }
    const float b = static_cast<float>(sxy / sxx);
    const float a = static_cast<float>(my - b * mx);
    return {a, b};
}

HEADER eds_block_grid(const HEADER& grid, int eds_block_size)
{
    const float B = static_cast<float>(eds_block_size / 100.0);
    const float h = B / 2;
    HEADER blocks;
    blocks.WIDTH = blocks_along(static_cast<double>(grid.WIDTH) * grid.X_STEP / h);
    blocks.FILE_LENGTH = blocks_along(-static_cast<double>(grid.FILE_LENGTH) * grid.Y_STEP / h);
    blocks.X_FIRST = grid.X_FIRST;
    blocks.Y_FIRST = grid.Y_FIRST;
    blocks.X_STEP = h;
    blocks.Y_STEP = -h;
    return blocks;
}

int64_t block_count(const HEADER& block_grid)
{
    if (block_grid.WIDTH < 1 || block_grid.FILE_LENGTH < 1) return 0;
    int64_t count = 0;
    if (__builtin_mul_overflow(block_grid.WIDTH, block_grid.FILE_LENGTH, &count))
        return std::numeric_limits<int64_t>::max();
    return count;
}

int64_t eds_sample_cap(const HEADER& grid, const HEADER& block_grid)
{
    const float B = 2.0f * static_cast<float>(block_grid.X_STEP);
    const double K = std::ceil((-B / grid.Y_STEP + 3) * (B / grid.X_STEP + 3)) + 1;
    // No block holds more than the grid's pixels, so a larger cap is never
    // reached; a cap below 1 (a grid running south or west) takes nothing.
    const int64_t most = pixel_count(grid) + 1;
    if (!(K >= 1)) return 1;
    if (!(K < static_cast<double>(most))) return most;
    return static_cast<int64_t>(K);
}

void estimate_blocks(const HEADER& grid, const HEADER& block_grid, int64_t K, const float* phase,
                     const float* height, float* sample_phase, float* sample_height, EXPCOFF* blocks)
{
    const float h = static_cast<float>(block_grid.X_STEP);
    const int64_t W = grid.WIDTH;
    const int64_t L = grid.FILE_LENGTH;
    const int64_t cap = K - 1;
    const int64_t columns = block_count(block_grid) > 0 ? block_grid.WIDTH : 0;
    const int64_t rows = block_count(block_grid) > 0 ? block_grid.FILE_LENGTH : 0;
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (int64_t k = 0; k < rows; ++k) {
        for (int64_t m = 0; m < columns; ++m) {
            const float yk = static_cast<float>(static_cast<float>(k) * -h + grid.Y_FIRST);
            const float xm = static_cast<float>(static_cast<float>(m) * h + grid.X_FIRST);
            int64_t r0 = std::lround((yk + h - grid.Y_FIRST) / grid.Y_STEP);
            int64_t r1 = std::lround((yk - h - grid.Y_FIRST) / grid.Y_STEP);
            int64_t c0 = std::lround((xm - h - grid.X_FIRST) / grid.X_STEP);
            int64_t c1 = std::lround((xm + h - grid.X_FIRST) / grid.X_STEP);
            if (r0 < 0) r0 = 0;
            if (r1 >= L) r1 = L - 1;
            if (c0 < 0) c0 = 0;
            if (c1 >= W) c1 = W - 1;
            EXPCOFF& block = blocks[k * columns + m];
            block = {nan, nan, yk, xm};
            if (r1 < r0) continue;
            int64_t n = 0;
            for (int64_t r = r0; r <= r1; ++r) {
                for (int64_t c = c0; c <= c1; ++c) {
                    const int64_t p = r * W + c;
                    if (lib::isnan_zq(phase[p]) || lib::isnan_zq(height[p])) continue;
                    // Once the cap is reached a row ends at its first usable pixel.
                    if (n >= cap) break;
                    sample_phase[n] = phase[p];
                    sample_height[n] = height[p];
                    ++n;
                }
            }
            if (n < 10) continue;
            const LineFit line = linear_fit(n, sample_phase, sample_height);
            block.a = line.a;
            block.b = line.b;
        }
    }
}

}  // namespace com
