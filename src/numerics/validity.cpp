// The magnitude test comes first: a NaN compares unordered and falls through
// to the explicit NaN test, so the three checks together cover every no-data
// form with one threshold for floats and doubles alike.
#include "numerics/validity.h"

#include <cmath>

namespace lib {

bool isvalid_double(const double& x)
{
    if (std::fabs(x) < 1e-8) return false;
    if (std::isnan(x)) return false;
    if (std::isinf(x)) return false;
    return true;
}

bool isvalid(const float& x)
{
    const double widened = x;
    return isvalid_double(widened);
}

int isnan_zq(float x) { return isvalid(x) ? 0 : 1; }

bool iszero(float x) { return std::fabs(static_cast<double>(x)) < 1e-10; }

float ffabs(float x) { return x > 0 ? x : -x; }

}  // namespace lib
