// Where a job's files go and the text files it holds.
//
// Every path is absolute, since the configuration names them and sbas-ts may
// be started from anywhere. Text is written as the programs read it: one
// entry a line, each line ending with a line feed; baselines carry two
// decimals, the centimetres the plan rounded them to.
#include "synth/files.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "synth/settings.h"

namespace synth {
namespace fs = std::filesystem;

std::string culmap_name(int date, int first_date)
{
    char name[64];
    std::snprintf(name, sizeof name, "culmap-%08d-%08d.disp", date, first_date);
    return name;
}

std::string truth_disp_name(int date)
{
    char name[32];
    std::snprintf(name, sizeof name, "disp-%08d", date);
    return name;
}

std::vector<int> read_dates(const std::string& path)
{
    std::ifstream in(path);
    if (!in) throw Error("cannot open " + path);
    std::vector<int> dates;
    std::string word;
    while (in >> word) {
        char* end = nullptr;
        const long date = std::strtol(word.c_str(), &end, 10);
        if (*end != '\0' || word.size() != 8 || !valid_date(static_cast<int>(date)))
            throw Error("bad date '" + word + "' in " + path);
        dates.push_back(static_cast<int>(date));
    }
    if (dates.empty()) throw Error("no dates in " + path);
    return dates;
}

void locate_files(Job& job, const std::string& folder)
{
    std::string root = fs::absolute(fs::path(folder)).lexically_normal().string();
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    const fs::path base(root);
    job.folder = root;
    job.config = (base / "config.txt").string();
    job.ifg_folder = (base / "ifg").string();
    job.result_folder = (base / "result").string();
    job.truth_folder = (base / "truth").string();
    job.ifg_header = (base / "ifg_header.txt").string();
    job.ifg_list = (base / "ifg_list.txt").string();
    job.baselines = (base / "baselines.txt").string();
    job.dem = (base / "dem.dem").string();
    job.dem_header = (base / "dem_header.txt").string();
}

void prepare_folder(const Job& job, bool overwrite)
{
    const fs::path folder(job.folder);
    std::error_code error;
    if (fs::exists(folder, error)) {
        require(fs::is_directory(folder, error), folder.string() + " exists and is not a folder");
        if (!fs::is_empty(folder, error)) {
            require(overwrite, "folder " + folder.string() +
                                   " is not empty (use --force to replace an earlier job)");
            for (const char* name : {"ifg", "result", "truth"}) fs::remove_all(folder / name, error);
            for (const char* name : {"ifg_header.txt", "ifg_list.txt", "baselines.txt", "dem.dem",
                                     "dem_header.txt", "config.txt"})
                fs::remove(folder / name, error);
        }
    }
    for (const char* name : {"ifg", "result", "truth"}) {
        fs::create_directories(folder / name, error);
        require(!error, "cannot create " + (folder / name).string() + ": " + error.message());
    }
}

void write_truth_lists(const Job& job, const std::vector<float>& dz)
{
    const fs::path truth(job.truth_folder);
    if (!dz.empty()) write_raster((truth / truth_dem_error_name).string(), dz.data(), dz.size());
    std::string text;
    for (int date : job.dates) text += std::to_string(date) + "\n";
    write_text((truth / truth_dates_name).string(), text);
    if (!job.unwrap_errors.empty()) {
        std::string lines = "# interferogram cycles row col radius (pixels)\n";
        for (const UnwrapError& e : job.unwrap_errors)
            lines += job.ifgs[e.ifg] + " " + std::to_string(e.cycles) + " " + format_double(e.row) + " " +
                     format_double(e.col) + " " + format_double(e.radius) + "\n";
        write_text((truth / "unwrapping_errors.txt").string(), lines);
    }
}

void write_inputs(const Job& job, const std::vector<float>& dem)
{
    write_header(job.ifg_header, job.grid);
    write_header(job.dem_header, job.dem_grid);
    write_raster(job.dem, dem.data(), dem.size());
    std::string list;
    std::string baselines;
    for (std::size_t k = 0; k < job.ifgs.size(); ++k) {
        list += job.ifgs[k] + "\n";
        char value[64];
        std::snprintf(value, sizeof value, " %.2f\n", job.bperp[k]);
        baselines += job.ifgs[k] + value;
    }
    write_text(job.ifg_list, list);
    write_text(job.baselines, baselines);
    write_text(job.config, config_text(job.config_entries));
}

}  // namespace synth
