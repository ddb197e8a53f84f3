// The perpendicular baselines as a run reads them, for the three
// interferograms of the job's list.
#include <cstdlib>

#include "app/job.h"
#include "catalogue/baselines.h"
#include "config/cfg.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::write_input("baselines.txt", data, size);
    fuzz::run([]() -> lib::Status {
        SBAS_TAKE(const CFG cfg, lib::loadcfg("config.txt"));
        SBAS_TAKE(BASELINE* baselines, com::get_baselines(cfg));
        std::free(baselines);
        return {};
    });
    return 0;
}
