#include "inversion/outputs.h"

#include <cstdio>
#include <ctime>
#include <string>

#include "catalogue/raster.h"

namespace sbas {

void report(const CFG& cfg, const Network& net, int64_t P)
{
    const int64_t threads = cfg.max_parallel_threads;
    const int64_t L = net.L, M = net.M;
    const double memory =
        static_cast<float>(net.N) * (static_cast<float>(P) * 4.0f) / 1048576.0f +
        static_cast<double>(net.N) * 12.0 / 1048576.0 +
        static_cast<float>(threads) * 8.0f * static_cast<float>(L * (L + M) + (L + 2) * M + L + M) / 1048576.0f;
    std::fprintf(stderr, "Number of interferograms        : %d\n", static_cast<int>(net.N));
    std::fprintf(stderr, "Number of pixels to estimate    : %d\n", static_cast<int>(P));
    std::fprintf(stderr, "Number of threads               : %d\n", cfg.max_parallel_threads);
    std::fprintf(stderr, "Number of parameters            : %d\n", static_cast<int>(M));
    std::fprintf(stderr, "Design matrix size              : %d\n", static_cast<int>(threads * M * L));
    std::fprintf(stderr, "Weight matrix size              : %d\n", static_cast<int>(threads * L * L));
    std::fprintf(stderr, "Parameter matrix size           : %d\n", static_cast<int>(threads * M));
    std::fprintf(stderr, "Observation error matrix size   : %d\n", static_cast<int>(threads * L));
    std::fprintf(stderr, "Total memory requirement        : %.2f Mb\n\n", memory);
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    char when[64] = "unknown\n";
    if (gmtime_r(&now, &utc)) asctime_r(&utc, when);
    std::fprintf(stderr, "Started on UTC -> %s", when);
    std::fputs("Please wait ...            \n", stderr);
}

lib::Status write_maps(const CFG& cfg, const Network& net, const std::vector<DATEORDER>& dates, const Maps& maps,
                       int64_t start, int64_t P)
{
    for (int64_t j = 0; j + 1 < net.D; ++j) {
        const std::string name = "culmap-" + std::to_string(static_cast<int>(dates[j + 1].date)) + "-" +
                                 std::to_string(static_cast<int>(dates[0].date)) + ".disp";
        SBAS_TRY(com::write_batch(cfg.resultfolder, name.c_str(), start, maps.cumulative[j], P));
    }
    SBAS_TRY(com::write_batch(cfg.resultfolder, "least_square_sigma", start, maps.sigma, P));

    const lib::Owned<float> velocities(P);
    float* velocity = velocities.get();
    if (net.D >= 2) {
        const double years = (dates[net.D - 1].mjd - dates[0].mjd) / 365.25;
        for (int64_t p = 0; p < P; ++p) velocity[p] = static_cast<float>(maps.cumulative[net.D - 2][p] / years);
    }
    SBAS_TRY(com::write_batch(cfg.resultfolder, "linear_mean_velocity", start, velocity, P));
    if (cfg.if_est_hgt == 1)
        return com::write_batch(cfg.resultfolder, "baseline_dependent_dem_error", start, maps.dem, P);
    return {};
}

}  // namespace sbas
