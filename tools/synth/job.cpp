// Writing a synthetic job, step by step.
//
// The options are first resolved into a plan (plan.cpp, nuisances.cpp),
// which throws on anything inconsistent before a file is touched. Then the
// folder is made ready, the static fields (DEM, DEM error, body shapes) are
// computed, and each date's phase is computed once and kept in memory
// (date_phases.cpp) while the interferograms are formed from them
// (interferograms.cpp); last come the truth lists and the inputs' text
// files (files.cpp), the configuration at the very end.
#include "synth/date_phases.h"
#include "synth/files.h"
#include "synth/interferograms.h"
#include "synth/plan.h"

namespace synth {

Job write_job(const Options& options, const std::string& folder)
{
    Plan plan = make_plan(options, folder);
    prepare_folder(plan.job, options.overwrite);
    const StaticFields fields = make_static_fields(options, plan.job.bodies);
    {
        const std::vector<std::vector<double>> phase = write_date_phases(options, plan, fields);
        write_interferograms(options, plan, fields, phase);
    }
    write_truth_lists(plan.job, fields.dz);
    write_inputs(plan.job, fields.dem);
    return std::move(plan.job);
}

}  // namespace synth
