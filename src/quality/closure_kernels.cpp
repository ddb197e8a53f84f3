// The closure of a loop at a pixel is a - b + c in single precision, counted
// only where the three samples are valid; every update is the running mean
// and variance of lib::RunningMoments, written out here so that the
// compiler can run it in vector lanes: each lane computes the update as if
// the sample were valid and keeps the old state where it is not, so every
// kept value is the one the scalar update gives.
//
// Pixels: a tile of consecutive pixels is held in separate count, mean,
// variance and failure arrays while every loop passes over it, the pixels
// in the lanes. Loops: W loops (the vector width) walk the pixels side by
// side, one loop per lane, a tile of pixels at a time so that the rows of
// the tile stay in cache while the groups of loops pass over it; the
// closures of the tile are first computed W pixels at a time into a small
// buffer, pixel by pixel, so that the serial walk only loads them.
//
// Validity is tested on the floats themselves (see kSmallestValid), which
// the compiler keeps in vector registers; the same test on widened doubles
// was taken lane by lane.
#include "quality/closure_kernels.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

#include "numerics/lanes.h"
#include "numerics/stats.h"
#include "numerics/validity.h"

namespace quality {
namespace {

constexpr int64_t kTile = 512;

// lib::isvalid on floats in lanes: a float's magnitude is at least 1e-8 as
// a double exactly when it is at least lib::kSmallestValid, and it is
// finite exactly when it is at most FLT_MAX; NaN fails both tests. Gives -1
// in the valid lanes.

template <int W>
struct FloatLanes {
    typedef float F __attribute__((vector_size(W * sizeof(float)), aligned(sizeof(float))));
    typedef int32_t M __attribute__((vector_size(W * sizeof(float))));
};

template <int W>
[[gnu::always_inline]] inline void and_valid(typename FloatLanes<W>::M& valid, const typename FloatLanes<W>::F& x)
{
    using F = typename FloatLanes<W>::F;
    using M = typename FloatLanes<W>::M;
    const F magnitude = (F)((M)x & 0x7fffffff);
    valid &= (magnitude >= lib::kSmallestValid) & (magnitude <= FLT_MAX);
}

// The lanes where a, b and c are all valid.
template <int W>
[[gnu::always_inline]] inline void all_valid(typename FloatLanes<W>::M& valid, const typename FloatLanes<W>::F& a,
                                             const typename FloatLanes<W>::F& b, const typename FloatLanes<W>::F& c)
{
    valid = typename FloatLanes<W>::M{} - 1;
    and_valid<W>(valid, a);
    and_valid<W>(valid, b);
    and_valid<W>(valid, c);
}

template <int W>
SBAS_LANES_INLINE void pixel_tile(const LOOPORDER* loops, int64_t loop_count, float* const* stack, int64_t first,
                                  int64_t width, float threshold, double* count, double* mean, double* variance,
                                  double* failed)
{
    using F = typename FloatLanes<W>::F;
    using V = typename lib::Vectors<W>::V;
    using I = typename lib::Vectors<W>::I;
    using U = typename lib::Vectors<W>::U;
    using B = typename lib::Vectors<W>::B;
    const int64_t whole = width - width % W;
    for (int64_t l = 0; l < loop_count; ++l) {
        const float* s01 = stack[loops[l].ifg01] + first;
        const float* s02 = stack[loops[l].ifg02] + first;
        const float* s12 = stack[loops[l].ifg12] + first;
        for (int64_t t = 0; t < whole; t += W) {
            const F a = *reinterpret_cast<const F*>(s01 + t);
            const F b = *reinterpret_cast<const F*>(s02 + t);
            const F c = *reinterpret_cast<const F*>(s12 + t);
            typename FloatLanes<W>::M valid_samples;
            all_valid<W>(valid_samples, a, b, c);
            const I valid = __builtin_convertvector(valid_samples, I);
            const F closure = a - b + c;
            const V x = __builtin_convertvector(closure, V);
            const V n = *reinterpret_cast<const U*>(count + t);
            const V m_old = *reinterpret_cast<const U*>(mean + t);
            const V v_old = *reinterpret_cast<const U*>(variance + t);
            const V k = n + 1;
            V m_new = ((k - 1) * m_old + x) / k;
            V v_new = (k - 2) * v_old / (k - 1) + (m_old - m_new) * (m_old - m_new) + (x - m_new) * (x - m_new) / (k - 1);
            const I opening = k <= 1.5;
            m_new = opening ? x : m_new;
            v_new = opening ? V{} : v_new;
            *reinterpret_cast<U*>(count + t) = valid ? k : n;
            *reinterpret_cast<U*>(mean + t) = valid ? m_new : m_old;
            *reinterpret_cast<U*>(variance + t) = valid ? v_new : v_old;
            const V magnitude = (V)((B)x & 0x7fffffffffffffffULL);
            const I over = valid & (magnitude > static_cast<double>(threshold));
            *reinterpret_cast<U*>(failed + t) += over ? V{} + 1.0 : V{};
        }
        for (int64_t t = whole; t < width; ++t) {
            const float a = s01[t], b = s02[t], c = s12[t];
            if (!lib::isvalid(a) || !lib::isvalid(b) || !lib::isvalid(c)) continue;
            const float closure = a - b + c;
            lib::RunningMoments m{count[t], mean[t], variance[t]};
            m.add(closure);
            count[t] = m.count;
            mean[t] = m.mean;
            variance[t] = m.variance;
            if (std::fabs(closure) > threshold) failed[t] += 1;
        }
    }
}

SBAS_BY_WIDTH(void, pixel_tile_any, pixel_tile,
              (const LOOPORDER* loops, int64_t loop_count, float* const* stack, int64_t first, int64_t width,
               float threshold, double* count, double* mean, double* variance, double* failed),
              (loops, loop_count, stack, first, width, threshold, count, mean, variance, failed))

// W loops side by side over pixels [first, end) (at most kTile of them).
// First each loop's closures over the stretch, computed W pixels at a time
// and laid out pixel by pixel (closures[j * W + g] for loop g at pixel j),
// NaN where a sample is invalid: a closure of three finite floats is never
// NaN, so NaN marks exactly the pixels the loop skips. Then the running
// updates walk the pixels in order, one loop per lane.
template <int W>
SBAS_LANES_INLINE void loop_group(const LOOPORDER* loops, int lanes, float* const* stack, int64_t first, int64_t end,
                                  float* closures, lib::RunningMoments* moments)
{
    using F = typename FloatLanes<W>::F;
    using M = typename FloatLanes<W>::M;
    using V = typename lib::Vectors<W>::V;
    using I = typename lib::Vectors<W>::I;
    const int64_t width = end - first;
    const int64_t whole = width - width % W;
    V count, mean, variance;
    for (int g = 0; g < W; ++g) {
        const int from = g < lanes ? g : 0;  // idle lanes repeat loop 0, never kept
        const float* s01 = stack[loops[from].ifg01] + first;
        const float* s02 = stack[loops[from].ifg02] + first;
        const float* s12 = stack[loops[from].ifg12] + first;
        for (int64_t t = 0; t < whole; t += W) {
            const F a = *reinterpret_cast<const F*>(s01 + t);
            const F b = *reinterpret_cast<const F*>(s02 + t);
            const F c = *reinterpret_cast<const F*>(s12 + t);
            M valid;
            all_valid<W>(valid, a, b, c);
            const F x = valid ? a - b + c : F{} + __builtin_nanf("");
            for (int i = 0; i < W; ++i) closures[(t + i) * W + g] = x[i];
        }
        for (int64_t t = whole; t < width; ++t) {
            const float a = s01[t], b = s02[t], c = s12[t];
            const bool valid = lib::isvalid(a) && lib::isvalid(b) && lib::isvalid(c);
            closures[t * W + g] = valid ? a - b + c : __builtin_nanf("");
        }
        count[g] = moments[from].count;
        mean[g] = moments[from].mean;
        variance[g] = moments[from].variance;
    }
    for (int64_t t = 0; t < width; ++t) {
        const F closure = *reinterpret_cast<const F*>(closures + t * W);
        const I valid = __builtin_convertvector(closure == closure, I);
        const V x = __builtin_convertvector(closure, V);
        const V k = count + 1;
        const V m_old = mean;
        V m_new = ((k - 1) * m_old + x) / k;
        V v_new = (k - 2) * variance / (k - 1) + (m_old - m_new) * (m_old - m_new) + (x - m_new) * (x - m_new) / (k - 1);
        const I opening = k <= 1.5;
        m_new = opening ? x : m_new;
        v_new = opening ? V{} : v_new;
        count = valid ? k : count;
        mean = valid ? m_new : m_old;
        variance = valid ? v_new : variance;
    }
    for (int g = 0; g < lanes; ++g) moments[g] = {count[g], mean[g], variance[g]};
}

template <int W>
SBAS_LANES_INLINE void loop_closures(const LOOPORDER* loops, int64_t loop_count, float* const* stack, int64_t from, int64_t to,
                   lib::RunningMoments* moments)
{
    alignas(64) float closures[kTile * W];
    for (int64_t first = from; first < to; first += kTile) {
        const int64_t end = std::min(to, first + kTile);
        for (int64_t l = 0; l < loop_count; l += W)
            loop_group<W>(loops + l, static_cast<int>(std::min<int64_t>(W, loop_count - l)), stack, first, end,
                          closures, moments + l);
    }
}

SBAS_BY_WIDTH(void, loop_closures_any, loop_closures,
              (const LOOPORDER* loops, int64_t loop_count, float* const* stack, int64_t from, int64_t to,
               lib::RunningMoments* moments),
              (loops, loop_count, stack, from, to, moments))

}  // namespace

void add_pixel_closures(const LOOPORDER* loops, int64_t loop_count, float* const* stack, int64_t first, int64_t end,
                        float threshold, PixelClosure* pixels)
{
    double count[kTile], mean[kTile], variance[kTile], failed[kTile];
    for (int64_t tile = first; tile < end; tile += kTile) {
        const int64_t width = std::min(kTile, end - tile);
        for (int64_t t = 0; t < width; ++t) {
            const PixelClosure& p = pixels[tile + t];
            count[t] = p.closure.count;
            mean[t] = p.closure.mean;
            variance[t] = p.closure.variance;
            failed[t] = p.failed;
        }
        pixel_tile_any(loops, loop_count, stack, tile, width, threshold, count, mean, variance, failed);
        for (int64_t t = 0; t < width; ++t) pixels[tile + t] = {{count[t], mean[t], variance[t]}, failed[t]};
    }
}

void add_loop_closures(const LOOPORDER* loops, int64_t loop_count, float* const* stack, int64_t first, int64_t end,
                       lib::RunningMoments* moments)
{
    if (loop_count > 0 && end > first) loop_closures_any(loops, loop_count, stack, first, end, moments);
}

}  // namespace quality
