// Loop-closure check and interferogram rejection.
//
// Three interferograms that join three dates d0 < d1 < d2 close a loop: at
// every pixel the closure phi(d0,d1) - phi(d0,d2) + phi(d1,d2), formed in
// single precision, is zero up to noise unless one of them holds an
// unwrapping error, which shows as a multiple of 2 pi. Loops are found over
// the list in index order: for each pair i < j that shares a date, only the
// first later interferogram k whose dates both lie among the pair's three
// dates closes it, so every triangle is found once, from its two lowest
// indices.
//
// The grid is read in batches of maxcap pixels, every interferogram at once,
// and every loop is visited at every pixel of the batch. Nothing is stored
// per closure value: each pixel keeps a running count, mean and sample
// variance of its closures and a count of failed loops (|closure| above
// loop_misclosure_threshold); each loop keeps the same running moments over
// its pixels. A pixel sees its loops in enumeration order and a loop sees
// its pixels in pixel order whatever the batch size, so the statistics, and
// every output byte, do not depend on maxcap.
//
// After the last batch, the per-pixel standard deviations give the pixel
// threshold (mean + confidence_level x deviation, when it is asked for
// automatically), and every interferogram's mean loop deviation over its
// loops gives the interferogram threshold the same way. Interferograms at or
// above it are rejected. When nothing forms a loop both thresholds become
// 6.28, about 2 pi, whatever was configured.
//
// The three rasters written at the end pass every value through one scratch
// float, in the order std, failed ratio, mask. An under-looped pixel of a run
// that allows them takes the scratch value as it stands: the mask value of
// the pixel before it, or for pixel 0 the failed ratio of the last pixel.
// The carry-over is kept on purpose (earlier runs' masks have it);
// LoopClosure.UnderLoopedPixelsCarryTheScratchValue pins it.
#include "quality/loop_closure.h"

#include <omp.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "catalogue/filelist.h"
#include "catalogue/header.h"
#include "catalogue/raster.h"
#include "catalogue/stack.h"
#include "numerics/arrays.h"
#include "numerics/parallel.h"
#include "numerics/progress.h"
#include "numerics/ranks.h"
#include "numerics/stats.h"
#include "numerics/validity.h"
#include "quality/closure_kernels.h"
#include "quality/loop_enumeration.h"

namespace quality {
namespace {

// An interferogram's loops (with at least one valid pixel) and the sum of
// their closure deviations, later their mean.
struct IfgClosure {
    double loops;
    double std_sum;
};

// Pixels written per chunk of an output raster: the rasters are formed
// from the accumulators a chunk at a time, never whole.
constexpr int64_t kChunkPixels = 1 << 16;

// Pixels between two counts of the progress indicator.
constexpr int64_t kProgressPixels = 1 << 14;

constexpr float kNoLoopThreshold = 6.28f;
constexpr double kNoLoopStd = 9999.0;

lib::Result<std::vector<LOOPORDER>> loops_of(const CFG& cfg)
{
    const size_t n = cfg.ifg_names.size();
    std::vector<int64_t> first(n), second(n);
    for (size_t k = 0; k < n; ++k) {
        first[k] = com::phsfilename2date(cfg.ifg_names[k].c_str(), 1);
        second[k] = com::phsfilename2date(cfg.ifg_names[k].c_str(), 2);
    }
    return quality::find_loops(first, second);
}

void print_settings(const CFG& cfg)
{
    std::fputs("*********************************************************\n"
               "*****Checking unwrapping error by loop closure start*****\n"
               "******************Pixel by pixel checking****************\n",
               stderr);
    std::fprintf(stderr, "Loop_misclosure_threshod       : %.2f\n", cfg.loop_misclosure_threshold);
    std::fprintf(stderr, "Loop_misclosure_ratio_threshod : %.2f\n", cfg.loop_misclosure_ratio_threshod);
    std::fprintf(stderr, "Minimun_loop_num               : %d\n", cfg.minimun_loop_num);
    std::fprintf(stderr, "If_allow_unlooped_pixel        : %d\n", cfg.if_allow_unlooped_pixel);
    std::fprintf(stderr, "If_allow_unlooped_ifgs         : %d\n", cfg.if_allow_unlooped_ifgs);
    std::fprintf(stderr, "Whole_ifg_closure_std_threshod : %.3f\n", cfg.whole_ifg_closure_std_threshold);
    std::fprintf(stderr, "Loop_closure_mean_std_threshold: %.3f\n", cfg.loop_closure_mean_std_threshold);
}

// The progress lines users' logs hold for loop l of n ("  Progress  20%"),
// erasing the indicator's line before each.
void print_progress_lines(size_t l, size_t n, const std::array<long, 4>& marks)
{
    const auto line = [](const char* text) {
        lib::progress_clear();
        std::fputs(text, stderr);
    };
    const long at = static_cast<long>(l);
    if (l == 0) line("  Progress   0%\n");
    if (at == marks[0]) line("  Progress  20%\n");
    if (at == marks[1]) line("  Progress  40%\n");
    if (at == marks[2]) line("  Progress  60%\n");
    if (at == marks[3]) line("  Progress  80%\n");
    if (l == n - 1) line("  Progress 100%\n");
}

// Writes folder "/" name with value(p) for every pixel p, a chunk at a time,
// passing each value through `scratch` as it goes.
template <typename Value>
lib::Status write_pixels(const char* folder, const char* name, int64_t pixels, float& scratch, Value value)
{
    std::vector<float> chunk(static_cast<size_t>(std::min(pixels, kChunkPixels)));
    return lib::for_each_batch(pixels, kChunkPixels, [&](const lib::Batch& part) {
        for (int64_t p = part.first; p < part.end; ++p) {
            value(p, scratch);
            chunk[static_cast<size_t>(p - part.first)] = scratch;
        }
        return com::write_batch(folder, name, part.first, chunk.data(), part.end - part.first);
    });
}

// Closes a text output; a failed write (a full disk) is reported rather than
// leave a shortened list behind.
lib::Status close_text(lib::File& stream, const char* path)
{
    const bool failed = std::ferror(stream.get()) != 0;
    if (std::fclose(stream.release()) != 0 || failed) return com::write_error(path);
    return {};
}

// What an automatic threshold is made of: the running mean and the standard
// deviation of the values counted, and whether any value was counted.
struct Spread {
    double mean = 0;
    double std = 0;
    bool counted = false;
};

Spread spread(const lib::RunningMoments& moments)
{
    return {moments.mean, std::sqrt(moments.variance), moments.count > 0.5};
}

// What the pass over the pixels gathers: per pixel, per loop and, once the
// loops are summed up, per interferogram.
struct Closures {
    lib::Owned<PixelClosure> pixels;
    lib::Owned<lib::RunningMoments> loops;
    lib::Owned<IfgClosure> ifgs;
};

// Step 1: every loop at every pixel, a batch of maxcap pixels at a time.
// The two passes over one batch: every pixel through the loops, and every
// loop through the pixels, on all threads.
void add_batch(const CFG& cfg, const std::vector<LOOPORDER>& loops, float* const* stack, int64_t width,
               PixelClosure* pixels, lib::RunningMoments* moments, bool loop_pass)
{
    const size_t n_loops = loops.size();
    lib::progress_begin("Loop closure", 2 * width, "pixels");
#pragma omp parallel num_threads(lib::region_threads(cfg.max_parallel_threads))
    {
        const int threads = omp_get_num_threads();
        const int thread = omp_get_thread_num();
        const lib::Block own = lib::block_of(width, threads, thread);
        for (int64_t first = own.first; first < own.end; first += kProgressPixels) {
            const int64_t end = std::min(own.end, first + kProgressPixels);
            add_pixel_closures(loops.data(), static_cast<int64_t>(n_loops), stack, first, end,
                               cfg.loop_misclosure_threshold, pixels);
            lib::progress_add(end - first);
        }
        const lib::Block mine = lib::block_of(static_cast<int64_t>(n_loops), threads, thread);
        for (int64_t first = 0; loop_pass && first < width; first += kProgressPixels) {
            const int64_t end = std::min(width, first + kProgressPixels);
            add_loop_closures(loops.data() + mine.first, mine.end - mine.first, stack, first, end,
                              moments + mine.first);
            if (thread == 0) lib::progress_add(end - first);
        }
    }
    lib::progress_end();
}

// Step 1: every loop at every pixel, a batch of maxcap pixels at a time.
// In an MPI run batch k is rank (k - 1) mod R's, in rounds: the pixels of
// a batch are independent of other batches, while a loop takes its pixels
// in pixel order, so the loops' running state is handed on from the rank of
// one batch to the rank of the next, and rank 0 gathers the pixels' state.
lib::Status accumulate(const CFG& cfg, const HEADER& header, const float* reference_values,
                       const std::vector<LOOPORDER>& loops, Closures& closures, com::HeldBatch* held,
                       com::HeldBatch* read)
{
    const int64_t pixel_total = com::pixel_count(header);
    const int64_t n_ifg = static_cast<int64_t>(cfg.ifg_names.size());
    const size_t n_loops = loops.size();
    const double share = static_cast<double>(n_loops);
    const std::array<long, 4> marks = {std::lround(0.2 * share), std::lround(0.4 * share), std::lround(0.6 * share),
                                       std::lround(0.8 * share)};
    const float total = lib::batch_total(header.WIDTH, header.FILE_LENGTH, cfg.maxcap);
    lib::RunningMoments* moments = closures.loops.get();
    const size_t state_bytes = n_loops * sizeof(lib::RunningMoments);
    const auto one_batch = [&](const lib::Batch& batch, int from, int to) -> lib::Status {
        std::fprintf(stderr, "\n=>Caculating phase closure maps batch %d / %.0f\n", batch.number, total);
        lib::Result<float**> loaded = com::readallfile_nomask(cfg, batch.first, batch.end, reference_values);
        float** stack = loaded.ok() ? *loaded : nullptr;
        const int64_t width = batch.end - batch.first;
        if (stack && n_loops > 0) add_batch(cfg, loops, stack, width, closures.pixels.get() + batch.first, moments, false);
        if (from >= 0) {
            const std::vector<char> state = lib::receive_from(from);
            if (state.size() == state_bytes && state_bytes > 0) std::memcpy(moments, state.data(), state_bytes);
        }
        if (stack && n_loops > 0) {
            // The loop pass alone, now that the loops' state is this batch's.
#pragma omp parallel num_threads(lib::region_threads(cfg.max_parallel_threads))
            {
                const lib::Block mine =
                    lib::block_of(static_cast<int64_t>(n_loops), omp_get_num_threads(), omp_get_thread_num());
                add_loop_closures(loops.data() + mine.first, mine.end - mine.first, stack, 0, width,
                                  moments + mine.first);
            }
            for (size_t l = 0; l < n_loops; ++l) print_progress_lines(l, n_loops, marks);
        }
        if (to >= 0)
            lib::send_to(to, std::vector<char>(reinterpret_cast<const char*>(moments),
                                               reinterpret_cast<const char*>(moments) + state_bytes));
        if (stack) lib::free2d_float(stack, static_cast<int>(n_ifg));
        return loaded.ok() ? lib::Status() : lib::Status(std::move(loaded).error());
    };
    if (!lib::spread())
        return lib::for_each_batch(pixel_total, cfg.maxcap, [&](const lib::Batch& batch) -> lib::Status {
            std::fprintf(stderr, "\n=>Caculating phase closure maps batch %d / %.0f\n", batch.number, total);
            float** stack = nullptr;
            if (read && read->holds(batch.first, batch.end) && read->n_rows == n_ifg) {
                stack = com::refer_read_stack(cfg, *read, reference_values);
            } else {
                if (read) read->release();
                SBAS_TAKE(stack, com::readallfile_nomask(cfg, batch.first, batch.end, reference_values));
            }
            if (n_loops > 0) {
                add_batch(cfg, loops, stack, batch.end - batch.first, closures.pixels.get() + batch.first, moments,
                          true);
                for (size_t l = 0; l < n_loops; ++l) print_progress_lines(l, n_loops, marks);
            }
            if (held && batch.first == 0 && batch.end == pixel_total) {
                // The whole grid in one batch: left to the caller.
                held->release();
                held->rows = stack;
                held->n_rows = n_ifg;
                held->first = batch.first;
                held->end = batch.end;
                return {};
            }
            lib::free2d_float(stack, static_cast<int>(n_ifg));
            return {};
        });

    std::vector<lib::Batch> batches;
    SBAS_TRY(lib::for_each_batch(pixel_total, cfg.maxcap, [&](const lib::Batch& b) { batches.push_back(b); }));
    const lib::Ranks place = lib::ranks();
    const size_t count = batches.size();
    for (size_t round = 0; round < count; round += static_cast<size_t>(place.size)) {
        lib::begin_round();
        const size_t mine = round + static_cast<size_t>(place.rank);
        const size_t last = std::min(count, round + static_cast<size_t>(place.size)) - 1;
        lib::Status done;
        if (mine < count) {
            const int from = place.rank > 0 ? place.rank - 1 : -1;
            const int to = mine < last ? place.rank + 1 : -1;
            done = one_batch(batches[mine], from, to);
        }
        // Every rank takes the loops' state after the round's last batch.
        std::vector<char> state(reinterpret_cast<const char*>(moments),
                                reinterpret_cast<const char*>(moments) + state_bytes);
        lib::broadcast(state, static_cast<int>(last - round));
        if (state.size() == state_bytes && state_bytes > 0) std::memcpy(moments, state.data(), state_bytes);
        SBAS_TRY(lib::end_round(std::move(done)));
    }
    std::vector<int64_t> first, end;
    std::vector<int> owner;
    for (size_t k = 0; k < count; ++k) {
        first.push_back(batches[k].first);
        end.push_back(batches[k].end);
        owner.push_back(static_cast<int>(k % static_cast<size_t>(place.size)));
    }
    lib::collect(reinterpret_cast<char*>(closures.pixels.get()), sizeof(PixelClosure), first, end, owner);
    return {};
}

// Step 2: the pixel threshold, from the deviations of every looped pixel,
// when it is asked for automatically.
void pixel_threshold(CFG* cfg, const PixelClosure* pixels, int64_t pixel_total)
{
    lib::RunningMoments pixel_std;
    for (int64_t p = 0; p < pixel_total; ++p)
        if (pixels[p].closure.count > 0.5) pixel_std.add(std::sqrt(pixels[p].closure.variance));
    const Spread pixel_spread = spread(pixel_std);
    if (cfg->loop_closure_mean_std_threshold < 0)
        cfg->loop_closure_mean_std_threshold =
            static_cast<float>(cfg->confidence_level * pixel_spread.std + pixel_spread.mean);
    if (!pixel_spread.counted) cfg->loop_closure_mean_std_threshold = kNoLoopThreshold;
}

// Step 3: every loop that saw a valid pixel counts for its three
// interferograms; their mean loop deviations give the interferogram
// threshold when it is asked for automatically.
void interferogram_threshold(CFG* cfg, const std::vector<LOOPORDER>& loops, Closures& closures)
{
    IfgClosure* ifgs = closures.ifgs.get();
    for (size_t l = 0; l < loops.size(); ++l) {
        const LOOPORDER& loop = loops[l];
        const int d0 = static_cast<int>(loop.date0);
        const int d1 = static_cast<int>(loop.date1);
        const int d2 = static_cast<int>(loop.date2);
        const lib::RunningMoments& moments = closures.loops[static_cast<int64_t>(l)];
        if (moments.count < 0.5) {
            std::fprintf(stderr, "Connecting loop %d-%d-%d, No valid points\n", d0, d1, d2);
            continue;
        }
        const double loop_std = std::sqrt(moments.variance);
        for (const int64_t k : {loop.ifg01, loop.ifg02, loop.ifg12}) {
            ifgs[k].loops += 1;
            ifgs[k].std_sum += loop_std;
        }
        std::fprintf(stderr, "Connecting loop %d-%d-%d, std=%6.3f\n", d0, d1, d2, loop_std);
    }
    const int64_t n_ifg = static_cast<int64_t>(cfg->ifg_names.size());
    lib::RunningMoments ifg_std;
    for (int64_t k = 0; k < n_ifg; ++k) {
        if (ifgs[k].loops <= 0.5) continue;
        ifgs[k].std_sum /= ifgs[k].loops;
        ifg_std.add(ifgs[k].std_sum);
    }
    const Spread ifg_spread = spread(ifg_std);
    if (cfg->whole_ifg_closure_std_threshold < 0)
        cfg->whole_ifg_closure_std_threshold =
            static_cast<float>(cfg->confidence_level * ifg_spread.std + ifg_spread.mean);
    if (!ifg_spread.counted) cfg->whole_ifg_closure_std_threshold = kNoLoopThreshold;
}

// Step 4: "filelist_statistics", and unless bad interferograms are kept,
// "filelist_used" and "filelist_deleted", then the record's lists reloaded
// from "filelist_used".
lib::Status write_lists(CFG* cfg, const IfgClosure* ifgs)
{
    const int64_t n_ifg = static_cast<int64_t>(cfg->ifg_names.size());
    const com::Path statistics_path = com::join_path(cfg->resultfolder, "filelist_statistics");
    SBAS_TAKE(lib::File statistics_file, com::open_output(statistics_path.c_str(), "w"));
    FILE* statistics = statistics_file.get();
    std::fputs("filename  mean_phase_closure_std   number_of_loops if_used\n", statistics);
    if (cfg->if_delete_bad_ifgs == 0) {
        for (int64_t k = 0; k < n_ifg; ++k) {
            const bool looped = ifgs[k].loops > 0.5;
            std::fprintf(statistics, "%s %7.2f %4d YES\n", cfg->ifg_names[k].c_str(),
                         looped ? ifgs[k].std_sum : kNoLoopStd, static_cast<int>(ifgs[k].loops));
        }
        return close_text(statistics_file, statistics_path.c_str());
    }
    std::fputs("\n=>Deleting bad ifgs based on averaged phase closure std\n", stderr);
    std::fprintf(stderr, "Whole_ifg_closure_std_threshod : %.3f\n", cfg->whole_ifg_closure_std_threshold);
    const com::Path used_path = com::join_path(cfg->resultfolder, "filelist_used");
    std::snprintf(cfg->filelist, sizeof cfg->filelist, "%s", used_path.c_str());
    SBAS_TAKE(lib::File used_file, com::open_output(cfg->filelist, "w"));
    const com::Path deleted_path = com::join_path(cfg->resultfolder, "filelist_deleted");
    SBAS_TAKE(lib::File deleted_file, com::open_output(deleted_path.c_str(), "w"));
    FILE* used = used_file.get();
    FILE* deleted = deleted_file.get();
    for (int64_t k = 0; k < n_ifg; ++k) {
        const char* name = cfg->ifg_names[k].c_str();
        const double mean_std = ifgs[k].std_sum;
        const int count = static_cast<int>(ifgs[k].loops);
        if (ifgs[k].loops <= 0.5) {
            if (cfg->if_allow_unlooped_ifgs == 1) {
                std::fprintf(used, "%s\n", name);
                std::fprintf(statistics, "%s 9999.00    0 YES\n", name);
            } else {
                std::fprintf(statistics, "%s 9999.0    0 NO\n", name);
                std::fprintf(deleted, "%s\n", name);
                std::fprintf(stderr, "deleting %s, std = %7.2f, number of loops = %4d\n", name, kNoLoopStd, 0);
            }
        } else if (mean_std >= cfg->whole_ifg_closure_std_threshold) {
            std::fprintf(deleted, "%s\n", name);
            std::fprintf(stderr, "deleting %s, std = %7.2f, number of loops = %4d\n", name, mean_std, count);
            std::fprintf(statistics, "%s %7.2f %4d NO\n", name, mean_std, count);
        } else {
            std::fprintf(used, "%s\n", name);
            std::fprintf(statistics, "%s %7.2f %4d YES\n", name, mean_std, count);
        }
    }
    SBAS_TRY(close_text(statistics_file, statistics_path.c_str()));
    SBAS_TRY(close_text(used_file, used_path.c_str()));
    SBAS_TRY(close_text(deleted_file, deleted_path.c_str()));
    return com::readfilenamelist(cfg, cfg->filelist);
}

}  // namespace

lib::Status remove_ifg_by_loop_closure_with_reference(CFG* cfg, const HEADER& header, const float* reference_values,
                                                      com::HeldBatch* held, com::HeldBatch* read)
{
    print_settings(*cfg);
    const int64_t pixel_total = com::pixel_count(header);
    SBAS_TAKE(const std::vector<LOOPORDER> loops, loops_of(*cfg));
    Closures closures{lib::Owned<PixelClosure>(pixel_total),
                      lib::Owned<lib::RunningMoments>(static_cast<int64_t>(loops.size())),
                      lib::Owned<IfgClosure>(static_cast<int64_t>(cfg->ifg_names.size()))};
    SBAS_TRY(accumulate(*cfg, header, reference_values, loops, closures, held, read));
    // In an MPI run rank 0, which now holds every pixel's and loop's state,
    // finishes the check alone; the driver hands its outcome to the others.
    if (lib::ranks().rank != 0) return {};
    const PixelClosure* pixels = closures.pixels.get();

    pixel_threshold(cfg, pixels, pixel_total);
    float scratch = 0.0f;
    SBAS_TRY(write_pixels(cfg->resultfolder, "phase_loop_closure_std", pixel_total, scratch,
                          [&](int64_t p, float& out) { out = static_cast<float>(std::sqrt(pixels[p].closure.variance)); }));
    SBAS_TRY(write_pixels(cfg->resultfolder, "phase_loop_closure_failed_ratio", pixel_total, scratch,
                          [&](int64_t p, float& out) { out = static_cast<float>(pixels[p].failed / pixels[p].closure.count); }));

    interferogram_threshold(cfg, loops, closures);
    SBAS_TRY(write_lists(cfg, closures.ifgs.get()));

    // 1 marks a pixel that fails the check: too many failed loops or too
    // much scatter, or too few loops to tell.
    const double minimum_loops = cfg->minimun_loop_num;
    SBAS_TRY(write_pixels(cfg->resultfolder, "phase_loop_closure_mask", pixel_total, scratch, [&](int64_t p, float& out) {
        const PixelClosure& pixel = pixels[p];
        if (pixel.closure.count >= minimum_loops) {
            out = 0.0f;
            if (pixel.failed / pixel.closure.count > cfg->loop_misclosure_ratio_threshod) out = 1.0f;
            if (std::sqrt(pixel.closure.variance) > cfg->loop_closure_mean_std_threshold) out = 1.0f;
        } else if (cfg->if_allow_unlooped_pixel == 0) {
            out = 1.0f;
        }
        // Otherwise `out` keeps the scratch value: the carry-over.
    }));

    std::fputs("\n****Checking unwrapping error by loop closure finish*****\n", stderr);
    return {};
}

}  // namespace quality
