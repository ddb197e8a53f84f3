// Building and checking the configuration entries of a job.
//
// The reader of sbas-ts splits lines at blanks, keeps fields up to 199
// characters, and after matching a key also compares its value against the
// keys that follow in its own key list; a value spelled like a key would be
// misread, so such values are refused here.
#include "synth/settings.h"

#include <algorithm>
#include <array>
#include <cctype>

#include "synth/error.h"

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

std::string config_text(const Entries& entries)
{
    std::string text = "# synthetic job written by sbas-synth\n";
    for (const auto& [key, value] : entries) text += key + " " + value + "\n";
    return text;
}

}  // namespace synth
