// The interferogram list as a run reads it: through the configuration, with
// the dates cut from every name, then the ordered dates with their Modified
// Julian Days and each interferogram's place among them.
#include "app/job.h"
#include "catalogue/dates.h"
#include "config/cfg.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz::write_input("list.txt", data, size);
    fuzz::run([]() -> lib::Status {
        SBAS_TAKE(CFG cfg, lib::loadcfg("config.txt"));
        SBAS_TAKE(const std::vector<DATEORDER> dates, com::getdateorder(cfg));
        return com::readdesignmatrixorder(&cfg, dates);
    });
    return 0;
}
