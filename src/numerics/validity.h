// The no-data rule shared by every stage.
//
// Rasters carry no separate no-data value: a sample holds no data when it is
// NaN, infinite, or smaller than 1e-8 in magnitude. Exact zero is therefore
// no-data everywhere, and a stage that makes no estimate writes 0.
#pragma once

#include <cmath>

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

// True unless |x| < 1e-8 (x widened to double), x is NaN or x is infinite.
// A float holding 1e-8 is slightly below 1e-8 once widened, so it is no-data.
inline bool isvalid(const float& x)
{
    const double widened = x;
    return isvalid_double(widened);
}

// The exact negation of isvalid: 1 for no-data, 0 for data.
int isnan_zq(float x);

// True when |x| < 1e-10.
bool iszero(float x);

// x when x > 0, else -x.
float ffabs(float x);

}  // namespace lib
