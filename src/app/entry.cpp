// The command line takes one argument. "license" prints the licence notices;
// anything else is the path of a configuration file, run between the banner
// and the total wall-clock time. The clock is read in whole seconds.
#include "app/entry.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#include "app/banner.h"
#include "app/driver.h"

namespace app {

int run(int argc, char** argv)
{
    if (argc < 2 || !argv[1]) {
        std::fputs("usage: sbas-ts CONFIGURATION_FILE\n       sbas-ts license\n", stderr);
        return 0;
    }
    char argument[1000];
    std::snprintf(argument, sizeof argument, "%s", argv[1]);
    if (std::strcmp(argument, "license") == 0) {
        print_license();
        return 0;
    }
    print_banner(stderr);
    const std::time_t started = std::time(nullptr);
    sbas::sbas_allocate_area(argument);
    const std::time_t finished = std::time(nullptr);
    std::fputs(format_total_time(std::difftime(finished, started)).c_str(), stderr);
    std::fputs("finish!\n", stderr);
    return 0;
}

}  // namespace app
