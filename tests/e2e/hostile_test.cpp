// Whole runs on inputs a careless or hostile hand could give: links and hard
// links at output names, inputs stored under output names, devices, pipes
// and folders where files are meant, empty lists, over-long fields, short
// files, non-finite numbers, absurd thread counts and batch sizes. Every run
// must end with one message on standard error and status 0 (or finish with a
// note), no signal, no hang, and every input file must hold the same bytes
// afterwards.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cmath>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "support/runs.h"

namespace {

namespace fs = std::filesystem;
using namespace testing_support;

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

TEST(HostileInput, EveryCaseEndsWithOneMessageAndLeavesTheInputsAlone)
{
    const std::string too_long(200, 'x');
    const std::string bperp = "20200101_20200113 10\n20200113_20200125 -20\n20200101_20200125 30\n";
    const std::string map = "culmap-20200125-20200101.disp", a = "geo_20200101_20200113.unw",
                      b = "geo_20200113_20200125.unw", c = "geo_20200101_20200125.unw";
    // The elevation correction with a DEM of the grid's own shape, heights
    // of 100 m unless a case writes others.
    const std::string eds = "if_remove_eds 1\ndemfile @/dem.dem\ndemfile_header @/dem.txt\n";
    const auto dem = [](TinyJob& j, const std::string& header, const std::vector<float>& heights) {
        write_text(j.path("dem.txt"), header);
        write_floats(j.path("dem.dem"), heights);
    };
    const std::string grid = "WIDTH 6\nFILE_LENGTH 4\nX_FIRST 100.0\nY_FIRST 30.0\nX_STEP 0.01\nY_STEP -0.01\n";
    const std::vector<float> hills(24, 100.0f);
    const auto edited = [&](const std::string& from, const std::string& to) {
        return std::string(grid).replace(grid.find(from), from.size(), to);
    };
    // Interferograms valid on the first row only, a gentle slope along it.
    const auto first_row_only = [&](TinyJob& j) {
        std::vector<float> row(24, 0.0f);
        for (int col = 0; col < 6; ++col) row[col] = 1.0f + 0.1f * static_cast<float>(col);
        for (const std::string& name : {a, b, c}) write_floats(j.path("ifg/" + name), row);
    };
    const std::string only_corrections = "if_inverse_time_series 0\n";
    // In every text '@' stands for the job's folder. The configuration, with
    // `extra` lines, is written before `prepare` runs; `argument` is the
    // configuration's path when empty.
    const struct {
        const char* what;
        std::string extra;
        std::function<void(TinyJob&)> prepare;
        std::string argument, message;
        Ending ending;
    } cases[] = {
        {"a link at an output's name is replaced, never written through", "",
         [&](TinyJob& j) { fs::create_symlink("../ifg/" + a, j.result("linear_mean_velocity")); }, "", "", kFinish},
        {"the list stored under an output's name", "filelist @/result/least_square_sigma\n",
         [](TinyJob& j) { fs::copy_file(j.path("list.txt"), j.result("least_square_sigma")); }, "",
         "output @/result/least_square_sigma would overwrite the input @/result/least_square_sigma\n", kStop},
        {"the list stored as the loop-closure check's list of kept interferograms",
         "if_check_loop_closure 1\nfilelist @/result/filelist_used\n",
         [](TinyJob& j) { fs::copy_file(j.path("list.txt"), j.result("filelist_used")); }, "",
         "output @/result/filelist_used would overwrite the input @/result/filelist_used\n", kStop},
        {"the configuration stored under an output's name", "",
         [](TinyJob& j) { fs::copy_file(j.path("config.txt"), j.result("refpoint")); }, "@/result/refpoint",
         "output @/result/refpoint would overwrite the input @/result/refpoint\n", kStop},
        {"a hard link of an interferogram under a map's name", "",
         [&](TinyJob& j) { fs::create_hard_link(j.path("ifg/" + c), j.result(map)); }, "",
         "output @/result/" + map + " would overwrite the input @/ifg/" + c + "\n", kStop},
        {"a hard link of an interferogram under its corrected copy's name",
         "if_remove_orbit 1\nif_use_existing_corrected_ifg 0\n",
         [&](TinyJob& j) { fs::create_hard_link(j.path("ifg/" + a), j.result(a + ".remove_orbit")); }, "",
         "output @/result/" + a + ".remove_orbit would overwrite the input @/ifg/" + a + "\n", kStop},
        {"a header that is a character device", "headerfile /dev/zero\n", nullptr, "",
         "/dev/zero is a character device, not a regular file\n", kStop},
        {"a configuration that is a character device", "", nullptr, "/dev/urandom",
         "/dev/urandom is a character device, not a regular file\n", kStop},
        {"an interferogram that is a named pipe", "",
         [&](TinyJob& j) { fs::remove(j.path("ifg/" + b)), mkfifo(j.path("ifg/" + b).c_str(), 0600); },
         "", "@/ifg/" + b + " is a named pipe, not a regular file\n", kStop},
        {"an output that is a named pipe", "", [](TinyJob& j) { mkfifo(j.result("least_square_sigma").c_str(), 0600); },
         "", "@/result/least_square_sigma is a named pipe, not a regular file\n", kStop},
        {"a list that is a folder", "filelist @/ifg\n", nullptr, "", "@/ifg is a directory, not a regular file\n", kStop},
        {"an empty list", "", [](TinyJob& j) { write_text(j.path("list.txt"), ""); }, "",
         "@/list.txt lists no interferogram: nothing to process\n", kStop},
        {"a data folder that is a file", "datafolder @/header.txt\n", nullptr, "",
         "datafolder @/header.txt is not a folder\n", kStop},
        {"a list name longer than a field holds", "",
         [&](TinyJob& j) { write_text(j.path("list.txt"), a + "\n" + too_long + "_20200113_20200125.unw\n"); }, "",
         "@/list.txt line 2: a field longer than 199 characters is not supported\n", kStop},
        {"a configuration path longer than a field holds", "headerfile /" + too_long + "\n", nullptr, "",
         "@/config.txt line 7: a field longer than 199 characters is not supported\n", kStop},
        {"a baseline that overflows single precision", "if_est_hgt 1\nbaselines @/bperp.txt\n",
         [&](TinyJob& j) { write_text(j.path("bperp.txt"), "20200101_20200113 1e39\n" + bperp); }, "",
         "baseline for 20200101-20200113 not found\n", kStop},
        {"a zero wavelength", "if_est_hgt 1\nwavelength 0\nbaselines @/bperp.txt\n",
         [&](TinyJob& j) { write_text(j.path("bperp.txt"), bperp); }, "",
         "warning: wavelength is 0; the DEM-error term needs a finite nonzero value\n", kFinish},
        {"an infinite constraint weight", "temporal_constraint 1\ntemporal_strength inf\n", nullptr, "",
         "warning: temporal_strength is inf; the temporal constraint needs a positive finite weight\n", kFinish},
        {"a hundred thousand threads", "max_parallel_threads 100000\n", nullptr, "",
         "max_parallel_threads 100000 is more than this machine can run; using ", kFinish},
        {"the largest thread count", "max_parallel_threads 2147483647\n", nullptr, "",
         "max_parallel_threads 2147483647 is more than this machine can run; using ", kFinish},
        {"a log origin at the first date", "temporal_constraint 2\nsimple_log_origin 20200101\n", nullptr, "",
         "simple_log_origin is should be earlier than the first observation date!\n", kStop},
        {"no pixel in a batch", "maxcap 0\n", nullptr, "", "maxcap must be a positive number of pixels (it is 0)\n",
         kStop},
        {"a negative batch", "maxcap -5\n", nullptr, "", "maxcap must be a positive number of pixels (it is -5)\n",
         kStop},
        // Found by the stack loader: the samples the reference window reads
        // are there.
        {"an interferogram one byte short", "ref_row 1\nref_col 1\n",
         [&](TinyJob& j) { fs::resize_file(j.path("ifg/" + b), 95); }, "", "@/ifg/" + b + " file size wrong 95\n", kStop},
        // The list of kept interferograms of an earlier run is re-read after
        // the inversion: the outputs exist and its blank line stops the run.
        {"a broken list of kept interferograms", "",
         [&](TinyJob& j) { write_text(j.result("filelist_used"), a + "\n\n"); }, "",
         "Time series inversion finish****************\n  format error\n", kStop},
        // Corrections that would correct nothing say so.
        {"a DEM beside the grid", eds,
         [&](TinyJob& j) { dem(j, edited("100.0", "10.0"), hills); }, "",
         "warning: demfile @/dem.dem gives no pixel of the grid a usable height (the DEM, longitude 10 to 10.05",
         kFinish},
        {"a DEM of NaN", eds, [&](TinyJob& j) { dem(j, grid, std::vector<float>(24, NAN)); }, "",
         "warning: demfile @/dem.dem gives no pixel of the grid a usable height (every height it gives is 0, NaN or "
         "infinite); the elevation correction changes nothing\n",
         kFinish},
        {"a DEM whose rows run the other way", eds,
         [&](TinyJob& j) { dem(j, edited("-0.01", "0.01"), hills); }, "",
         "warning: demfile @/dem.dem reaches 6 of the 24 pixels of the grid (the DEM's rows or columns run the other way",
         kFinish},
        {"a DEM shorter than its header", eds,
         [&](TinyJob& j) { dem(j, grid, std::vector<float>(10, 100.0f)); }, "",
         "warning: demfile @/dem.dem holds 10 of the 24 samples its header @/dem.txt describes; the missing ones are "
         "read as height 0\n",
         kFinish},
        {"a grid of no longitude step", eds,
         [&](TinyJob& j) { write_text(j.path("header.txt"), edited("X_STEP 0.01", "X_STEP 0")), dem(j, grid, hills); },
         "", "usable height (headerfile @/header.txt has X_STEP 0 and Y_STEP -0.01)", kFinish},
        {"a DEM coarser than the grid", eds,
         [&](TinyJob& j) { dem(j, "WIDTH 4\nFILE_LENGTH 3\nX_FIRST 100.0\nY_FIRST 30.0\nX_STEP 0.02\nY_STEP -0.02\n", hills); },
         "",
         "warning: demfile @/dem.dem reaches 6 of the 24 pixels of the grid (the DEM's samples, 0.02 and -0.02 apart, "
         "leave gaps between them on the grid's, 0.01 and -0.01 apart); the others are corrected as if at height 0\n",
         kFinish},
        {"DEM voids as heights", eds,
         [&](TinyJob& j) {
             std::vector<float> heights = hills;
             heights[3] = heights[4] = -32768.0f;
             heights[5] = NAN;
             dem(j, grid, heights);
         },
         "",
         "warning: demfile @/dem.dem gives 2 pixels of the grid the height -32768 m, the usual void code, which is "
         "used as a height (mark voids as NaN; 1 pixels have a NaN or infinite height)\n",
         kFinish},
        // Sizes a header claims.
        {"a DEM header claiming more than memory", eds,
         [&](TinyJob& j) { dem(j, "WIDTH 2147483647\nFILE_LENGTH 2147483647\nX_STEP 0.01\nY_STEP -0.01\n", hills); },
         "", "demfile_header @/dem.txt describes a DEM of 2147483647 x 2147483647 samples, more than memory holds\n",
         kStop},
        {"a grid header claiming more than memory", "",
         [](TinyJob& j) { write_text(j.path("header.txt"), "WIDTH 2147483647\nFILE_LENGTH 2147483647\n"); }, "",
         "headerfile @/header.txt describes a grid of 2147483647 x 2147483647 pixels, more than memory holds\n",
         kStop},
        {"elevation blocks of a grid in metres", only_corrections + eds + "eds_block_size 1\n",
         [&](TinyJob& j) {
             const std::string metres = "WIDTH 6\nFILE_LENGTH 4\nX_STEP 30000\nY_STEP -30000\n";
             write_text(j.path("header.txt"), metres);
             dem(j, metres, hills);
         },
         "",
         "eds_block_size 1 makes 36000002 x 24000002 blocks on the grid of @/header.txt (X_STEP 30000, Y_STEP "
         "-30000), more than memory holds\n",
         kStop},
        // Ill-posed ramp fits.
        {"a ramp sampling coarser than the grid", only_corrections + "if_remove_orbit 1\norbit_quad_fit_sampling 10\n",
         nullptr, "",
         "warning: 3 of the 3 interferograms have fewer than 6 valid samples at orbit_quad_fit_sampling 10, the first "
         "@/ifg/" + a + "; no ramp is removed from them\n",
         kFinish},
        {"valid samples on one row", only_corrections + "if_remove_orbit 1\norbit_quad_fit_sampling 1\n",
         first_row_only, "", "warning: the ramp fit of 3 of the 3 interferograms is singular", kFinish},
        // Messages that name what is wrong.
        {"no demfile in the configuration", "if_remove_eds 1\n", nullptr, "",
         "demfile is not set in the configuration @/config.txt\n", kStop},
        {"no header in the configuration", "",
         [](TinyJob& j) {
             const std::string config = read_text(j.path("config.txt"));
             const size_t line = config.find("headerfile");
             write_text(j.path("config.txt"), config.substr(0, line) + config.substr(config.find('\n', line) + 1));
         },
         "", "headerfile is not set in the configuration @/config.txt\n", kStop},
        {"an interferogram listed twice", "",
         [&](TinyJob& j) { write_text(j.path("list.txt"), a + "\n" + b + "\n" + a + "\n" + c + "\n"); }, "",
         "@/list.txt names " + a + " twice (lines 1 and 3)\n", kStop},
        // Filter widths.
        {"a spatial filter of width 0", "if_apply_filter 1\nspatial_filter_sigma 0\n", nullptr, "",
         "warning: spatial_filter_sigma is 0: a Gaussian of width 0 makes every filtered map NaN (a negative value "
         "gives the default width)\n",
         kFinish},
        {"a temporal filter of no width at all", "if_apply_filter 3\ntemporal_filter_sigma nan\n", nullptr, "",
         "temporal_filter_sigma is nan: give a Gaussian width in frequency bins (larger smooths less), or a negative "
         "value for the default\n",
         kStop},
        {"a temporal filter of infinite width", "if_apply_filter 2\ntemporal_filter_sigma inf\n", nullptr, "",
         "warning: temporal_filter_sigma is inf: the filter keeps every frequency", kFinish},
        // Another job's files in the result folder.
        {"another job's list of kept interferograms", "if_apply_filter 1\n",
         [](TinyJob& j) { write_text(j.result("filelist_used"), "geo_20190101_20190113.unw\n"); }, "",
         "warning: @/result/filelist_used names 1 interferograms that @/list.txt does not list, the first "
         "geo_20190101_20190113.unw: it was left by another job",
         kFinish},
        {"another grid's closure mask", "if_check_loop_closure 1\n",
         [](TinyJob& j) { write_floats(j.result("phase_loop_closure_mask"), std::vector<float>(10, 0.0f)); }, "",
         "warning: @/result/phase_loop_closure_mask holds 40 bytes, not the 96 of one sample per pixel of the grid of "
         "@/header.txt: it was written for another grid",
         kFinish},
        // A parallel stage reports the first failure in list order, whatever
        // the thread that met it.
        {"two short interferograms corrected by two threads",
         only_corrections + "if_remove_orbit 1\nmax_parallel_threads 3\n",
         [&](TinyJob& j) { fs::resize_file(j.path("ifg/" + b), 50), fs::resize_file(j.path("ifg/" + c), 40); }, "",
         "@/ifg/" + b + " file size wrong 50\n", kStop},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.what);
        TinyJob job(6, 4);
        for (const std::string& name : {a, b, c}) job.add_ifg(name, std::vector<float>(24, 1.5f));
        const std::string config = job.config(with_folder(k.extra, job.folder()));
        if (k.prepare) k.prepare(job);
        const auto before = files_under(job.folder());
        const Outcome o = run_program({k.argument.empty() ? config : with_folder(k.argument, job.folder())}, ".", 30);
        const std::string message = with_folder(k.message, job.folder());
        EXPECT_FALSE(o.timed_out);
        if (k.ending == kFinish) expect_finished(o);
        else expect_stop(o, message, false);
        EXPECT_TRUE(message.empty() || occurrences(o.err, message) == 1) << o.err;
        const auto after = files_under(job.folder());
        for (const auto& [path, bytes] : before) EXPECT_TRUE(after.contains(path) && after.at(path) == bytes) << path;
    }
}

// Too few samples for the six terms of the ramp: nothing is removed, the
// copy is the interferogram (no data as 0).
TEST(HostileInput, ARampOfTooFewSamplesRemovesNothing)
{
    TinyJob job(6, 4);
    std::vector<float> phase(24);
    for (size_t p = 0; p < phase.size(); ++p) phase[p] = 0.5f + 0.25f * static_cast<float>(p % 7);
    phase[9] = NAN;
    job.add_ifg("geo_20200101_20200113.unw", phase);
    job.add_ifg("geo_20200113_20200125.unw", phase);
    const Outcome o = run_program({job.config("if_inverse_time_series 0\nif_remove_orbit 1\norbit_quad_fit_sampling 3\n"
                                              "if_keep_corrected_ifg 1\n")},
                                  ".", 30);
    expect_finished(o);
    phase[9] = 0.0f;
    EXPECT_EQ(read_text(job.result("geo_20200113_20200125.unw.remove_orbit")),
              std::string(reinterpret_cast<const char*>(phase.data()), phase.size() * sizeof(float)));
}

}  // namespace
