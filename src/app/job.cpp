// A reference point given by latitude and longitude is placed on the nearest
// sample, rounding half away from zero, without checking that it lies on the
// grid: the reference stage reports a pixel off the grid.
#include "app/job.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cmath>

#include "app/job_checks.h"
#include "catalogue/filelist.h"

namespace app {
namespace {

// Pixel index of a coordinate, rounded half away from zero. A degenerate
// grid step gives no finite index; the pixel is then placed off the grid
// (-1), where the reference stage reports it as out of coverage.
int64_t pixel_of(double coordinate, double first, double step)
{
    const double index = std::round((coordinate - first) / step);
    if (!std::isfinite(index) || std::fabs(index) > 9.0e18) return -1;
    return static_cast<int64_t>(index);
}

// The data and result folders must exist, and be folders: a file of that
// name would only fail later, on the first raster opened or written in it.
lib::Status require_folder(const char* key, const char* path)
{
    if (access(path, F_OK) != 0)
        return lib::error(lib::Fault::missing, key, lib::Stream::out, "%s %s not exist\n", key, path);
    struct stat st {};
    if (stat(path, &st) != 0 || !S_ISDIR(st.st_mode))
        return lib::error(lib::Fault::not_regular, key, lib::Stream::err, "%s %s is not a folder\n", key, path);
    return {};
}

}  // namespace

lib::Result<JOB> load_job(const char* path)
{
    SBAS_TAKE(CFG cfg, lib::read_settings(path));
    SBAS_TRY(lib::check_model(cfg));
    SBAS_TRY(sbas::require_path("headerfile", cfg.headerfile, path));
    SBAS_TAKE(const HEADER header, com::readheader(cfg.headerfile));
    if (cfg.ref_lat >= -90 && cfg.ref_lat <= 90 && cfg.ref_lon >= -180 && cfg.ref_lon <= 180) {
        cfg.ref_row = pixel_of(cfg.ref_lat, header.Y_FIRST, header.Y_STEP);
        cfg.ref_col = pixel_of(cfg.ref_lon, header.X_FIRST, header.X_STEP);
    }
    SBAS_TRY(require_folder("datafolder", cfg.datafolder));
    SBAS_TRY(require_folder("resultfolder", cfg.resultfolder));
    SBAS_TRY(sbas::require_path("filelist", cfg.filelist, path));
    SBAS_TRY(com::readfilenamelist(&cfg, cfg.filelist));
    return JOB{std::move(cfg), header};
}

}  // namespace app

namespace lib {

Result<CFG> loadcfg(const char* path)
{
    SBAS_TAKE(JOB job, app::load_job(path));
    return std::move(job.cfg);
}

}  // namespace lib
