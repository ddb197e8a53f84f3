// The command line takes one argument. "license" prints the licence notices,
// "--help" a short usage and "--version" the version; anything else is the
// path of a configuration file, run between the banner and the total
// wall-clock time. The clock is read in whole seconds.
//
// A run whose memory runs out inside a container (a std::vector sized by the
// input) ends with the same message as one whose block allocation fails,
// through the new-handler installed here, never with an exception.
#include "app/entry.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#include <new>

#include "app/banner.h"
#include "app/driver.h"
#include "numerics/sink.h"

namespace app {
namespace {

const char kUsage[] =
    "usage: sbas-ts CONFIGURATION_FILE   run the job the file describes\n"
    "       sbas-ts license              the licence notices\n"
    "       sbas-ts --help | --version\n"
    "\n"
    "The configuration holds `key value` lines. The keys used most:\n"
    "  resultfolder, datafolder, headerfile, filelist   the job's folders and files\n"
    "  ref_row, ref_col (or ref_lat, ref_lon)           reference pixel; else ref_method chooses\n"
    "  temporal_constraint 0|1|2, temporal_strength     none, linear or logarithmic model\n"
    "  if_est_hgt 1, baselines                          DEM-error term from perpendicular baselines\n"
    "  if_check_loop_closure, if_remove_eds, if_remove_orbit, if_stacking, if_apply_filter\n"
    "                                                   the optional stages\n"
    "  maxcap, max_parallel_threads                     pixels per batch (memory), threads\n"
    "Progress and diagnostics go to standard error; a run ends with \"finish!\".\n"
    "Every key, input and output is described in README.md of the sbas-ts sources.\n";

}  // namespace

int run(int argc, char** argv)
{
    if (argc < 2 || !argv[1]) {
        std::fputs(kUsage, stderr);
        return 0;
    }
    char argument[1000];
    // A cut path would name another file.
    if (std::strlen(argv[1]) >= sizeof argument)
        lib::die("the configuration path is longer than %zu characters, which is not supported\n",
                 sizeof argument - 1);
    std::snprintf(argument, sizeof argument, "%s", argv[1]);
    if (std::strcmp(argument, "license") == 0) {
        print_license();
        return 0;
    }
    if (std::strcmp(argument, "--help") == 0) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (std::strcmp(argument, "--version") == 0) {
        std::printf("sbas-ts %s\n", SBAS_VERSION);
        return 0;
    }
    std::set_new_handler([] { lib::out_of_memory(); });
    print_banner(stderr);
    const std::time_t started = std::time(nullptr);
    sbas::sbas_allocate_area(argument);
    const std::time_t finished = std::time(nullptr);
    std::fputs(format_total_time(std::difftime(finished, started)).c_str(), stderr);
    std::fputs("finish!\n", stderr);
    return 0;
}

}  // namespace app
