// Building and checking the configuration entries of a job.
//
// The generated entries switch every stage off but the inversion, so a job
// runs as its truth describes; settings given with the options then change,
// add or remove entries in order. The reader of sbas-ts splits lines at
// blanks, keeps fields up to 199 characters, and after matching a key also
// compares its value against the keys that follow in its own key list; a
// value spelled like a key would be misread, so such values are refused here.
#include "synth/settings.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>

#include "synth/raster.h"

namespace synth {

bool is_config_key(const std::string& word)
{
    static const std::array<const char*, 27> keys = {
        "resultfolder", "headerfile", "filelist", "datafolder", "baselines", "demfile",
        "demfile_header", "wavelength", "incidence", "orbit_altitude", "max_parallel_threads",
        "maxcap", "ref_row", "ref_col", "ref_method", "ref_window", "if_check_loop_closure",
        "if_remove_eds", "if_remove_orbit", "if_stacking", "if_apply_filter",
        "if_inverse_time_series", "if_est_hgt", "temporal_constraint", "temporal_strength",
        "simple_log_origin", "minimum_temporal_ifg_ratio"};
    return std::any_of(keys.begin(), keys.end(), [&](const char* key) { return word == key; });
}

void check_entry(const std::string& key, const std::string& value)
{
    const bool key_ok = !key.empty() && std::all_of(key.begin(), key.end(), [](unsigned char c) {
        return std::isalnum(c) || c == '_';
    });
    if (!key_ok) throw Error("bad configuration key '" + key + "'");
    if (key.size() > max_field)
        throw Error("configuration key '" + key + "' is longer than 199 characters");
    if (value.size() > max_field)
        throw Error("value of " + key + " is longer than 199 characters: " + value);
    if (std::any_of(value.begin(), value.end(), [](unsigned char c) { return std::isspace(c); }))
        throw Error("value of " + key + " contains a blank: '" + value + "'");
    if (is_config_key(value))
        throw Error("value of " + key + " may not be the key name '" + value + "'");
}

void apply_setting(Entries& entries, const std::string& key, const std::string& value)
{
    if (!value.empty()) check_entry(key, value);
    else check_entry(key, "0");
    const auto found = std::find_if(entries.begin(), entries.end(),
                                    [&](const auto& entry) { return entry.first == key; });
    if (value.empty()) {
        if (found != entries.end()) entries.erase(found);
    } else if (found != entries.end()) {
        found->second = value;
    } else {
        entries.emplace_back(key, value);
    }
}

std::string entry_value(const Entries& entries, const std::string& key)
{
    for (const auto& entry : entries)
        if (entry.first == key) return entry.second;
    return "";
}

int integer_entry(const Entries& entries, const std::string& key, int fallback)
{
    const std::string text = entry_value(entries, key);
    if (text.empty()) return fallback;
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    require(*end == '\0' && value > -1000000000L && value < 1000000000L,
            key + " must be an integer, not '" + text + "'");
    return static_cast<int>(value);
}

namespace {

std::string path_entry(const std::string& path)
{
    require(path.size() <= max_field,
            "path too long for the configuration (" + std::to_string(path.size()) +
                " characters, at most 199): " + path + " - use a shorter job folder");
    require(path.find_first_of(" \t\r\n") == std::string::npos,
            "the configuration cannot hold a path with blanks: " + path);
    return path;
}

}  // namespace

Entries job_entries(const Options& options, const Job& job)
{
    Entries entries = {
        {"resultfolder", path_entry(job.result_folder)},
        {"headerfile", path_entry(job.ifg_header)},
        {"filelist", path_entry(job.ifg_list)},
        {"datafolder", path_entry(job.ifg_folder)},
        {"baselines", path_entry(job.baselines)},
        {"demfile", path_entry(job.dem)},
        {"demfile_header", path_entry(job.dem_header)},
        {"wavelength", format_double(options.wavelength)},
        {"incidence", format_double(options.incidence)},
        {"orbit_altitude", format_double(options.orbit_altitude)},
        {"max_parallel_threads", std::to_string(options.max_parallel_threads)},
        {"maxcap", std::to_string(options.maxcap)},
        {"ref_row", std::to_string(options.ref_row >= 0 ? options.ref_row : options.length / 2)},
        {"ref_col", std::to_string(options.ref_col >= 0 ? options.ref_col : options.width / 2)},
        {"ref_window", std::to_string(options.ref_window)},
        {"if_check_loop_closure", "0"},
        {"if_remove_eds", "0"},
        {"if_remove_orbit", "0"},
        {"if_stacking", "0"},
        {"if_apply_filter", "0"},
        {"if_inverse_time_series", "1"},
        {"if_est_hgt", "0"},
        {"temporal_constraint", "0"},
        {"temporal_strength", format_double(options.temporal_strength)},
    };
    if (job.log_origin) entries.emplace_back("simple_log_origin", std::to_string(job.log_origin));
    entries.emplace_back("minimum_temporal_ifg_ratio", format_double(options.minimum_temporal_ifg_ratio));
    for (const auto& [key, value] : options.settings) apply_setting(entries, key, value);
    for (const auto& [key, value] : entries) check_entry(key, value);
    return entries;
}

std::string config_text(const Entries& entries)
{
    std::string text = "# synthetic job written by sbas-synth\n";
    for (const auto& [key, value] : entries) text += key + " " + value + "\n";
    return text;
}

}  // namespace synth
