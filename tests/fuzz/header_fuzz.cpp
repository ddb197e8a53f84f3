// The raster header as a run reads it: through the configuration, which
// places the reference pixel from latitude and longitude with it, and again
// for the grid size.
#include "app/job.h"
#include "catalogue/header.h"
#include "config/cfg.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::write_input("header.txt", data, size);
    fuzz::run([]() -> lib::Status {
        SBAS_TAKE(const JOB job, app::load_job("config.txt"));
        static_cast<void>(com::pixel_count(job.header));
        return {};
    });
    return 0;
}
