// The command line of sbas-ts: a configuration path, or "license".
#pragma once

namespace app {

// Runs the program for `argc`/`argv` as main receives them; returns the exit
// status.
int run(int argc, char** argv);

}  // namespace app
