// sbas-quicklook: quick looks at rasters and at a run on a synthetic job.
//   sbas-quicklook stats RASTER HEADER [WAVELENGTH]
//   sbas-quicklook compare JOBDIR
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "quicklook/quicklook.h"

namespace {

const char* const usage =
    "Usage: sbas-quicklook stats RASTER HEADER [WAVELENGTH]\n"
    "           valid count, min, max, mean, 1st/99th percentiles\n"
    "           (and in millimetres, given the wavelength in metres)\n"
    "       sbas-quicklook compare JOBDIR\n"
    "           errors of JOBDIR/result/ against JOBDIR/truth/\n";

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && (!std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h"))) {
        std::fputs(usage, stdout);
        return 0;
    }
    try {
        if ((argc == 4 || argc == 5) && !std::strcmp(argv[1], "stats")) {
            quicklook::print_stats(argv[2], argv[3], argc == 5 ? std::strtod(argv[4], nullptr) : 0.0);
            return 0;
        }
        if (argc == 3 && !std::strcmp(argv[1], "compare")) {
            quicklook::print_comparison(argv[2]);
            return 0;
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "sbas-quicklook: %s\n", error.what());
        return 2;
    }
    std::fputs(usage, stderr);
    return 2;
}
