// The command line takes one argument. "license" prints the licence notices,
// "--help" a short usage and "--version" the version; anything else is the
// path of a configuration file, run between the banner and the total
// wall-clock time. The clock is read in whole seconds.
//
// This is where a run ends. The error a stage reports comes back here; its
// message is written to its stream and the run ends without "finish!", with
// status 0 as scripts of long standing expect, or 1 when the configuration
// path is preceded by --error-status (for workflow engines and batch
// schedulers, which tell a failed job by its status). A run whose memory
// runs out (numerics/sink.h) ends with the same choice of status; one inside
// a container (a std::vector sized by the input) goes there through the
// new-handler installed here, never through an exception.
#include "app/entry.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#include <new>

#include "app/banner.h"
#include "app/driver.h"
#include "numerics/error.h"
#include "numerics/sink.h"

namespace app {
namespace {

const char kUsage[] =
    "usage: sbas-ts CONFIGURATION_FILE   run the job the file describes\n"
    "       sbas-ts --error-status CONFIGURATION_FILE\n"
    "                                    the same run; one that stops on an error ends\n"
    "                                    with status 1 instead of 0 (use it under a\n"
    "                                    workflow engine or a batch scheduler)\n"
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
    "A run that stops on bad input writes one message and, without --error-status,\n"
    "ends with status 0 like a finished one.\n"
    "Every key, input and output is described in README.md of the sbas-ts sources.\n";

}  // namespace

int run(int argc, char** argv)
{
    int first = 1;
    int failure = 0;
    if (argc > 1 && argv[1] && std::strcmp(argv[1], "--error-status") == 0) {
        first = 2;
        failure = 1;
    }
    if (argc <= first || !argv[first]) {
        std::fputs(kUsage, stderr);
        return failure;
    }
    lib::set_failure_status(failure);
    char argument[1000];
    // A cut path would name another file.
    if (std::strlen(argv[first]) >= sizeof argument) {
        lib::write(lib::error(lib::Fault::setting, "", lib::Stream::err,
                              "the configuration path is longer than %zu characters, which is not supported\n",
                              sizeof argument - 1));
        return failure;
    }
    std::snprintf(argument, sizeof argument, "%s", argv[first]);
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
    const lib::Status ran = sbas::sbas_allocate_area(argument);
    if (!ran.ok()) {
        lib::write(ran.error());
        return failure;
    }
    const std::time_t finished = std::time(nullptr);
    std::fputs(format_total_time(std::difftime(finished, started)).c_str(), stderr);
    std::fputs("finish!\n", stderr);
    return 0;
}

}  // namespace app
