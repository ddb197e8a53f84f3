// The helpers around the no-data rule; the rule itself is inline in the
// header.
#include "numerics/validity.h"

#include <cmath>

namespace lib {

int isnan_zq(float x) { return isvalid(x) ? 0 : 1; }

bool iszero(float x) { return std::fabs(static_cast<double>(x)) < 1e-10; }

float ffabs(float x) { return x > 0 ? x : -x; }

}  // namespace lib
