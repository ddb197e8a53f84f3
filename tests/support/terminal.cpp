// The parent reads the terminal while the child runs, so that a long output
// never blocks on a full terminal buffer; reading ends when the child's side
// closes (EIO on Linux).
#include "support/terminal.h"

#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace testing_support {

Outcome run_program_on_terminal(const std::vector<std::string>& args, const std::string& cwd)
{
    int master = -1;
    int terminal = -1;
    if (openpty(&master, &terminal, nullptr, nullptr, nullptr) != 0) throw std::runtime_error("no pseudo-terminal");
    termios mode{};
    tcgetattr(terminal, &mode);
    mode.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    tcsetattr(terminal, TCSANOW, &mode);
    char out_name[] = "/tmp/sbas-test-out-XXXXXX";
    const int out_fd = mkstemp(out_name);
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        close(master);
        dup2(out_fd, STDOUT_FILENO);
        dup2(terminal, STDERR_FILENO);
        close(terminal);
        close(out_fd);
        if (chdir(cwd.c_str()) != 0) _exit(126);
        std::vector<std::string> copies = args;
        std::string program = SBAS_TS_BIN;
        std::vector<char*> argv{program.data()};
        for (auto& a : copies) argv.push_back(a.data());
        argv.push_back(nullptr);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
    close(terminal);
    close(out_fd);
    Outcome outcome;
    char buffer[4096];
    for (ssize_t n; (n = read(master, buffer, sizeof buffer)) > 0;) outcome.err.append(buffer, static_cast<size_t>(n));
    close(master);
    int raw = 0;
    waitpid(pid, &raw, 0);
    outcome.exited = WIFEXITED(raw);
    if (outcome.exited) outcome.status = WEXITSTATUS(raw);
    if (WIFSIGNALED(raw)) outcome.signal = WTERMSIG(raw);
    outcome.out = read_text(out_name);
    std::remove(out_name);
    return outcome;
}

}  // namespace testing_support
