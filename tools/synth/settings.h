// The configuration file of a job: ordered `key value` entries.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "synth/synth.h"

namespace synth {

using Entries = std::vector<std::pair<std::string, std::string>>;

// Longest field the configuration reader accepts, characters.
inline constexpr std::size_t max_field = 199;

// True for the keys sbas-ts reads from a configuration.
bool is_config_key(const std::string& word);

// Throws Error unless `value` can be written as the value of `key`: both
// single fields of at most 199 characters without blanks, the key made of
// letters, digits and '_', and the value not itself a configuration key (the
// reader would take it for one).
void check_entry(const std::string& key, const std::string& value);

// Sets `key` to `value` in place (appended when new); an empty value removes
// the key. Throws Error as check_entry.
void apply_setting(Entries& entries, const std::string& key, const std::string& value);

// The value of `key`, or "" when absent.
std::string entry_value(const Entries& entries, const std::string& key);

// Integer value of `key`, or `fallback` when absent. Throws Error when the
// value is not an integer of at most nine digits.
int integer_entry(const Entries& entries, const std::string& key, int fallback);

// The configuration of a job whose paths are set: its files, the sensor,
// the processing settings and the reference (the grid centre unless given),
// every stage but the inversion off, the log origin when the job has one,
// then options.settings applied in order. Throws Error when a path is longer
// than 199 characters or holds a blank, or an entry cannot be written.
Entries job_entries(const Options& options, const Job& job);

// The file text: a comment line, then one `key value` line per entry.
std::string config_text(const Entries& entries);

}  // namespace synth
