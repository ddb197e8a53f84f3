// Ending a run from any thread when memory runs out. A worker inside an
// OpenMP region may fail while its siblings still work, so the sink takes a
// lock it never releases (later failures wait for the process to end),
// erases a progress line that may stand on a terminal, flushes every stdio
// stream, and leaves with _Exit so that no static destructor runs under a
// live thread.
#include "numerics/sink.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "numerics/progress.h"

namespace lib {
namespace {

RunEnd run_end = nullptr;  // a harness's way out; none in a run
std::atomic<int> status_on_failure{0};

std::recursive_mutex& sink_lock()
{
    static std::recursive_mutex lock;
    return lock;
}

}  // namespace

void out_of_memory()
{
    sink_lock().lock();
    progress_clear();
    std::fputs("Could not allocate memory!\n", stderr);
    std::fflush(nullptr);
    if (run_end) {
        sink_lock().unlock();
        run_end();
    }
    std::_Exit(status_on_failure.load());
}

void set_failure_status(int status) { status_on_failure.store(status); }
int failure_status() { return status_on_failure.load(); }

void set_run_end(RunEnd end) { run_end = end; }

}  // namespace lib
