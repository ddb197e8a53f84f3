// Ending a run from any thread. A worker inside an OpenMP region may hit a
// fatal input error while its siblings still read files, so the sink takes a
// lock it never releases (later failures wait for the process to end),
// erases a progress line that may stand on a terminal, flushes every stdio
// stream, and leaves with _Exit so that no static destructor runs under a
// live thread. A fuzz harness may take the ending over (set_run_end).
#include "numerics/sink.h"

#include <cstdarg>
#include <cstdlib>
#include <mutex>

#include "numerics/progress.h"

namespace lib {
namespace {

RunEnd run_end = nullptr;  // a harness's way out; none in a run

std::recursive_mutex& sink_lock()
{
    static std::recursive_mutex lock;
    return lock;
}

void enter_sink()
{
    sink_lock().lock();
    progress_clear();
}

[[noreturn]] void end_run()
{
    std::fflush(nullptr);
    if (run_end) {
        sink_lock().unlock();
        run_end();
    }
    std::_Exit(0);
}

void write_message(FILE* stream, const char* format, va_list args)
{
    enter_sink();
    std::vfprintf(stream, format, args);
}

}  // namespace

void die(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    write_message(stderr, format, args);
    va_end(args);
    end_run();
}

void die_stdout(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    write_message(stdout, format, args);
    va_end(args);
    end_run();
}

void out_of_memory() { die("Could not allocate memory!\n"); }

void set_run_end(RunEnd end) { run_end = end; }

}  // namespace lib
