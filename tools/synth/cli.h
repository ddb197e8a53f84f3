// The command line of sbas-synth.
#pragma once

#include <string>

#include "synth/synth.h"

namespace synth {

// A parsed command line.
struct Command {
    Options options;
    std::string folder;  // --out
    bool help = false;   // --help: print usage() and nothing else
};

// Parses the arguments after the program name. Throws Error with a one-line
// message for an unknown option, a missing or malformed value, or no --out.
Command parse_command_line(int argc, const char* const* argv);

// The --help text: every option with its unit and default.
std::string usage();

}  // namespace synth
