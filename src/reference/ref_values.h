// Reference values: one value per interferogram, subtracted from all of its
// samples so that every interferogram refers to the same point or area.
#pragma once

#include <cstdint>
#include <cstdio>

#include "catalogue/header.h"
#include "config/cfg.h"

namespace com {

// Mean of the valid samples in the window of side `window` around pixel
// `index` (flat row-major index) of the open raster, read sample by sample.
// The half width is ceil((window - 1) / 2), so an even window grows to the
// next odd size, and a window below 1 is taken as 1; samples off the grid,
// and samples that cannot be read, are skipped. *std_out (may be null)
// receives the population standard deviation. NaN when the window holds no
// valid sample, as on a header with a non-positive size.
float read_windowed_point(int64_t index, int window, FILE* raster, float* std_out, const HEADER& header);

// The window mean around pixel `index` of every interferogram, list order,
// each reported on standard error. A window without a valid sample is
// reported. Returns a block of n floats (std::free), n = number of
// interferograms (one zero when the list is empty).
lib::Result<float*> get_ref_point_value(const CFG& cfg, const HEADER& header, int64_t index);

// The mean of all valid samples of every interferogram, list order, each
// reported on standard error. An interferogram with no valid sample is
// reported ("Cannot find a valid reference value for %s\n", standard
// output), as is a grid without samples. Returns a block of n floats
// (std::free; one zero when the list is empty).
lib::Result<float*> get_ref_point_value_global_mean(const CFG& cfg, const HEADER& header);

}  // namespace com
