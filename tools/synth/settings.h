// The configuration file of a job: ordered `key value` entries.
#pragma once

#include <string>
#include <utility>
#include <vector>

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

// The file text: a comment line, then one `key value` line per entry.
std::string config_text(const Entries& entries);

}  // namespace synth
