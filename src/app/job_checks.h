// Checks of a job that the driver makes before the stages that depend on
// them: no output may overwrite an input, there must be interferograms to
// work on, and the physical settings of the inversion should be usable.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "numerics/error.h"

struct CFG;
struct HEADER;

namespace sbas {

// Calls visit(name) for every file, named relative to cfg.resultfolder, that
// a run with these settings may write, in no particular order. The one list
// of a run's outputs: a stage that writes a new file adds its name here.
// The displacement maps are named for every pair of the list's dates (later,
// earlier), since the loop-closure check may drop the first date.
void for_each_output(const CFG& cfg, const std::function<void(const std::string&)>& visit);

// Reports "output %s would overwrite the input %s\n" (standard error) when an output path of for_each_output is one of the run's
// inputs: the configuration at `config_path`, the header, the list, each
// interferogram, and the baselines and DEM files when a stage reads them.
// Files are compared by device and inode, so another spelling of a path or
// a hard link is caught. An output path is taken as it stands (outputs
// replace a symbolic link rather than write through it); an input is both
// the file it leads to and, when it is a link, the link itself.
lib::Status refuse_outputs_over_inputs(const CFG& cfg, const char* config_path);

// In an MPI run, before any stage writes: rank 0 removes a symbolic link
// standing at an output name (a single process replaces it with the output;
// ranks that write stretches of one file would write through it) and
// reports an output name held by something that is not a regular file, as
// the writer of a single process would (rank 0's status; the caller agrees
// on it with the other ranks before any of them writes). Nothing in a run
// of one process.
lib::Status prepare_spread_outputs(const CFG& cfg);

// Reports "%s lists no interferogram: nothing to process\n" (standard
// error, the list's path) when the record holds no interferogram.
lib::Status require_interferograms(const CFG& cfg);

// Reports "%s is not set in the configuration %s\n" (standard error, the key
// and the configuration's path) when `value`, the path of that key, is
// empty: the key is missing from the file.
lib::Status require_path(const char* key, const char* value, const char* config_path);

// require_path for the files the settings make the run read besides the
// header and the list: baselines with the DEM-error term, demfile and
// demfile_header with the elevation correction.
lib::Status require_stage_paths(const CFG& cfg, const char* config_path);

// Reports "%s names %s twice (lines %zu and %zu)\n" (standard error, the
// list's path) for the first name the list holds twice, in list order:
// the corrections would write one copy over the other.
lib::Status refuse_duplicate_names(const CFG& cfg);

// Reports "headerfile %s describes a grid of %lld x %lld pixels, more than
// memory holds\n" (standard error) when one raster of the grid cannot be
// had, before any stage tries.
lib::Status require_grid_in_memory(const CFG& cfg, const HEADER& grid);

// One warning line when an existing "phase_loop_closure_mask" about to be
// reused (at `path`) does not hold one sample per pixel of the grid: it was
// left by a job on another grid.
void warn_foreign_mask(const CFG& cfg, const HEADER& grid, const char* path);

// One warning line when the list at `used` ("filelist_used", re-read for the
// filters) names interferograms that `listed`, the names of the job's own
// list at `job_list`, does not: it was left by another job. `used_names` is
// what it holds.
void warn_foreign_list(const char* job_list, const std::vector<std::string>& listed,
                       const std::vector<std::string>& used_names, const char* used);

// Writes one warning line on standard error for each setting of the
// inversion that cannot give a number: temporal_strength when a temporal
// constraint is used and it is not a positive finite weight; wavelength,
// orbit_altitude and incidence when the DEM-error term is estimated and one
// is zero or not finite. The run goes on.
void warn_physical_settings(const CFG& cfg);

}  // namespace sbas
