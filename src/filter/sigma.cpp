// A Gaussian of width 0 has no frequency to keep: the filters divide 0 by 0
// at the centre of the spectrum and every filtered map comes out NaN (its
// zeros excepted). That is how the filters are defined, kept on purpose, so
// the run only says so at its start. A width that is not a number has no
// meaning at all and is refused before anything is written; an infinite one
// keeps every frequency, so the ".filtered" maps are the maps themselves.
#include "filter/sigma.h"

#include <cmath>
#include <cstdio>
#include <utility>

namespace sbas {

lib::Status check_filter_sigmas(const CFG& cfg)
{
    const int choice = cfg.if_apply_filter;
    const bool spatial = choice == 1 || choice == 3 || choice == 4 || choice == 5;
    const bool temporal = choice >= 2 && choice <= 5;
    const std::pair<const char*, float> used[] = {
        {spatial ? "spatial_filter_sigma" : nullptr, cfg.spatial_filter_sigma},
        {temporal ? "temporal_filter_sigma" : nullptr, cfg.temporal_filter_sigma}};
    for (const auto& [key, sigma] : used) {
        if (!key) continue;
        if (std::isnan(sigma))
            return lib::error(lib::Fault::setting, key, lib::Stream::err,
                              "%s is nan: give a Gaussian width in frequency bins (larger smooths less), or a "
                              "negative value for the default\n",
                              key);
        if (sigma == 0.0f)
            std::fprintf(stderr,
                         "warning: %s is 0: a Gaussian of width 0 makes every filtered map NaN (a negative value "
                         "gives the default width)\n",
                         key);
        else if (std::isinf(sigma) && sigma > 0)
            std::fprintf(stderr,
                         "warning: %s is inf: the filter keeps every frequency, so the filtered maps are the maps "
                         "unfiltered\n",
                         key);
    }
    return {};
}

}  // namespace sbas
