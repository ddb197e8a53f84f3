// A child's streams go to files while it runs, so that any amount of output
// is fine. On a pseudo-terminal the parent reads while the child runs, so
// that a long output never blocks on a full terminal buffer, until the
// child's side closes (EIO on Linux).
#include "support/child.h"

#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace testing_support {
namespace {

std::string slurp_and_remove(const std::string& path)
{
    std::string text = read_text(path);
    std::remove(path.c_str());
    return text;
}

int temporary_file(char* name)
{
    const int fd = mkstemp(name);
    if (fd < 0) throw std::runtime_error("cannot create a capture file");
    return fd;
}

[[noreturn]] void exec_program(const std::string& program, std::vector<std::string> args, const std::string& cwd)
{
    if (chdir(cwd.c_str()) != 0) _exit(126);
    std::string name = program;
    std::vector<char*> argv{name.data()};
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    execv(name.c_str(), argv.data());
    _exit(127);
}

// Runs body() in a forked child with standard error in a file, or on a
// pseudo-terminal that is read while the child runs.
Outcome run_forked(const std::function<void()>& body, int limit_seconds, bool on_terminal)
{
    char out_name[] = "/tmp/sbas-test-out-XXXXXX";
    char err_name[] = "/tmp/sbas-test-err-XXXXXX";
    const int out_fd = temporary_file(out_name);
    int err_fd = temporary_file(err_name);
    int master = -1;
    if (on_terminal) {
        close(err_fd);
        if (openpty(&master, &err_fd, nullptr, nullptr, nullptr) != 0) throw std::runtime_error("no pseudo-terminal");
        termios mode{};
        tcgetattr(err_fd, &mode);
        mode.c_oflag &= ~static_cast<tcflag_t>(OPOST);
        tcsetattr(err_fd, TCSANOW, &mode);
    }
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        if (master >= 0) close(master);
        dup2(out_fd, STDOUT_FILENO);
        dup2(err_fd, STDERR_FILENO);
        close(out_fd);
        close(err_fd);
        alarm(static_cast<unsigned>(limit_seconds));  // kept across exec
        body();
        std::fflush(nullptr);
        _exit(kReturned);
    }
    close(out_fd);
    close(err_fd);
    Outcome outcome;
    char buffer[4096];
    for (ssize_t n; master >= 0 && (n = read(master, buffer, sizeof buffer)) > 0;)
        outcome.err.append(buffer, static_cast<size_t>(n));
    if (master >= 0) close(master);
    int raw = 0;
    waitpid(pid, &raw, 0);
    outcome.exited = WIFEXITED(raw);
    if (outcome.exited) outcome.status = WEXITSTATUS(raw);
    if (WIFSIGNALED(raw)) outcome.signal = WTERMSIG(raw);
    outcome.timed_out = outcome.signal == SIGALRM;
    outcome.out = slurp_and_remove(out_name);
    outcome.err += slurp_and_remove(err_name);
    return outcome;
}

}  // namespace

Outcome run_in_child(const std::function<void()>& body, int limit_seconds)
{
    return run_forked(body, limit_seconds, false);
}

std::string capture_stderr(const std::function<void()>& body)
{
    char name[] = "/tmp/sbas-test-err-XXXXXX";
    const int capture = temporary_file(name);
    std::fflush(stderr);
    const int saved = dup(STDERR_FILENO);
    dup2(capture, STDERR_FILENO);
    close(capture);
    body();
    std::fflush(stderr);
    dup2(saved, STDERR_FILENO);
    close(saved);
    return slurp_and_remove(name);
}

Outcome run_program(const std::vector<std::string>& args, const std::string& cwd, int limit_seconds,
                    const std::string& program)
{
    return run_forked([&] { exec_program(program, args, cwd); }, limit_seconds, false);
}

Outcome run_program_on_terminal(const std::vector<std::string>& args)
{
    return run_forked([&] { exec_program(SBAS_TS_BIN, args, "."); }, 120, true);
}

TempDir::TempDir()
{
    char name[] = "/tmp/sbas-test-XXXXXX";
    if (!mkdtemp(name)) throw std::runtime_error("cannot create a temporary folder");
    path_ = name;
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void write_text(const std::string& path, const std::string& text) { std::ofstream(path, std::ios::binary) << text; }

std::string read_text(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void write_floats(const std::string& path, const std::vector<float>& values)
{
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(values.data()), static_cast<std::streamsize>(values.size() * 4));
}

std::vector<float> read_floats(const std::string& path)
{
    const std::string bytes = read_text(path);
    std::vector<float> values(bytes.size() / sizeof(float));
    std::copy(bytes.data(), bytes.data() + values.size() * sizeof(float), reinterpret_cast<char*>(values.data()));
    return values;
}

bool file_exists(const std::string& path) { return std::filesystem::exists(path); }

void make_dir(const std::string& path) { std::filesystem::create_directories(path); }

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

std::string mismatch(const std::vector<float>& got, const std::vector<float>& want, double tolerance)
{
    if (got.size() != want.size()) return std::to_string(got.size()) + " samples, not " + std::to_string(want.size());
    for (size_t p = 0; p < want.size(); ++p)
        if (std::isnan(want[p]) ? !std::isnan(got[p])
                                : !(std::fabs(got[p] - want[p]) <= tolerance * std::fabs(want[p])))
            return "sample " + std::to_string(p) + ": " + std::to_string(got[p]) + ", not " + std::to_string(want[p]);
    return "";
}

std::map<std::string, std::string> files_under(const std::string& folder)
{
    namespace fs = std::filesystem;
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(folder))
        if (fs::is_regular_file(entry.symlink_status()))
            files[fs::relative(entry.path(), folder).string()] = read_text(entry.path().string());
    return files;
}

TinyJob::TinyJob(int64_t width, int64_t length)
{
    make_dir(dir_ / "ifg");
    make_dir(dir_ / "result");
    write_text(dir_ / "header.txt", "WIDTH " + std::to_string(width) + "\nFILE_LENGTH " + std::to_string(length) +
                                        "\nX_FIRST 100.0\nY_FIRST 30.0\nX_STEP 0.01\nY_STEP -0.01\n");
}

void TinyJob::add_ifg(const std::string& name, const std::vector<float>& samples)
{
    write_floats(dir_ / ("ifg/" + name), samples);
    names_.push_back(name);
}

std::string TinyJob::config(const std::string& extra) const
{
    std::string list;
    for (const auto& name : names_) list += name + "\n";
    write_text(dir_ / "list.txt", list);
    write_text(dir_ / "config.txt", "resultfolder " + (dir_ / "result") + "\nheaderfile " + (dir_ / "header.txt") +
                                        "\nfilelist " + (dir_ / "list.txt") + "\ndatafolder " + (dir_ / "ifg") +
                                        "\nif_check_loop_closure 0\nif_apply_filter 0\n" + extra);
    return dir_ / "config.txt";
}

}  // namespace testing_support
