// The no-data rule shared by every stage.
//
// Rasters carry no separate no-data value: a sample holds no data when it is
// NaN, infinite, or smaller than 1e-8 in magnitude. Exact zero is therefore
// no-data everywhere, and a stage that makes no estimate writes 0.
#pragma once

#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdint>

namespace lib {

// The same rule on a double. The magnitude test comes first: a NaN compares
// unordered and falls through to the explicit NaN test. Inline, because the
// loaders test every sample of every interferogram.
inline bool isvalid_double(const double& x)
{
    if (std::fabs(x) < 1e-8) return false;
    if (std::isnan(x)) return false;
    if (std::isinf(x)) return false;
    return true;
}

// The smallest float whose magnitude is at least 1e-8 once widened to
// double. A float holding 1e-8 is slightly below 1e-8 once widened, so it is
// no-data.
inline constexpr float kSmallestValid = 0x1.5798fp-27f;
static_assert(static_cast<double>(kSmallestValid) >= 1e-8 &&
              static_cast<double>(std::bit_cast<float>(std::bit_cast<uint32_t>(kSmallestValid) - 1)) < 1e-8);

// True unless |x| < 1e-8 (x widened to double), x is NaN or x is infinite:
// tested on the float itself (NaN fails both comparisons), so that loops
// over samples run in vector lanes.
inline bool isvalid(const float& x)
{
    const float magnitude = std::fabs(x);
    return magnitude >= kSmallestValid && magnitude <= FLT_MAX;
}

// True when none of the `count` doubles is infinite or NaN (has an exponent
// field of all ones). Adding one unit to the isolated exponent field carries
// into the sign position exactly for such a value; with only integer
// and/add/or and no early exit the scan runs as vector code.
inline bool all_finite(const double* v, int64_t count)
{
    constexpr uint64_t exponent = 0x7ff0000000000000ULL;
    constexpr uint64_t exponent_unit = 0x0010000000000000ULL;
    uint64_t carry = 0;
    for (int64_t i = 0; i < count; ++i) carry |= (std::bit_cast<uint64_t>(v[i]) & exponent) + exponent_unit;
    return (carry >> 63) == 0;
}

// The exact negation of isvalid: 1 for no-data, 0 for data.
int isnan_zq(float x);

// True when |x| < 1e-10.
bool iszero(float x);

// x when x > 0, else -x.
float ffabs(float x);

}  // namespace lib
