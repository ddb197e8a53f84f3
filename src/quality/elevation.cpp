// Removal of the elevation-dependent signal.
//
// Part of an interferogram's phase varies with terrain height (a stratified
// atmosphere delays the signal less over high ground). The correction
// estimates that part locally and removes it: the DEM is resampled onto the
// interferogram grid (nearest pixel, heights in kilometres), a straight line
// phase = a + b * height is fitted in each block of a grid of half-overlapping
// blocks (elevation_blocks.cpp), the block lines are interpolated to every
// pixel by inverse squared distance (elevation_idw.cpp), and a + b * height
// is subtracted in single precision. Pixels that failed the loop-closure
// check are NaN in the copy and take part in nothing.
//
// Interferograms are independent: contiguous blocks of the list go to the
// threads of one parallel region, each thread with its own raster and fit
// storage. Every thread writes only its own list entries.
#include <omp.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

#include "catalogue/raster.h"
#include "config/fatal.h"
#include "numerics/arrays.h"
#include "numerics/parallel.h"
#include "numerics/progress.h"
#include "quality/corrections.h"

namespace com {
namespace {

// Working storage of one thread.
struct EdsScratch {
    float* phase = nullptr;          // the interferogram, then its correction
    float* sample_phase = nullptr;   // K samples of a block
    float* sample_height = nullptr;
    EXPCOFF* blocks = nullptr;
    IdwScratch idw;
};

EdsScratch alloc_eds(const HEADER& grid, const HEADER& block_grid)
{
    EdsScratch s;
    const int64_t K = eds_sample_cap(grid, block_grid);
    s.phase = lib::need<float>(pixel_count(grid));
    s.sample_phase = lib::need<float>(K);
    s.sample_height = lib::need<float>(K);
    s.blocks = lib::need<EXPCOFF>(block_count(block_grid));
    alloc_scratch(s.idw, grid, block_grid);
    return s;
}

void free_eds(EdsScratch& s)
{
    std::free(s.phase);
    std::free(s.sample_phase);
    std::free(s.sample_height);
    std::free(s.blocks);
    free_scratch(s.idw);
}

void correct(const HEADER& grid, const HEADER& block_grid, const char* in, const char* out, const float* height,
             const float* mask, EdsScratch& s)
{
    const int64_t pixels = pixel_count(grid);
    read_raster(in, 0, pixels, s.phase);
    for (int64_t p = 0; p < pixels; ++p)
        if (mask[p] > 0.5) s.phase[p] = std::numeric_limits<float>::quiet_NaN();
    estimate_blocks(grid, block_grid, eds_sample_cap(grid, block_grid), s.phase, height, s.sample_phase,
                    s.sample_height, s.blocks);
    subtract_elevation_signal(grid, block_grid, s.blocks, height, s.phase, s.idw);
    write_samples(out, "wb", s.phase, pixels);
}

}  // namespace

float* resample_dem(const CFG& cfg, const HEADER& grid)
{
    const HEADER dem = readheader(cfg.demfile_header);
    const int64_t dem_pixels = pixel_count(dem);
    float* samples = lib::need<float>(dem_pixels);
    FILE* file = lib::fopen_zq(cfg.demfile, "rb");
    if (dem_pixels > 0) {
        const size_t got = std::fread(samples, sizeof(float), static_cast<size_t>(dem_pixels), file);
        (void)got;  // a short DEM leaves the rest at 0
    }
    std::fclose(file);

    const int64_t W = grid.WIDTH;
    const int64_t L = grid.FILE_LENGTH;
    float* height = lib::need<float>(pixel_count(grid));
    for (int64_t u = 0; u < (dem_pixels > 0 ? dem.FILE_LENGTH : 0); ++u) {
        const float y = static_cast<float>(u * dem.Y_STEP + dem.Y_FIRST);
        const int64_t i = std::lround((y - grid.Y_FIRST) / grid.Y_STEP);
        if (i < 0 || i >= L) continue;
        for (int64_t v = 0; v < dem.WIDTH; ++v) {
            const float x = static_cast<float>(v * dem.X_STEP + dem.X_FIRST);
            const int64_t j = std::lround((x - grid.X_FIRST) / grid.X_STEP);
            if (j >= 0 && j < W) height[i * W + j] = samples[u * dem.WIDTH + v] / 1000.0f;
        }
    }
    std::free(samples);
    return height;
}

void remove_heigh_dependent(CFG cfg, HEADER block_grid, const char* in, const char* out, const float* height,
                            const float* mask)
{
    const HEADER grid = readheader(cfg.headerfile);
    EdsScratch scratch = alloc_eds(grid, block_grid);
    correct(grid, block_grid, in, out, height, mask, scratch);
    free_eds(scratch);
}

}  // namespace com

namespace quality {

void bach_removel_height_dependent(CFG* cfg)
{
    const int64_t n = static_cast<int64_t>(cfg->ifg_names.size());
    std::fputs("*********************************************************\n", stderr);
    std::fputs("********Removing elevation dependent signal start********\n", stderr);
    std::fprintf(stderr, "Number of interferograms          : %d \n", static_cast<int>(n));
    std::fprintf(stderr, "Block size to estimate parameters : %d \n", cfg->eds_block_size);
    std::fprintf(stderr, "DEM file used                     : %s \n", cfg->demfile);
    std::fprintf(stderr, "If keep the corrected files       : %d \n", cfg->if_keep_corrected_ifg);
    std::fprintf(stderr, "Number of threads                 : %d \n", cfg->max_parallel_threads);
    // Blocks of no size would have no centres to interpolate between.
    if (cfg->eds_block_size < 1)
        lib::die("eds_block_size must be a positive number of hundredths of a degree (it is %d)\n",
                 cfg->eds_block_size);

    const HEADER grid = com::readheader(cfg->headerfile);
    float* height = com::resample_dem(*cfg, grid);
    float* mask = correction_mask(*cfg, grid);
    const HEADER block_grid = com::eds_block_grid(grid, cfg->eds_block_size);

    lib::progress_begin("Removing elevation dependent signal", n, "interferograms");
#pragma omp parallel num_threads(lib::region_threads(cfg->max_parallel_threads))
    {
        const lib::Block mine = lib::block_of(n, omp_get_num_threads(), omp_get_thread_num());
        com::EdsScratch scratch;
        if (mine.first < mine.end) scratch = com::alloc_eds(grid, block_grid);
        for (int64_t i = mine.first; i < mine.end; ++i) {
            std::string& name = cfg->ifg_names[static_cast<size_t>(i)];
            const com::Path in = com::join_path(cfg->datafolder, name.c_str());
            const com::Path out = com::join_path(cfg->resultfolder, (name + ".remove_hgt").c_str());
            const com::Path both = com::join_path(cfg->resultfolder, (name + ".remove_hgt.remove_orbit").c_str());
            const bool reuse = cfg->if_use_existing_corrected_ifg == 1 &&
                               (lib::opens_for_reading(out.c_str()) ||
                                (cfg->if_remove_orbit == 1 && lib::opens_for_reading(both.c_str())));
            if (!reuse) com::correct(grid, block_grid, in.c_str(), out.c_str(), height, mask, scratch);
            name += ".remove_hgt";
            lib::progress_add(1);
        }
        com::free_eds(scratch);
    }
    lib::progress_end();

    std::snprintf(cfg->datafolder, sizeof cfg->datafolder, "%s", cfg->resultfolder);
    std::fputs("********Removing elevation dependent signal finish*******\n", stderr);
    std::fputs("*********************************************************\n", stderr);
    std::free(height);
    std::free(mask);
}

}  // namespace quality
