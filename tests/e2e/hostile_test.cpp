// Whole runs on inputs a careless or hostile hand could give: links and hard
// links at output names, inputs stored under output names, devices, pipes
// and folders where files are meant, empty lists, over-long fields,
// non-finite numbers and absurd thread counts. Every run must end with one
// message on standard error and status 0 (or finish with a note), no signal, no
// hang, and every input file must hold the same bytes afterwards.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "support/child.h"
#include "support/tiny_job.h"

namespace {

namespace fs = std::filesystem;
using testing_support::Outcome;
using testing_support::read_text;
using testing_support::TinyJob;
using testing_support::write_text;

// The bytes of every regular file under `folder` (links, pipes and devices
// are not read).
std::map<std::string, std::string> contents(const std::string& folder)
{
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(folder))
        if (fs::is_regular_file(entry.symlink_status())) files[entry.path()] = read_text(entry.path());
    return files;
}

std::string with_folder(std::string text, const std::string& folder)
{
    for (size_t at = text.find('@'); at != std::string::npos; at = text.find('@', at + folder.size()))
        text.replace(at, 1, folder);
    return text;
}

size_t occurrences(const std::string& text, const std::string& part)
{
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

enum Ending { kStop, kFinish };  // a stop writes on standard error

struct HostileCase {
    const char* what;
    // Prepares the job and returns the program's argument; the job's
    // config() has been written before.
    std::function<std::string(TinyJob&)> setup;
    std::string message;  // '@' stands for the job's folder
    Ending ending;
};

// Rewrites the configuration with `extra` lines and returns its path.
std::function<std::string(TinyJob&)> config(const std::string& extra)
{
    return [extra](TinyJob& job) { return job.config(with_folder(extra, job.folder())); };
}

const std::string kBaselines = "20200101_20200113 10\n20200113_20200125 -20\n20200101_20200125 30\n";

TEST(HostileInput, EveryCaseEndsWithOneMessageAndLeavesTheInputsAlone)
{
    const std::string too_long(200, 'x');
    const HostileCase cases[] = {
        {"a link at an output's name is replaced, never written through",
         [](TinyJob& job) {
             fs::create_symlink("../ifg/geo_20200101_20200113.unw", job.result("linear_mean_velocity"));
             return job.config();
         },
         "", kFinish},
        {"the list stored under an output's name",
         [](TinyJob& job) {
             fs::copy_file(job.path("list.txt"), job.result("least_square_sigma"));
             return job.config("filelist " + job.result("least_square_sigma") + "\n");
         },
         "output @/result/least_square_sigma would overwrite the input @/result/least_square_sigma\n", kStop},
        {"the list stored as the loop-closure check's list of kept interferograms",
         [](TinyJob& job) {
             fs::copy_file(job.path("list.txt"), job.result("filelist_used"));
             return job.config("if_check_loop_closure 1\nfilelist " + job.result("filelist_used") + "\n");
         },
         "output @/result/filelist_used would overwrite the input @/result/filelist_used\n", kStop},
        {"the configuration stored under an output's name",
         [](TinyJob& job) {
             fs::copy_file(job.config(), job.result("refpoint"));
             return job.result("refpoint");
         },
         "output @/result/refpoint would overwrite the input @/result/refpoint\n", kStop},
        {"a hard link of an interferogram under a map's name",
         [](TinyJob& job) {
             fs::create_hard_link(job.path("ifg/geo_20200101_20200125.unw"), job.result("culmap-20200125-20200101.disp"));
             return job.config();
         },
         "output @/result/culmap-20200125-20200101.disp would overwrite the input @/ifg/geo_20200101_20200125.unw\n",
         kStop},
        {"a hard link of an interferogram under its corrected copy's name",
         [](TinyJob& job) {
             fs::create_hard_link(job.path("ifg/geo_20200101_20200113.unw"),
                                  job.result("geo_20200101_20200113.unw.remove_orbit"));
             return job.config("if_remove_orbit 1\nif_use_existing_corrected_ifg 0\n");
         },
         "output @/result/geo_20200101_20200113.unw.remove_orbit would overwrite the input "
         "@/ifg/geo_20200101_20200113.unw\n",
         kStop},
        {"a header that is a character device", config("headerfile /dev/zero\n"),
         "/dev/zero is a character device, not a regular file\n", kStop},
        {"a configuration that is a character device", [](TinyJob&) { return std::string("/dev/urandom"); },
         "/dev/urandom is a character device, not a regular file\n", kStop},
        {"an interferogram that is a named pipe",
         [](TinyJob& job) {
             fs::remove(job.path("ifg/geo_20200113_20200125.unw"));
             mkfifo(job.path("ifg/geo_20200113_20200125.unw").c_str(), 0600);
             return job.config();
         },
         "@/ifg/geo_20200113_20200125.unw is a named pipe, not a regular file\n", kStop},
        {"an output that is a named pipe",
         [](TinyJob& job) {
             mkfifo(job.result("least_square_sigma").c_str(), 0600);
             return job.config();
         },
         "@/result/least_square_sigma is a named pipe, not a regular file\n", kStop},
        {"a list that is a folder", config("filelist @/ifg\n"), "@/ifg is a directory, not a regular file\n", kStop},
        {"an empty list",
         [](TinyJob& job) {
             const std::string path = job.config();
             write_text(job.path("list.txt"), "");
             return path;
         },
         "@/list.txt lists no interferogram: nothing to process\n", kStop},
        {"a data folder that is a file", config("datafolder @/header.txt\n"),
         "datafolder @/header.txt is not a folder\n", kStop},
        {"a list name longer than a field holds",
         [too_long](TinyJob& job) {
             const std::string path = job.config();
             write_text(job.path("list.txt"), "geo_20200101_20200113.unw\n" + too_long + "_20200113_20200125.unw\n");
             return path;
         },
         "@/list.txt line 2: a field longer than 199 characters is not supported\n", kStop},
        {"a configuration path longer than a field holds", config("headerfile /" + too_long + "\n"),
         "@/config.txt line 7: a field longer than 199 characters is not supported\n", kStop},
        {"a baseline that overflows single precision",
         [](TinyJob& job) {
             write_text(job.path("bperp.txt"), "20200101_20200113 1e39\n" + kBaselines);
             return job.config("if_est_hgt 1\nbaselines " + job.path("bperp.txt") + "\n");
         },
         "baseline for 20200101-20200113 not found\n", kStop},
        {"a zero wavelength",
         [](TinyJob& job) {
             write_text(job.path("bperp.txt"), kBaselines);
             return job.config("if_est_hgt 1\nwavelength 0\nbaselines " + job.path("bperp.txt") + "\n");
         },
         "warning: wavelength is 0; the DEM-error term needs a finite nonzero value\n", kFinish},
        {"an infinite constraint weight", config("temporal_constraint 1\ntemporal_strength inf\n"),
         "warning: temporal_strength is inf; the temporal constraint needs a positive finite weight\n", kFinish},
        {"a hundred thousand threads", config("max_parallel_threads 100000\n"),
         "max_parallel_threads 100000 is more than this machine can run; using ", kFinish},
        {"the largest thread count", config("max_parallel_threads 2147483647\n"),
         "max_parallel_threads 2147483647 is more than this machine can run; using ", kFinish},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        TinyJob job(6, 4);
        for (const char* name : {"geo_20200101_20200113.unw", "geo_20200113_20200125.unw", "geo_20200101_20200125.unw"})
            job.add_ifg(name, std::vector<float>(24, 1.5f));
        job.config();
        const std::string argument = c.setup(job);
        const auto before = contents(job.folder());
        const Outcome o = testing_support::run_program({argument}, ".", 30);
        const std::string message = with_folder(c.message, job.folder());

        EXPECT_FALSE(o.timed_out);
        EXPECT_TRUE(o.exited) << "signal " << o.signal;
        EXPECT_EQ(o.status, 0);
        if (c.ending == kFinish) {
            EXPECT_TRUE(o.err.ends_with("finish!\n")) << o.err;
            if (!message.empty()) {
                EXPECT_EQ(occurrences(o.err, message), 1u) << o.err;
            }
        } else {
            EXPECT_TRUE(o.err.ends_with(message)) << o.err;
            EXPECT_EQ(occurrences(o.err, message), 1u);
            EXPECT_EQ(o.out, "");
        }
        const auto after = contents(job.folder());
        for (const auto& [path, bytes] : before) {
            const auto now = after.find(path);
            EXPECT_TRUE(now != after.end() && now->second == bytes) << path << " changed";
        }
    }
}

}  // namespace
