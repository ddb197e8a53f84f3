#include "support/child.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <thread>
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

// Waits for `pid` up to `limit_seconds`, then kills it.
int wait_with_limit(pid_t pid, int limit_seconds, bool& timed_out)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(limit_seconds);
    int raw = 0;
    while (waitpid(pid, &raw, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            timed_out = true;
            kill(pid, SIGKILL);
            waitpid(pid, &raw, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return raw;
}

Outcome run_forked(const std::function<void()>& in_child, int limit_seconds)
{
    char out_name[] = "/tmp/sbas-test-out-XXXXXX";
    char err_name[] = "/tmp/sbas-test-err-XXXXXX";
    const int out_fd = mkstemp(out_name);
    const int err_fd = mkstemp(err_name);
    if (out_fd < 0 || err_fd < 0) throw std::runtime_error("cannot create capture files");
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out_fd, STDOUT_FILENO);
        dup2(err_fd, STDERR_FILENO);
        close(out_fd);
        close(err_fd);
        in_child();
        std::fflush(nullptr);
        _exit(kReturned);
    }
    close(out_fd);
    close(err_fd);
    Outcome outcome;
    const int raw = wait_with_limit(pid, limit_seconds, outcome.timed_out);
    outcome.exited = WIFEXITED(raw);
    if (outcome.exited) outcome.status = WEXITSTATUS(raw);
    if (WIFSIGNALED(raw)) outcome.signal = WTERMSIG(raw);
    outcome.out = slurp_and_remove(out_name);
    outcome.err = slurp_and_remove(err_name);
    return outcome;
}

}  // namespace

Outcome run_in_child(const std::function<void()>& body, int limit_seconds)
{
    return run_forked(body, limit_seconds);
}

std::string capture_stderr(const std::function<void()>& body)
{
    char name[] = "/tmp/sbas-test-err-XXXXXX";
    const int capture = mkstemp(name);
    if (capture < 0) throw std::runtime_error("cannot create a capture file");
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

Outcome run_program(const std::vector<std::string>& args, const std::string& cwd, int limit_seconds)
{
    const auto start = [&] {
        if (chdir(cwd.c_str()) != 0) _exit(126);
        std::vector<char*> argv;
        std::string program = SBAS_TS_BIN;
        argv.push_back(program.data());
        std::vector<std::string> copies = args;
        for (auto& a : copies) argv.push_back(a.data());
        argv.push_back(nullptr);
        execv(program.c_str(), argv.data());
        _exit(127);
    };
    return run_forked(start, limit_seconds);
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

void write_text(const std::string& path, const std::string& text)
{
    std::ofstream file(path, std::ios::binary);
    file << text;
}

std::string read_text(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void write_floats(const std::string& path, const std::vector<float>& values)
{
    std::ofstream file(path, std::ios::binary);
    file.write(reinterpret_cast<const char*>(values.data()), static_cast<std::streamsize>(values.size() * sizeof(float)));
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

}  // namespace testing_support
