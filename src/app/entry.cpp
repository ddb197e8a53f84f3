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
#include <vector>

#include <new>

#include "app/banner.h"
#include "app/driver.h"
#include "numerics/error.h"
#include "numerics/ranks.h"
#include "numerics/sink.h"

namespace app {
namespace {

const char kUsage[] =
    "usage: sbas-ts CONFIGURATION_FILE   run the job the file describes\n"
    "       sbas-ts --error-status CONFIGURATION_FILE\n"
    "                                    the same run; one that stops on an error ends\n"
    "                                    with status 1 instead of 0 (use it under a\n"
    "                                    workflow engine or a batch scheduler)\n"
    "       sbas-ts --stage-report CONFIGURATION_FILE\n"
    "                                    the same run, and before its last lines the wall\n"
    "                                    time and the bytes read of every stage (per rank)\n"
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
    bool stage_report = false;
    for (bool option = true; option && argc > first && argv[first];) {
        if (std::strcmp(argv[first], "--error-status") == 0) {
            failure = 1;
            ++first;
        } else if (std::strcmp(argv[first], "--stage-report") == 0) {
            stage_report = true;
            ++first;
        } else {
            option = false;
        }
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
    std::vector<lib::StageCost> costs;
    const lib::Status ran = sbas::sbas_allocate_area(argument, stage_report ? &costs : nullptr);
    if (!ran.ok()) {
        if (lib::ranks().rank == 0) lib::write(ran.error());
        return failure;
    }
    if (stage_report) lib::report_stage_costs(costs);
    const std::time_t finished = std::time(nullptr);
    std::fputs(format_total_time(std::difftime(finished, started)).c_str(), stderr);
    std::fputs("finish!\n", stderr);
    return 0;
}

}  // namespace app
