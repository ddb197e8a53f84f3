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

// How the running update takes the previous mean: as it is, or first
// rounded to float (the reference searches keep their means at that
// precision from one interferogram to the next).
enum class PreviousMean { exact, rounded_to_float };

// Running mean and sample variance (divisor count - 1) of a stream of
// samples, in one pass and without storing them.
struct RunningMoments {
    double count = 0;
    double mean = 0;
    double variance = 0;

    // Counts x. The first sample sets mean = x and variance = 0; every later
    // one, with k the new count and m the previous mean:
    //   mean'     = ((k - 1) m + x) / k
    //   variance' = (k - 2) variance / (k - 1) + (m - mean')^2 + (x - mean')^2 / (k - 1)
    // Inline: the loop-closure check calls it for every loop at every pixel.
    void add(double x, PreviousMean previous = PreviousMean::exact)
    {
        count += 1;
        if (count <= 1.5) {
            mean = x;
            variance = 0;
            return;
        }
        const double k = count;
        const double m_old =
            previous == PreviousMean::rounded_to_float ? static_cast<double>(static_cast<float>(mean)) : mean;
        const double m_new = ((k - 1) * m_old + x) / k;
        variance = (k - 2) * variance / (k - 1) + (m_old - m_new) * (m_old - m_new) +
                   (x - m_new) * (x - m_new) / (k - 1);
        mean = m_new;
    }
};

}  // namespace lib

namespace com {

// Median of a copy of x (the caller's data is never reordered); NaN when
// empty. An even count averages the two middle values in single precision.
float cal_median(std::vector<float> x);

}  // namespace com
