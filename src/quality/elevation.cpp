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
// Interferograms are independent: they go through quality::correct_each,
// each thread with its own raster and fit storage.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

#include "catalogue/raster.h"
#include "config/fatal.h"
#include "numerics/arrays.h"
#include "quality/correct_each.h"
#include "quality/corrections.h"

namespace com {
namespace {

// Working storage of one thread.
struct EdsScratch {
    lib::Owned<float> phase;  // the interferogram, then its correction
    lib::Owned<float> sample_phase;  // K samples of a block
    lib::Owned<float> sample_height;
    lib::Owned<EXPCOFF> blocks;
    IdwScratch idw;

    EdsScratch() = default;
    EdsScratch(EdsScratch&& other) noexcept
        : phase(std::move(other.phase)), sample_phase(std::move(other.sample_phase)),
          sample_height(std::move(other.sample_height)), blocks(std::move(other.blocks)), idw(other.idw)
    {
        other.idw = IdwScratch{};
    }
    EdsScratch& operator=(EdsScratch&&) = delete;
    ~EdsScratch() { free_scratch(idw); }
};

EdsScratch alloc_eds(const HEADER& grid, const HEADER& block_grid)
{
    EdsScratch s;
    const int64_t K = eds_sample_cap(grid, block_grid);
    s.phase = lib::Owned<float>(pixel_count(grid));
    s.sample_phase = lib::Owned<float>(K);
    s.sample_height = lib::Owned<float>(K);
    s.blocks = lib::Owned<EXPCOFF>(block_count(block_grid));
    alloc_scratch(s.idw, grid, block_grid);
    return s;
}

lib::Status correct(const HEADER& grid, const HEADER& block_grid, const char* in, const char* out,
                    const float* height, const float* mask, EdsScratch& s)
{
    const int64_t pixels = pixel_count(grid);
    float* phase = s.phase.get();
    SBAS_TRY(read_raster(in, 0, pixels, phase));
    for (int64_t p = 0; p < pixels; ++p)
        if (mask[p] > 0.5) phase[p] = std::numeric_limits<float>::quiet_NaN();
    estimate_blocks(grid, block_grid, eds_sample_cap(grid, block_grid), phase, height, s.sample_phase.get(),
                    s.sample_height.get(), s.blocks.get());
    subtract_elevation_signal(grid, block_grid, s.blocks.get(), height, phase, s.idw);
    return write_samples(out, "wb", phase, pixels);
}

}  // namespace

lib::Status remove_heigh_dependent(CFG, const HEADER& grid, HEADER block_grid, const char* in, const char* out,
                                   const float* height, const float* mask)
{
    EdsScratch scratch = alloc_eds(grid, block_grid);
    return correct(grid, block_grid, in, out, height, mask, scratch);
}

}  // namespace com

namespace quality {

lib::Status bach_removel_height_dependent(CFG* cfg, const HEADER& grid)
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
        return lib::error(lib::Fault::setting, "eds_block_size", lib::Stream::err,
                          "eds_block_size must be a positive number of hundredths of a degree (it is %d)\n",
                          cfg->eds_block_size);

    SBAS_TAKE(const com::Dem dem, com::read_dem(*cfg, grid));
    com::warn_dem(*cfg, grid, dem);
    const lib::Owned<float>& height = dem.height;
    SBAS_TAKE(const lib::Owned<float> mask, correction_mask(*cfg, grid));
    const HEADER block_grid = com::eds_block_grid(grid, cfg->eds_block_size);
    // The block grid follows from eds_block_size and the grid's steps; a
    // grid in metres read as degrees asks for billions of blocks. Each
    // thread holds about 72 bytes a block.
    if (!lib::fits_in_memory(com::block_count(block_grid), 72))
        return lib::error(lib::Fault::setting, "eds_block_size", lib::Stream::err,
                          "eds_block_size %d makes %lld x %lld blocks on the grid of %s (X_STEP %g, Y_STEP %g), more "
                          "than memory holds\n",
                          cfg->eds_block_size, static_cast<long long>(block_grid.WIDTH),
                          static_cast<long long>(block_grid.FILE_LENGTH), cfg->headerfile, grid.X_STEP, grid.Y_STEP);

    const bool reuse_existing = cfg->if_use_existing_corrected_ifg == 1;
    SBAS_TRY(correct_each(
        cfg, "Removing elevation dependent signal", ".remove_hgt", [&] { return com::alloc_eds(grid, block_grid); },
        [&](int64_t, const std::string& name, const com::Path& in, const com::Path& out,
            com::EdsScratch& scratch) -> lib::Status {
            const com::Path both = com::join_path(cfg->resultfolder, (name + ".remove_hgt.remove_orbit").c_str());
            const bool reuse = reuse_existing && (lib::opens_for_reading(out.c_str()) ||
                                                  (cfg->if_remove_orbit == 1 && lib::opens_for_reading(both.c_str())));
            if (reuse) return {};
            return com::correct(grid, block_grid, in.c_str(), out.c_str(), height.get(), mask.get(), scratch);
        }));

    std::fputs("********Removing elevation dependent signal finish*******\n", stderr);
    std::fputs("*********************************************************\n", stderr);
    return {};
}

}  // namespace quality
