// The files of a job besides the per-date and per-interferogram rasters:
// where they go, the folder, the truth lists and the inputs' text files.
#pragma once

#include <string>
#include <vector>

#include "synth/synth.h"

namespace synth {

// Sets the paths of `job` for the job folder `folder`, made absolute and
// normalised, without a trailing slash.
void locate_files(Job& job, const std::string& folder);

// Makes the job folder ready: absent or empty, or cleared of an earlier
// job's files when `overwrite`; then creates ifg/, result/ and truth/.
// Throws Error when the folder holds other files and !overwrite, or can't be
// made.
void prepare_folder(const Job& job, bool overwrite);

// Writes truth/dates.txt, truth/dem_error (`dz`, when not empty) and
// truth/unwrapping_errors.txt (when the job has any).
void write_truth_lists(const Job& job, const std::vector<float>& dz);

// Writes the two headers, the DEM, the list, the baselines and, last, the
// configuration, so that a job cut short has none.
void write_inputs(const Job& job, const std::vector<float>& dem);

}  // namespace synth
