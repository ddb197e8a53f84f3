// What the two correction stages share: the closure mask. An existing
// corrected copy is told by lib::opens_for_reading, which never waits on a
// named pipe.
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

lib::Result<lib::Owned<float>> correction_mask(const CFG& cfg, const HEADER& grid)
{
    const int64_t pixels = com::pixel_count(grid);
    lib::Owned<float> mask(pixels);
    if (cfg.if_check_loop_closure != 1) return mask;
    const com::Path path = com::join_path(cfg.resultfolder, "phase_loop_closure_mask");
    SBAS_TAKE(const lib::File file, lib::fopen_zq(path.c_str(), "rb"));
    if (pixels > 0) {
        const size_t got = std::fread(mask.get(), sizeof(float), static_cast<size_t>(pixels), file.get());
        (void)got;
    }
    return mask;
}

}  // namespace quality
