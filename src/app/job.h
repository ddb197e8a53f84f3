// Loading a job: the configuration, the raster header it names, the
// reference pixel placed on that grid, the data and result folders, and the
// interferogram list. It sits above the configuration and the catalogue,
// which know nothing of each other; the job is read once, here, and the
// stages receive what it holds.
#pragma once

#include "catalogue/header.h"
#include "config/cfg.h"
#include "numerics/error.h"

// A loaded job: the run record and the grid its header describes.
struct JOB {
    CFG cfg;
    HEADER header;
};

namespace app {

// The configuration file at `path` (lib::read_settings), then in this order:
// the header named by headerfile; the reference pixel placed from ref_lat /
// ref_lon when both lie on the globe (they win over ref_row / ref_col); the
// data and result folders, which must exist ("datafolder %s not exist\n" on
// standard output) and be folders; and the list named by filelist. The first
// problem met is reported.
lib::Result<JOB> load_job(const char* path);

}  // namespace app

namespace lib {

// The run record of load_job, without the grid.
Result<CFG> loadcfg(const char* path);

}  // namespace lib
