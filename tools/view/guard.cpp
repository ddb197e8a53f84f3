#include "view/guard.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "view/fail.h"
#include "view/rasters.h"

namespace view {

com::FileIdentities job_inputs(const Job& job, const std::string& result_dir, bool interferograms)
{
    com::FileIdentities files;
    for (const std::string* path : {&job.config, &job.headerfile, &job.filelist, &job.baselines})
        if (!path->empty()) com::add_file(files, *path);
    for (const char* name : {"filelist_used", "filelist_deleted", "refpoint"}) com::add_file(files, result_dir + "/" + name);
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(result_dir, error))
        if (quantity_of(entry.path().filename().string())) com::add_file(files, entry.path().string());
    if (interferograms && !job.datafolder.empty())
        for (const Pair& pair : pairs_used(job, result_dir)) com::add_file(files, resolve(job.datafolder, pair.name));
    return files;
}

void claim_outputs(const com::FileIdentities& inputs, const std::vector<std::string>& outputs)
{
    std::vector<std::string> claimed;
    for (const std::string& output : outputs) {
        if (const std::string* input = com::same_file(inputs, output, true))
            fail("output %s would overwrite the input %s", output.c_str(), input->c_str());
        std::error_code error;
        const std::string canonical = std::filesystem::weakly_canonical(output, error).string();
        for (size_t i = 0; i < claimed.size(); ++i)
            if (claimed[i] == canonical) fail("output %s is also given as %s", output.c_str(), outputs[i].c_str());
        claimed.push_back(canonical);
        struct stat st {};
        if (lstat(output.c_str(), &st) == 0 && (S_ISLNK(st.st_mode) || (S_ISREG(st.st_mode) && st.st_nlink > 1)) &&
            unlink(output.c_str()) != 0)
            fail("cannot replace %s: %s", output.c_str(), std::strerror(errno));
    }
}

}  // namespace view
