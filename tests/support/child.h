// Test support: temporary folders, tiny hand-made jobs, small file helpers,
// and running a piece of code or a program in a child process with its standard output,
// standard error and exit status captured. Fatal input errors end the
// process with status 0, so the tests must look at the streams to tell a
// clean finish from a stop.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace testing_support {

struct Outcome {
    bool exited = false;      // ended by exit, not by a signal
    int status = -1;          // exit status when exited
    int signal = 0;           // signal number otherwise
    bool timed_out = false;   // killed (SIGALRM) for running past its time limit
    std::string out;          // standard output
    std::string err;          // standard error
};

// Exit status of a child whose body returned instead of ending the process.
inline constexpr int kReturned = 77;

// Runs body() in a forked child; the child exits with kReturned when body
// returns, and is killed when it runs past `limit_seconds`. Output is
// captured through files, so any amount is fine. The body must not enter an
// OpenMP parallel region: once this process has started OpenMP threads, the
// runtime hangs in a forked child. Code that returns is captured in-process
// with capture_stderr instead.
Outcome run_in_child(const std::function<void()>& body, int limit_seconds = 120);

// Runs body() in this process and returns what it wrote to standard error.
std::string capture_stderr(const std::function<void()>& body);

// Runs `program` (sbas-ts by default) with `args` in the folder `cwd`; a run
// past `limit_seconds` is killed (a hang is a failure, not a stuck suite).
Outcome run_program(const std::vector<std::string>& args, const std::string& cwd = ".", int limit_seconds = 120,
                    const std::string& program = SBAS_TS_BIN);

// Runs sbas-ts with standard error on a pseudo-terminal (output processing
// off, so "\n" arrives as it was written) and standard output in a file.
// `err` holds every byte written to the terminal.
Outcome run_program_on_terminal(const std::vector<std::string>& args);

// A fresh folder under the system's temporary folder, removed with its
// contents when the object goes out of scope.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

void write_text(const std::string& path, const std::string& text);
std::string read_text(const std::string& path);
void write_floats(const std::string& path, const std::vector<float>& values);
std::vector<float> read_floats(const std::string& path);
bool file_exists(const std::string& path);
void make_dir(const std::string& path);
bool contains(const std::string& text, const std::string& part);

// "" when `got` holds the samples of `want` (NaN matching NaN, others within
// `tolerance` relative), else the first difference.
std::string mismatch(const std::vector<float>& got, const std::vector<float>& want, double tolerance = 0);

// The bytes of every regular file below `folder`, by path relative to it
// (links, pipes and devices are not read).
std::map<std::string, std::string> files_under(const std::string& folder);

// A tiny hand-made job: a header (X_FIRST 100, Y_FIRST 30, steps 0.01 and
// -0.01), a data folder of rasters written sample by sample, a list, a
// result folder and a configuration file.
class TinyJob {
public:
    TinyJob(int64_t width, int64_t length);

    // Writes ifg/<name> with `samples` and appends the name to the list.
    void add_ifg(const std::string& name, const std::vector<float>& samples);

    // Writes the list file from the names added so far (one per line, ending
    // with one line feed) and config.txt: the four paths, the stages that are
    // not under test switched off, then `extra` (later lines win). Returns
    // the configuration's path.
    std::string config(const std::string& extra = "") const;

    std::string path(const std::string& name) const { return dir_ / name; }
    std::string result(const std::string& name) const { return dir_ / ("result/" + name); }
    const std::string& folder() const { return dir_.path(); }

private:
    TempDir dir_;
    std::vector<std::string> names_;
};

}  // namespace testing_support
