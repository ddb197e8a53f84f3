// Running the sbas-ts program with its standard error on a pseudo-terminal,
// to see what a person at a terminal sees.
#pragma once

#include <string>
#include <vector>

#include "support/child.h"

namespace testing_support {

// Runs sbas-ts with `args` in `cwd`, standard error on a pseudo-terminal
// (output processing off, so "\n" arrives as it was written) and standard
// output in a file. `err` holds every byte written to the terminal.
Outcome run_program_on_terminal(const std::vector<std::string>& args, const std::string& cwd = ".");

}  // namespace testing_support
