// Reproducible random numbers for the generator.
//
// Every random quantity of a job is drawn from its own stream, named by the
// job seed, a purpose and an index (a date, an interferogram), so a job does
// not depend on the number of threads nor on the order work is done, and a
// new kind of draw never shifts the others. Uniform and normal variates are
// computed here from the raw 64-bit engine output (not through the standard
// distributions, whose algorithms vary between libraries).
#pragma once

#include <cstdint>
#include <random>
#include <utility>
#include <vector>

namespace synth {

// Purposes of the streams; values are part of the job's reproducibility.
enum class Stream : std::uint64_t {
    dates = 1,
    network = 2,
    bodies = 3,
    hills = 4,
    dem_error = 5,
    baselines = 6,
    elevation = 7,
    nodata_choice = 8,
    unwrap_choice = 9,
    date_noise = 10,
    ifg = 11,
    ifg_noise = 12,
};

class Rng {
public:
    // The stream `purpose`/`index` of job seed `seed`.
    Rng(std::uint64_t seed, Stream purpose, std::uint64_t index = 0);

    // Uniform in [0, 1), 53 random bits.
    double uniform();

    // Uniform in [low, high).
    double uniform(double low, double high) { return low + (high - low) * uniform(); }

    // Uniform integer in [0, n); precondition n >= 1.
    std::uint64_t below(std::uint64_t n);

    // Standard normal (Box-Muller; the second variate of a pair is kept).
    double normal();

    // +1 or -1 with equal odds.
    double sign() { return (engine_() >> 63) ? 1.0 : -1.0; }

private:
    std::mt19937_64 engine_;
    double spare_ = 0.0;
    bool has_spare_ = false;
};

// Moves `count` items, drawn uniformly without replacement, to the front of
// `items` in the order drawn (a partial Fisher-Yates shuffle). Precondition:
// count <= items.size().
template <class T>
void draw_to_front(Rng& rng, std::vector<T>& items, std::size_t count)
{
    for (std::size_t k = 0; k < count; ++k) std::swap(items[k], items[k + rng.below(items.size() - k)]);
}

}  // namespace synth
