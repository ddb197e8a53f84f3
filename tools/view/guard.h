// No output of sbas-view is ever written over a file it reads. Every command
// gathers the files it reads, then claims each of its outputs before it
// writes the first one: an output that is one of those files (the same
// device and inode: another spelling of the path, a hard link, or a
// symbolic link leading to it) stops the command with a message; a symbolic
// link standing at an output's name, or a file of several hard links, is
// removed so that the output replaces it instead of writing through it.
#pragma once

#include <string>
#include <vector>

#include "catalogue/same_file.h"
#include "view/job.h"

namespace view {

// The configuration, header, list, baselines and, from `result_dir`, the
// lists, the reference report and every raster sbas-ts writes there; with
// `interferograms`, the interferograms of the list the run ended with.
com::FileIdentities job_inputs(const Job& job, const std::string& result_dir, bool interferograms);

// Claims `outputs` as described above (a name given twice is refused too).
void claim_outputs(const com::FileIdentities& inputs, const std::vector<std::string>& outputs);

}  // namespace view
