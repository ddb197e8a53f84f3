// The one error type of the job generator and its helpers.
//
// Every failure (a bad option, an unwritable folder, a malformed header) is
// thrown as synth::Error carrying a one-line message meant for a person; the
// programs print it on standard error and exit with status 2.
#pragma once

#include <stdexcept>
#include <string>

namespace synth {

struct Error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Throws Error(message) unless `condition` holds.
inline void require(bool condition, const std::string& message)
{
    if (!condition) throw Error(message);
}

}  // namespace synth
