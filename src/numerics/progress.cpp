// The indicator keeps its count in an atomic, so worker threads only add to
// it. Whichever thread finds the last drawing older than a fifth of a second
// and wins the drawing lock redraws; the others go on at once. The line ends
// in a carriage return, never a line feed, and erasing it writes spaces over
// it, which every terminal understands.
#include "numerics/progress.h"

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>

namespace lib {
namespace {

using Clock = std::chrono::steady_clock;

struct Indicator {
    std::atomic<bool> active{false};
    std::atomic<int64_t> done{0};
    std::atomic<int64_t> next_draw_ns{0};  // since `started`
    int64_t total = 0;
    Clock::time_point started;
    std::string label;
    std::string unit;
    std::mutex drawing;
    size_t drawn = 0;  // characters on the terminal line now
};

Indicator& indicator()
{
    static Indicator one;
    return one;
}

constexpr int64_t kRedrawNs = 200'000'000;

std::string clock_text(double seconds)
{
    const auto s = static_cast<long long>(seconds + 0.5);
    char text[32];
    if (s >= 3600) std::snprintf(text, sizeof text, "%lld:%02lld:%02lld", s / 3600, s / 60 % 60, s % 60);
    else std::snprintf(text, sizeof text, "%lld:%02lld", s / 60, s % 60);
    return text;
}

// Caller holds the drawing lock.
void erase(Indicator& ind)
{
    if (ind.drawn == 0) return;
    std::string blank(ind.drawn + 2, ' ');
    blank.front() = '\r';
    blank.back() = '\r';
    std::fwrite(blank.data(), 1, blank.size(), stderr);
    std::fflush(stderr);
    ind.drawn = 0;
}

// Caller holds the drawing lock.
void draw(Indicator& ind, double elapsed)
{
    const int64_t done = std::min(ind.done.load(), ind.total);
    const double share = ind.total > 0 ? static_cast<double>(done) / static_cast<double>(ind.total) : 1.0;
    const double rate = elapsed > 0 ? static_cast<double>(done) / elapsed : 0.0;
    std::string left = "--:--";
    if (rate > 0) left = clock_text(static_cast<double>(ind.total - done) / rate);
    char line[200];
    const int n = std::snprintf(line, sizeof line, "  %s %5.1f%%  %.0f %s/s  %s left", ind.label.c_str(),
                                100.0 * share, rate, ind.unit.c_str(), left.c_str());
    std::string text(1, '\r');
    text.append(line, static_cast<size_t>(std::clamp(n, 0, 199)));
    const size_t width = text.size() - 1;
    if (width < ind.drawn) text += std::string(ind.drawn - width, ' ');
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
    ind.drawn = std::max(width, ind.drawn);
}

}  // namespace

void progress_begin(const char* label, int64_t total, const char* unit)
{
    Indicator& ind = indicator();
    if (!isatty(STDERR_FILENO)) return;
    std::lock_guard<std::mutex> hold(ind.drawing);
    ind.label = label;
    ind.unit = unit;
    ind.total = total;
    ind.done = 0;
    ind.started = Clock::now();
    ind.next_draw_ns = kRedrawNs;
    ind.active = true;
    draw(ind, 0.0);
}

void progress_add(int64_t done)
{
    Indicator& ind = indicator();
    if (!ind.active.load(std::memory_order_relaxed)) return;
    ind.done.fetch_add(done, std::memory_order_relaxed);
    const int64_t now = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - ind.started).count();
    if (now < ind.next_draw_ns.load(std::memory_order_relaxed)) return;
    std::unique_lock<std::mutex> hold(ind.drawing, std::try_to_lock);
    if (!hold.owns_lock() || !ind.active) return;
    ind.next_draw_ns = now + kRedrawNs;
    draw(ind, static_cast<double>(now) * 1e-9);
}

void progress_end()
{
    Indicator& ind = indicator();
    std::lock_guard<std::mutex> hold(ind.drawing);
    ind.active = false;
    erase(ind);
}

void progress_clear()
{
    Indicator& ind = indicator();
    // Waits for a drawing in progress, so the two lines never interleave.
    std::lock_guard<std::mutex> hold(ind.drawing);
    erase(ind);
}

}  // namespace lib
