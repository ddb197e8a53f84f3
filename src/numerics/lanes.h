// Vectors of eight doubles for the kernels, and the run-time choice of the
// vector width.
//
// SBAS_VECTOR_CLONES compiles the function it marks for AVX-512, for AVX2
// and for the x86-64 baseline (GCC function multiversioning); the program
// runs the machine's best, so one binary serves every x86-64. Eight lanes
// are one AVX-512 register, two AVX2 registers or four baseline ones. The
// library is built with -ffp-contract=off and without reassociation, which
// hold in every clone: no sum changes order and no multiply-add is fused, so
// each lane does exactly the scalar arithmetic.
#pragma once

#include <cstdint>

#define SBAS_VECTOR_CLONES __attribute__((target_clones("avx512f", "avx2", "default")))

namespace lib {

inline constexpr int kLanes = 8;
typedef double Lanes __attribute__((vector_size(kLanes * sizeof(double))));
typedef int64_t LaneInts __attribute__((vector_size(kLanes * sizeof(int64_t))));
typedef uint64_t LaneBits __attribute__((vector_size(kLanes * sizeof(uint64_t))));
// Lanes at the alignment of a double, for loads and stores of any memory.
typedef double LanesU __attribute__((vector_size(kLanes * sizeof(double)), aligned(sizeof(double))));

// Flags the lanes of v that are infinite or NaN (exponent bits all ones) in
// the top bit of each lane of `carry` (LaneBits), as all_finite does: one
// unit added to the isolated exponent carries into that bit exactly for
// those. Integer operations only, so it stays in vector registers.
#define SBAS_FLAG_NONFINITE(carry, v) \
    ((carry) |= (((LaneBits)(v)) & 0x7ff0000000000000ULL) + 0x0010000000000000ULL)

}  // namespace lib
