// The configuration reader as a run uses it: the settings with their
// conversions and key-order rule, the header and list it names, the folder
// checks, then the driver's checks before the first stage (thread count,
// interferograms to work on, no output over an input, physical settings).
#include "app/job.h"
#include "app/job_checks.h"
#include "config/cfg.h"
#include "fuzz_support.h"
#include "numerics/parallel.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::write_input("config.txt", data, size);
    fuzz::run([]() -> lib::Status {
        SBAS_TAKE(CFG cfg, lib::loadcfg("config.txt"));
        cfg.max_parallel_threads = lib::usable_threads(cfg.max_parallel_threads);
        SBAS_TRY(sbas::require_interferograms(cfg));
        SBAS_TRY(sbas::refuse_outputs_over_inputs(cfg, "config.txt"));
        sbas::warn_physical_settings(cfg);
        return {};
    });
    return 0;
}
