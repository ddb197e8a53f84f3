// What the two correction stages share: the closure mask and the test for an
// existing corrected copy.
//
// Both corrections leave out of their fits, and mark in their copies, the
// pixels that failed the loop-closure check; when that check is off they see
// a mask of zeros. The mask file is read as it stands: a shorter file leaves
// the rest of the mask at 0, as the driver's own reading does.
#include <cstdio>

#include "catalogue/raster.h"
#include "config/fatal.h"
#include "numerics/arrays.h"
#include "quality/corrections.h"

namespace quality {

float* correction_mask(const CFG& cfg, const HEADER& grid)
{
    const int64_t pixels = com::pixel_count(grid);
    float* mask = lib::need<float>(pixels);
    if (cfg.if_check_loop_closure != 1) return mask;
    const com::Path path = com::join_path(cfg.resultfolder, "phase_loop_closure_mask");
    FILE* file = lib::fopen_zq(path.c_str(), "rb");
    if (pixels > 0) {
        const size_t got = std::fread(mask, sizeof(float), static_cast<size_t>(pixels), file);
        (void)got;
    }
    std::fclose(file);
    return mask;
}

bool opens_for_reading(const char* path)
{
    FILE* file = std::fopen(path, "rb");
    if (!file) return false;
    std::fclose(file);
    return true;
}

}  // namespace quality
