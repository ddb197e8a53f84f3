// The DEM of the elevation correction as a run reads it and resamples it
// onto the job's 6 x 4 grid, with the warnings it gives. The input is the
// DEM's header up to the first blank line ("\n\n"), and the DEM raster after
// it. Headers claiming more than 2^20 samples are skipped: the resampling
// visits every claimed sample by design (the rest of a short file reads as
// height 0), and the hostile-input table covers a claim beyond memory.
#include <cstdint>
#include <cstring>
#include <string>

#include "app/job.h"
#include "catalogue/header.h"
#include "config/cfg.h"
#include "fuzz_support.h"
#include "quality/corrections.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t blank = input.find("\n\n");
    const std::string header = input.substr(0, blank);
    const std::string raster = blank == std::string::npos ? "" : input.substr(blank + 2);
    fuzz::write_input("dem.txt", reinterpret_cast<const uint8_t*>(header.data()), header.size());
    fuzz::write_input("dem.dem", reinterpret_cast<const uint8_t*>(raster.data()), raster.size());
    fuzz::run([]() -> lib::Status {
        SBAS_TAKE(JOB job, app::load_job("config.txt"));
        SBAS_TAKE(const HEADER dem, com::readheader("dem.txt"));
        if (com::pixel_count(dem) > (int64_t{1} << 20)) return {};
        std::strcpy(job.cfg.demfile, "dem.dem");
        std::strcpy(job.cfg.demfile_header, "dem.txt");
        SBAS_TAKE(const com::Dem resampled, com::read_dem(job.cfg, job.header));
        com::warn_dem(job.cfg, job.header, resampled);
        return {};
    });
    return 0;
}
