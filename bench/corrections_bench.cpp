// Benchmark of the interferogram corrections on a 1000 x 1000 grid.
//
// Generates a job once (pixels of 0.000833333 degrees, as the ENVISAT example,
// with ramps and an elevation-correlated term) and measures:
//   - the elevation-dependent correction of one interferogram the
//     straightforward way (IDW_COFFS called pixel by pixel) and the way the
//     stage does it (pixels interpolated side by side), and checks that
//     both write the same bytes;
//   - the whole elevation stage and the whole orbital stage over every
//     interferogram of the job, with 1 and 2 threads, per interferogram.
// eds_block_size 2 gives blocks of 0.02 degrees, 24 x 24 pixels, as in the
// example's configuration: 84 x 84 blocks on this grid.
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "app/job.h"
#include "catalogue/header.h"
#include "catalogue/raster.h"
#include "config/cfg.h"
#include "numerics/validity.h"
#include "quality/corrections.h"
#include "synth/synth.h"

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Silences the stages' banners on standard error while they are timed.
struct QuietStderr {
    int saved;
    QuietStderr()
    {
        std::fflush(stderr);
        saved = dup(STDERR_FILENO);
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDERR_FILENO);
        close(null);
    }
    ~QuietStderr()
    {
        std::fflush(stderr);
        dup2(saved, STDERR_FILENO);
        close(saved);
    }
};

std::string read_bytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// The correction of one interferogram with IDW_COFFS pixel by pixel.
void straightforward(const CFG& cfg, const HEADER& grid, const HEADER& block_grid, const char* in, const char* out,
                     const float* height)
{
    const int64_t pixels = com::pixel_count(grid);
    std::vector<float> phase(static_cast<size_t>(pixels));
    lib::ok_or_exit(com::read_raster(in, 0, pixels, phase.data()));
    const int64_t K = com::eds_sample_cap(grid, block_grid);
    std::vector<float> sp(static_cast<size_t>(K)), sh(static_cast<size_t>(K));
    std::vector<EXPCOFF> blocks(static_cast<size_t>(com::block_count(block_grid)));
    com::estimate_blocks(grid, block_grid, K, phase.data(), height, sp.data(), sh.data(), blocks.data());
    std::vector<float> weights(blocks.size());
    for (int64_t r = 0; r < grid.FILE_LENGTH; ++r) {
        for (int64_t q = 0; q < grid.WIDTH; ++q) {
            float& v = phase[static_cast<size_t>(r * grid.WIDTH + q)];
            if (!lib::isvalid(v)) continue;
            const float y = static_cast<float>(r * grid.Y_STEP + grid.Y_FIRST);
            const float x = static_cast<float>(q * grid.X_STEP + grid.X_FIRST);
            const com::LineFit f = com::IDW_COFFS(blocks.data(), block_grid, y, x, 1.0, weights.data());
            if (lib::isvalid(f.a) && lib::isvalid(f.b)) v = (v - f.a) - f.b * height[r * grid.WIDTH + q];
        }
    }
    lib::ok_or_exit(com::write_samples(out, "wb", phase.data(), pixels));
    (void)cfg;
}

}  // namespace

int main(int argc, char** argv)
{
    std::string folder = "/tmp/sbas-bench-corrections";
    bool skip_straightforward = false;
    for (int i = 1; i < argc; ++i) {
        if (!std::strcmp(argv[i], "--folder") && i + 1 < argc) folder = argv[++i];
        else if (!std::strcmp(argv[i], "--fast-only")) skip_straightforward = true;
        else {
            std::fprintf(stderr, "usage: sbas-bench-corrections [--folder DIR] [--fast-only]\n");
            return 2;
        }
    }
    synth::Options o;
    o.width = 1000;
    o.length = 1000;
    o.step = 0.000833333;
    o.dates = 5;
    o.neighbours = 1;
    o.ramps = true;
    o.elevation_term = true;
    o.nodata_fraction = 0.5;
    o.overwrite = true;
    o.settings = {{"eds_block_size", "2"}, {"orbit_quad_fit_sampling", "4"}, {"if_check_loop_closure", "0"},
                  {"if_use_existing_corrected_ifg", "0"}};
    std::filesystem::create_directories(folder);
    const synth::Job job = synth::write_job(o, folder);
    CFG cfg = lib::value_or_exit(lib::loadcfg(job.config.c_str()));
    const HEADER grid = lib::value_or_exit(com::readheader(cfg.headerfile));
    const HEADER block_grid = com::eds_block_grid(grid, cfg.eds_block_size);
    std::printf("grid %lld x %lld, %lld x %lld blocks, %zu interferograms\n", static_cast<long long>(grid.WIDTH),
                static_cast<long long>(grid.FILE_LENGTH), static_cast<long long>(block_grid.WIDTH),
                static_cast<long long>(block_grid.FILE_LENGTH), cfg.ifg_names.size());

    const lib::Owned<float> heights = lib::value_or_exit(com::resample_dem(cfg, grid));
    const float* height = heights.get();
    std::vector<float> mask(static_cast<size_t>(com::pixel_count(grid)), 0.0f);
    const std::string in = job.ifg_folder + "/" + cfg.ifg_names[0];
    const std::string fast_out = folder + "/fast.remove_hgt";
    const std::string plain_out = folder + "/straightforward.remove_hgt";

    auto start = Clock::now();
    lib::ok_or_exit(com::remove_heigh_dependent(cfg, grid, block_grid, in.c_str(), fast_out.c_str(), height, mask.data()));
    const double fast = seconds_since(start);
    std::printf("one interferogram, side by side:    %.2f s\n", fast);
    if (!skip_straightforward) {
        start = Clock::now();
        straightforward(cfg, grid, block_grid, in.c_str(), plain_out.c_str(), height);
        const double plain = seconds_since(start);
        std::printf("one interferogram, pixel by pixel:  %.2f s (%.1f times slower)\n", plain, plain / fast);
        std::printf("outputs identical:                  %s\n",
                    read_bytes(fast_out) == read_bytes(plain_out) ? "yes" : "NO");
    }

    for (int threads : {1, 2}) {
        CFG run = cfg;
        run.max_parallel_threads = threads;
        run.if_remove_eds = 1;
        run.if_remove_orbit = 1;
        double eds = 0, orbit = 0;
        {
            QuietStderr quiet;
            start = Clock::now();
            lib::ok_or_exit(quality::bach_removel_height_dependent(&run, grid));
            eds = seconds_since(start);
            start = Clock::now();
            lib::ok_or_exit(quality::bach_removel_orbit(&run, grid));
            orbit = seconds_since(start);
        }
        const double n = static_cast<double>(cfg.ifg_names.size());
        std::printf("%d thread(s): elevation stage %.2f s per interferogram, orbital stage %.3f s per interferogram\n",
                    threads, eds / n, orbit / n);
    }
    return 0;
}
