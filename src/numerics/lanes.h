// Vectors of doubles for the kernels, and the run-time choice of their
// width.
//
// A kernel is written once as a template on W, the doubles per vector, and
// SBAS_BY_WIDTH compiles it three times: W = 8 for AVX-512, W = 4 for AVX2,
// W = 2 for the x86-64 baseline, one machine register each; GCC's function
// multiversioning runs the machine's best, so one binary serves every
// x86-64. SBAS_VECTOR_CLONES does the same for plain loops over independent
// elements that the compiler vectorises. The library is built with
// -ffp-contract=off and without reassociation, which hold for every version:
// no sum changes order and no multiply-add is fused, so each lane does
// exactly the scalar arithmetic and every width gives the same bits.
//
// A build may define SBAS_LANE_WIDTH (CMake option of the same name) to
// compile one width alone: that is how the narrower widths are checked on a
// machine that would pick AVX-512.
#pragma once

#include <cstdint>

namespace lib {

template <int W>
struct Vectors {
    typedef double V __attribute__((vector_size(W * sizeof(double))));
    // V at the alignment of a double, for loads and stores of any memory.
    typedef double U __attribute__((vector_size(W * sizeof(double)), aligned(sizeof(double))));
    typedef int64_t I __attribute__((vector_size(W * sizeof(int64_t))));
    typedef uint64_t B __attribute__((vector_size(W * sizeof(uint64_t))));
};

// Flags the lanes of v that are infinite or NaN (exponent bits all ones) in
// the top bit of each lane of `carry` (a Vectors<W>::B), as all_finite does:
// one unit added to the isolated exponent carries into that bit exactly for
// those. Integer operations only, so it stays in vector registers.
template <int W>
[[gnu::always_inline]] inline void flag_nonfinite(typename Vectors<W>::B& carry, typename Vectors<W>::V v)
{
    carry |= ((typename Vectors<W>::B)v & 0x7ff0000000000000ULL) + 0x0010000000000000ULL;
}

}  // namespace lib

#define SBAS_LANES_INLINE [[gnu::always_inline]] inline

// Defines function `name` (returning `type`, taking `params`) to run
// impl<W> args for the machine's width.
#ifdef SBAS_LANE_WIDTH
#define SBAS_BY_WIDTH(type, name, impl, params, args) \
    type name params { return impl<SBAS_LANE_WIDTH> args; }
#define SBAS_VECTOR_CLONES
#else
#define SBAS_BY_WIDTH(type, name, impl, params, args)                                   \
    __attribute__((target("avx512f"))) type name params { return impl<8> args; } \
    __attribute__((target("avx2"))) type name params { return impl<4> args; }    \
    __attribute__((target("default"))) type name params { return impl<2> args; }
#define SBAS_VECTOR_CLONES __attribute__((target_clones("avx512f", "avx2", "default")))
#endif
