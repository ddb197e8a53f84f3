#include "numerics/stats.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "numerics/validity.h"

namespace lib {

double mean(std::vector<float> x)
{
    double sum = 0.0;
    for (float v : x) sum += v;
    return sum / static_cast<double>(x.size());
}

double std(std::vector<float> x)
{
    const double m = mean(x);
    double sum = 0.0;
    for (float v : x) sum += (v - m) * (v - m);
    return std::sqrt(sum / static_cast<double>(x.size()));
}

double std_double(int64_t n, const double* x)
{
    double s = 0.0;
    double q = 0.0;
    for (int64_t i = 0; i < n; ++i) {
        if (!isvalid_double(x[i])) continue;
        s += x[i];
        q += x[i] * x[i];
    }
    const double count = static_cast<double>(n);
    return std::sqrt(count * q - s * s) / count;
}

}  // namespace lib

namespace com {

float cal_median(std::vector<float> x)
{
    if (x.empty()) return std::numeric_limits<float>::quiet_NaN();
    std::sort(x.begin(), x.end());
    const size_t n = x.size();
    if (n % 2 == 1) return x[n / 2];
    return (x[n / 2 - 1] + x[n / 2]) * 0.5f;
}

}  // namespace com
