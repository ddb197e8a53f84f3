// The no-data rule shared by every stage.
//
// Rasters carry no separate no-data value: a sample holds no data when it is
// NaN, infinite, or smaller than 1e-8 in magnitude. Exact zero is therefore
// no-data everywhere, and a stage that makes no estimate writes 0.
#pragma once

namespace lib {

// True unless |x| < 1e-8 (x widened to double), x is NaN or x is infinite.
// A float holding 1e-8 is slightly below 1e-8 once widened, so it is no-data.
bool isvalid(const float& x);

// The same rule on a double.
bool isvalid_double(const double& x);

// The exact negation of isvalid: 1 for no-data, 0 for data.
int isnan_zq(float x);

// True when |x| < 1e-10.
bool iszero(float x);

// x when x > 0, else -x.
float ffabs(float x);

}  // namespace lib
