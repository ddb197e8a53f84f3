// The stream seeding and the variates of Rng.
//
// A stream's engine is seeded with a splitmix64 hash of (seed, purpose,
// index), which spreads neighbouring indices over unrelated engine states.
// Normal variates use the Box-Muller transform on two uniforms, the first
// taken in (0, 1] so that its logarithm is finite.
#include "synth/random.h"

#include <cmath>
#include <numbers>

namespace synth {
namespace {

std::uint64_t splitmix(std::uint64_t x)
{
    x += 0x9e3779b97f4a7c15ULL;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ULL;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebULL;
    return x ^ (x >> 31);
}

}  // namespace

Rng::Rng(std::uint64_t seed, Stream purpose, std::uint64_t index)
    : engine_(splitmix(splitmix(splitmix(seed) ^ static_cast<std::uint64_t>(purpose)) ^ index))
{
}

double Rng::uniform()
{
    return static_cast<double>(engine_() >> 11) * 0x1.0p-53;
}

std::uint64_t Rng::below(std::uint64_t n)
{
    // Rejection of the top partial block keeps every value equally likely.
    const std::uint64_t limit = UINT64_MAX - UINT64_MAX % n;
    std::uint64_t x;
    do x = engine_();
    while (x >= limit);
    return x % n;
}

double Rng::normal()
{
    if (has_spare_) {
        has_spare_ = false;
        return spare_;
    }
    const double u1 = 1.0 - uniform();
    const double u2 = uniform();
    const double radius = std::sqrt(-2.0 * std::log(u1));
    const double angle = 2.0 * std::numbers::pi * u2;
    spare_ = radius * std::sin(angle);
    has_spare_ = true;
    return radius * std::cos(angle);
}

}  // namespace synth
