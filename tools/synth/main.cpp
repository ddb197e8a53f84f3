// sbas-synth: writes a synthetic sbas-ts job with known truth (see --help).
#include <cstdio>
#include <exception>

#include "cli.h"

int main(int argc, char** argv)
{
    try {
        const synth::Command command = synth::parse_command_line(argc - 1, argv + 1);
        if (command.help) {
            std::fputs(synth::usage().c_str(), stdout);
            return 0;
        }
        const synth::Job job = synth::write_job(command.options, command.folder);
        std::printf("wrote %s: %zu dates (%08d .. %08d), %zu interferograms of %d x %d pixels\n",
                    job.folder.c_str(), job.dates.size(), job.dates.front(), job.dates.back(),
                    job.ifgs.size(), job.grid.width, job.grid.length);
        std::printf("run: sbas-ts %s\n", job.config.c_str());
        return 0;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "sbas-synth: %s\n", error.what());
        return 2;
    }
}
