// Benchmark of the inversion on a medium synthetic stack.
//
// Generates a job once (about 1000 x 1000 pixels, 60 dates, 230
// interferograms with patches of no-data) and a variant of it whose no-data
// is scattered pixel by pixel (every sample dropped with a small
// probability, as when low-coherence pixels are masked in each
// interferogram), so that almost every pixel has a validity pattern of its
// own. For each stack and each thread count (1 and 2 unless --threads says
// otherwise) it measures:
//   - the I/O floor: reading every interferogram file once, whole;
//   - the stack loader over the whole grid, batch by batch;
//   - the inversion of every batch (loader excluded), with its pattern
//     counts and the time of its stages: grouping the pixels by pattern,
//     factorising (building each pattern's system, its normal matrix, the
//     inversion and the estimator), the products x = E y with the fitted
//     values and sigma, and writing the maps (the parallel stages as thread
//     time divided by the thread count);
// and prints pixels per second and the ratio of the inversion time to the
// I/O floor. Finally it runs the sbas-ts program on the first job with two
// batch sizes and reports the peak resident memory of each run, which is
// what maxcap bounds.
//
// The files are read from the page cache after the first pass, so the I/O
// floor is the cost of touching every byte once, not of a cold disk.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "app/job.h"
#include "catalogue/dates.h"
#include "catalogue/header.h"
#include "catalogue/raster.h"
#include "config/cfg.h"
#include "inversion/network.h"
#include "catalogue/stack.h"
#include "numerics/arrays.h"
#include "numerics/parallel.h"
#include "synth/synth.h"

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

struct Settings {
    std::string folder = "/tmp/sbas-bench-job";
    int width = 1000, length = 1000, dates = 60, neighbours = 4;
    double nodata_fraction = 0.2;
    long long maxcap = 250000;
    long long small_maxcap = 50000;
    double scatter = 0.03;
    std::vector<int> threads = {1, 2};
    bool whole_runs = true;
    bool regenerate = false;
};

std::vector<int> parse_list(const std::string& text)
{
    std::vector<int> values;
    size_t at = 0;
    while (at < text.size()) {
        const size_t comma = text.find(',', at);
        values.push_back(std::stoi(text.substr(at, comma - at)));
        at = comma == std::string::npos ? text.size() : comma + 1;
    }
    return values;
}

Settings parse(int argc, char** argv)
{
    Settings s;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "%s needs a value\n", arg.c_str());
                std::exit(2);
            }
            return argv[++i];
        };
        if (arg == "--folder") s.folder = value();
        else if (arg == "--width") s.width = std::stoi(value());
        else if (arg == "--length") s.length = std::stoi(value());
        else if (arg == "--dates") s.dates = std::stoi(value());
        else if (arg == "--neighbours") s.neighbours = std::stoi(value());
        else if (arg == "--nodata-fraction") s.nodata_fraction = std::stod(value());
        else if (arg == "--maxcap") s.maxcap = std::stoll(value());
        else if (arg == "--small-maxcap") s.small_maxcap = std::stoll(value());
        else if (arg == "--scatter") s.scatter = std::stod(value());
        else if (arg == "--threads") s.threads = parse_list(value());
        else if (arg == "--no-whole-runs") s.whole_runs = false;
        else if (arg == "--regenerate") s.regenerate = true;
        else {
            std::fprintf(stderr,
                         "usage: sbas-bench [--folder DIR] [--width N] [--length N] [--dates N] [--neighbours K]\n"
                         "                  [--nodata-fraction F] [--maxcap N] [--small-maxcap N] [--scatter F]\n"
                         "                  [--threads N,N,...] [--no-whole-runs] [--regenerate]\n");
            std::exit(2);
        }
    }
    return s;
}

// Silences the stages' reports on standard error while they are timed.
class QuietStderr {
public:
    QuietStderr()
    {
        std::fflush(stderr);
        saved_ = dup(STDERR_FILENO);
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDERR_FILENO);
        close(null);
    }
    ~QuietStderr()
    {
        std::fflush(stderr);
        dup2(saved_, STDERR_FILENO);
        close(saved_);
    }

private:
    int saved_;
};

double io_floor(const CFG& cfg, int64_t pixels)
{
    std::vector<float> buffer(static_cast<size_t>(pixels));
    const auto start = Clock::now();
    for (const auto& name : cfg.ifg_names)
        lib::ok_or_exit(com::read_raster(com::join_path(cfg.datafolder, name.c_str()).c_str(), 0, pixels, buffer.data()));
    return seconds_since(start);
}

struct Timing {
    double load = 0;
    double invert = 0;
    sbas::InversionProfile profile;
};

Timing load_and_invert(CFG cfg, int threads, int64_t pixels, bool invert)
{
    cfg.max_parallel_threads = threads;
    const auto dates = lib::value_or_exit(com::getdateorder(cfg));
    lib::ok_or_exit(com::readdesignmatrixorder(&cfg, dates));
    cfg.n_ifg = static_cast<int>(cfg.ifg_names.size());
    cfg.n_date = static_cast<int>(dates.size());
    const std::vector<float> references(cfg.ifg_names.size(), 0.0f);
    const std::vector<float> mask(static_cast<size_t>(pixels), 0.0f);
    Timing t;
    QuietStderr quiet;
    lib::ok_or_exit(lib::for_each_batch(pixels, cfg.maxcap, [&](const lib::Batch& batch) {
        std::vector<int> count(static_cast<size_t>(batch.end - batch.first), 0);
        auto start = Clock::now();
        float** stack = lib::value_or_exit(
            com::readallfile(cfg, batch.first, batch.end, references.data(), mask.data(), count.data()));
        t.load += seconds_since(start);
        if (invert) {
            start = Clock::now();
            lib::ok_or_exit(
                sbas::invert_batch(cfg, dates, nullptr, stack, count.data(), batch.first, batch.end, &t.profile));
            t.invert += seconds_since(start);
        }
        lib::free2d_float(stack, cfg.n_ifg);
    }));
    return t;
}

// Copies the job's interferograms into `folder`/ifg with every sample made
// no-data (0) with probability `fraction`, and writes a configuration that
// points at the copies. The draw hashes the interferogram's index and the
// pixel, so the variant is the same on every machine. Returns the
// configuration's path; an existing variant is reused.
std::string make_scattered(const std::string& config, const CFG& cfg, int64_t pixels, const std::string& folder,
                           double fraction, bool regenerate)
{
    const std::string path = folder + "/config.txt";
    if (!regenerate && std::filesystem::exists(path)) return path;
    std::printf("making the scattered variant in %s ...\n", folder.c_str());
    std::fflush(stdout);
    std::filesystem::create_directories(folder + "/ifg");
    std::filesystem::create_directories(folder + "/result");
    std::vector<float> samples(static_cast<size_t>(pixels));
    for (size_t k = 0; k < cfg.ifg_names.size(); ++k) {
        lib::ok_or_exit(com::read_raster(com::join_path(cfg.datafolder, cfg.ifg_names[k].c_str()).c_str(), 0, pixels,
                                         samples.data()));
        for (int64_t p = 0; p < pixels; ++p) {
            uint64_t z = (static_cast<uint64_t>(k) << 40) ^ static_cast<uint64_t>(p);
            z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;  // splitmix64's finaliser
            z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
            z ^= z >> 31;
            if (static_cast<double>(z >> 11) * 0x1.0p-53 < fraction) samples[static_cast<size_t>(p)] = 0.0f;
        }
        std::ofstream(folder + "/ifg/" + cfg.ifg_names[k], std::ios::binary)
            .write(reinterpret_cast<const char*>(samples.data()), static_cast<std::streamsize>(pixels * 4));
    }
    std::ifstream in(config);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::ofstream(path) << text << "datafolder " << folder << "/ifg\nresultfolder " << folder << "/result\n";
    return path;
}

// Measures the loader and the inversion of the job of `config` and prints
// them as a table, one line per thread count.
void measure_stack(const char* title, const std::string& config, const std::vector<int>& thread_counts)
{
    const CFG cfg = lib::value_or_exit(lib::loadcfg(config.c_str()));
    const HEADER header = lib::value_or_exit(com::readheader(cfg.headerfile));
    const int64_t pixels = header.WIDTH * header.FILE_LENGTH;
    const double megabytes = static_cast<double>(pixels) * 4.0 * static_cast<double>(cfg.ifg_names.size()) / 1048576.0;
    std::printf("\n%s: %lld pixels, %zu interferograms, %.0f MiB of rasters, maxcap %lld\n", title,
                static_cast<long long>(pixels), cfg.ifg_names.size(), megabytes, static_cast<long long>(cfg.maxcap));
    io_floor(cfg, pixels);  // warms the page cache
    const double floor = io_floor(cfg, pixels);
    std::printf("I/O floor (every file read once): %.2f s (%.0f MiB/s)\n", floor, megabytes / floor);
    std::printf("threads  loader (x floor)  inversion  grouping  factorising  products  writing   pixels/s"
                "  inversion / floor\n");
    sbas::InversionProfile counts;
    for (int threads : thread_counts) {
        const Timing loaded = load_and_invert(cfg, threads, pixels, false);
        const Timing t = load_and_invert(cfg, threads, pixels, true);
        const sbas::InversionProfile& p = t.profile;
        // The parallel stages are summed over the threads; shown per thread.
        const double per = static_cast<double>(threads);
        std::printf("%7d  %6.2f s (%5.1f)  %7.2f s  %6.2f s  %9.2f s  %6.2f s  %5.2f s  %9.0f  %17.0f\n", threads,
                    loaded.load, loaded.load / floor, t.invert, p.grouping / per, p.factorising / per,
                    p.products / per, p.writing, static_cast<double>(pixels) / t.invert, t.invert / floor);
        if (threads == thread_counts.front()) counts = p;
    }
    std::printf("pixels: %lld complete, %lld incomplete in %lld distinct patterns (%lld of one pixel) at %d "
                "thread%s\n",
                static_cast<long long>(counts.complete), static_cast<long long>(counts.incomplete),
                static_cast<long long>(counts.patterns), static_cast<long long>(counts.single),
                thread_counts.front(), thread_counts.front() > 1 ? "s" : "");
}

// Runs sbas-ts on `config` from this (small, freshly started) process and
// prints its wall time and peak resident memory in MiB. A process forked
// from the benchmark itself would start with the benchmark's resident pages
// counted in its peak, and Linux keeps that peak across exec.
int measure_run(const char* config)
{
    const auto start = Clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, STDERR_FILENO);
        dup2(null, STDOUT_FILENO);
        execl(SBAS_TS_BIN, SBAS_TS_BIN, config, static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    rusage usage{};
    wait4(pid, &status, 0, &usage);
    std::printf("%f %f\n", seconds_since(start), usage.ru_maxrss / 1024.0);
    return 0;
}

// Runs sbas-ts on `config` through a fresh copy of this program and returns
// its wall time and peak memory (MiB).
std::pair<double, double> run_program(const std::string& config)
{
    const std::string self = std::filesystem::read_symlink("/proc/self/exe");
    FILE* pipe = popen(("'" + self + "' --measure-run '" + config + "'").c_str(), "r");
    double wall = 0, peak = 0;
    if (!pipe || std::fscanf(pipe, "%lf %lf", &wall, &peak) != 2) std::fprintf(stderr, "measurement failed\n");
    if (pipe) pclose(pipe);
    return {wall, peak};
}

std::string with_settings(const synth::Job& job, const std::string& name, const std::string& lines)
{
    std::ifstream in(job.config);
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const std::string path = job.folder + "/" + name;
    std::ofstream(path) << text << lines;
    return path;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && std::strcmp(argv[1], "--measure-run") == 0) return measure_run(argv[2]);
    const Settings s = parse(argc, argv);
    synth::Options o;
    o.width = s.width;
    o.length = s.length;
    o.dates = s.dates;
    o.neighbours = s.neighbours;
    o.deformation = synth::Deformation::mixed;
    o.noise = 0.5;
    o.nodata_fraction = s.nodata_fraction;
    o.maxcap = static_cast<int>(s.maxcap);
    o.overwrite = true;

    const std::string marker = s.folder + "/config.txt";
    synth::Job job;
    if (s.regenerate || !std::filesystem::exists(marker)) {
        std::printf("generating %d x %d pixels, %d dates in %s ...\n", s.width, s.length, s.dates, s.folder.c_str());
        std::fflush(stdout);
        const auto start = Clock::now();
        job = synth::write_job(o, s.folder);
        std::printf("generated in %.1f s\n", seconds_since(start));
    } else {
        job.folder = s.folder;
        job.config = marker;
    }
    // Refers the benchmark to pixel row/col 1 so that the reference stage of
    // the whole runs stays cheap.
    const std::string config = with_settings(job, "bench-config.txt",
                                             "maxcap " + std::to_string(s.maxcap) + "\nref_row 1\nref_col 1\n");
    const CFG cfg = lib::value_or_exit(lib::loadcfg(config.c_str()));
    const HEADER header = lib::value_or_exit(com::readheader(cfg.headerfile));
    const std::string scattered = make_scattered(config, cfg, header.WIDTH * header.FILE_LENGTH,
                                                 s.folder + "-scattered", s.scatter, s.regenerate);

    measure_stack("medium stack, no-data in patches", config, s.threads);
    char title[96];
    std::snprintf(title, sizeof title, "the same, %g of the samples no-data at random", s.scatter);
    measure_stack(title, scattered, s.threads);
    if (!s.whole_runs) return 0;

    std::printf("\nwhole runs of sbas-ts (2 threads, reference and inversion):\n");
    for (long long maxcap : {s.maxcap, s.small_maxcap}) {
        const std::string path = with_settings(job, "bench-config-" + std::to_string(maxcap) + ".txt",
                                               "maxcap " + std::to_string(maxcap) +
                                                   "\nref_row 1\nref_col 1\nmax_parallel_threads 2\n");
        const auto [wall, peak] = run_program(path);
        std::printf("maxcap %lld: %.1f s, peak memory %.0f MiB\n", maxcap, wall, peak);
    }
    return 0;
}
