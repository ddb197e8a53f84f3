// Basic statistics over samples, and the running mean and variance used by
// the streaming reference searches.
#pragma once

#include <cstdint>
#include <vector>

namespace lib {

// Sum in double over every element (no validity filter) divided by the count;
// NaN for an empty sequence.
double mean(std::vector<float> x);

// Population standard deviation about lib::mean, no validity filter.
double std(std::vector<float> x);

// sqrt(n*Q - S^2) / n over the valid elements of x[0..n-1] (S = sum, Q = sum
// of squares), where n counts the invalid elements too: no-data samples
// shrink the result. The mixed count is intended.
double std_double(int64_t n, const double* x);

// One step of the running mean and sample variance after the k-th sample x
// (k >= 2 counts x). When round_previous_mean is set the previous mean is
// first rounded to float, as the reference-point searches require.
void running_update(double k, double& mean, double& variance, double x, bool round_previous_mean);

}  // namespace lib

namespace com {

// Median of a copy of x (the caller's data is never reordered); NaN when
// empty. An even count averages the two middle values in single precision.
float cal_median(std::vector<float> x);

}  // namespace com
