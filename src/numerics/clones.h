// Run-time choice of the vector width.
//
// SBAS_VECTOR_CLONES compiles the function it marks for AVX-512, for AVX2
// and for the x86-64 baseline (GCC function multiversioning); the program
// runs the machine's best, so one binary serves every x86-64. It is meant for
// loops over independent elements that the compiler vectorises: the library
// is built with -ffp-contract=off and without reassociation, which hold in
// every clone, so no sum changes order and no multiply-add is fused.
#pragma once

#define SBAS_VECTOR_CLONES __attribute__((target_clones("avx512f", "avx2", "default")))
