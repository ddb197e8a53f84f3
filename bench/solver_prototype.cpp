// Prototype of an opt-in faster solver for the per-pixel inversion, timed
// against the exact arithmetic. Not part of sbas-ts.
//
// With scattered no-data almost every pixel has a system of its own; the
// program forms for each N = A^T W A, its explicit inverse, the estimator
// E = N^-1 A^T W and x = E y: O(M^3) for M unknowns. The prototype forms the
// banded N and b = A^T W y from the nonzero terms, factorises N = R^T R in
// band storage and solves for x: O(M band^2), with other last bits. On a
// synthetic job (the project's generator, then 3 % of the samples dropped at
// random as sbas-bench drops them) it times, over the first --pixels pixels:
// exact (com::readoneunwseries3, lib::weighted_estimator, x = E y), the
// prototype (with the cumulative maps and sigma; a pixel whose N the
// Cholesky rejects is solved the exact way) and the program's own
// sbas::invert_batch (patterns inverted eight side by side, maps written),
// then reports the differences in x, in the float maps and in sigma. No
// DEM-error term, no temporal model (the job's settings), references 0.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "app/job.h"
#include "catalogue/design_rows.h"
#include "catalogue/header.h"
#include "catalogue/raster.h"
#include "catalogue/stack.h"
#include "inversion/network.h"
#include "numerics/arrays.h"
#include "numerics/least_squares.h"
#include "numerics/validity.h"
#include "synth/synth.h"

namespace {

using Clock = std::chrono::steady_clock;
double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

double load_average()
{
    double one = -1;
    return getloadavg(&one, 1) == 1 ? one : -1;
}

struct Settings {
    std::string folder;
    int width = 1000, length = 1000, dates = 60, neighbours = 4;
    double scatter = 0.03, nodata_fraction = 0.2;
    long long pixels = 0;  // 0: the whole grid
    int repeat = 2;        // runs of each measurement, the best shown
    std::vector<int> threads = {1, 2};
};

Settings parse(int argc, char** argv)
{
    Settings s;
    for (int i = 1; i < argc; i += 2) {
        std::string arg = argv[i];
        const std::string v = i + 1 < argc ? argv[i + 1] : "";
        if (v.empty()) arg.clear();
        if (arg == "--folder") s.folder = v;
        else if (arg == "--width") s.width = std::stoi(v);
        else if (arg == "--length") s.length = std::stoi(v);
        else if (arg == "--dates") s.dates = std::stoi(v);
        else if (arg == "--neighbours") s.neighbours = std::stoi(v);
        else if (arg == "--scatter") s.scatter = std::stod(v);
        else if (arg == "--nodata-fraction") s.nodata_fraction = std::stod(v);
        else if (arg == "--pixels") s.pixels = std::stoll(v);
        else if (arg == "--repeat") s.repeat = std::max(1, std::stoi(v));
        else if (arg == "--threads") {
            s.threads.clear();
            std::stringstream list(v);
            for (std::string item; std::getline(list, item, ',');) s.threads.push_back(std::stoi(item));
        } else {
            std::fprintf(stderr, "usage: sbas-solver-prototype [--dates D] [--neighbours K] [--width N] [--length N]\n"
                                 "  [--scatter F] [--nodata-fraction F] [--pixels P] [--threads 1,2] [--repeat R]\n"
                                 "  [--folder DIR]\n");
            std::exit(2);
        }
    }
    if (s.folder.empty())
        s.folder = "/tmp/sbas-solver-" + std::to_string(s.dates) + "d" + std::to_string(s.neighbours) + "k" +
                   std::to_string(s.width) + "x" + std::to_string(s.length);
    return s;
}

// The job's interferograms with every sample made no-data with probability
// `fraction`, drawn as sbas-bench draws it (same hash, same variant).
std::string make_scattered(const std::string& config, const CFG& cfg, int64_t pixels, const std::string& folder,
                           double fraction)
{
    const std::string path = folder + "/config.txt";
    if (std::filesystem::exists(path)) return path;
    std::printf("making the scattered variant in %s ...\n", folder.c_str());
    std::filesystem::create_directories(folder + "/ifg");
    std::filesystem::create_directories(folder + "/result");
    std::vector<float> samples(static_cast<size_t>(pixels));
    for (size_t k = 0; k < cfg.ifg_names.size(); ++k) {
        lib::ok_or_exit(com::read_raster(com::join_path(cfg.datafolder, cfg.ifg_names[k].c_str()).c_str(), 0, pixels,
                                         samples.data()));
        for (int64_t p = 0; p < pixels; ++p) {
            uint64_t z = (static_cast<uint64_t>(k) << 40) ^ static_cast<uint64_t>(p);
            z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
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

struct Problem {
    CFG cfg;
    std::vector<DATEORDER> dates;
    float** stack = nullptr;
    std::vector<int> count;
    int64_t P = 0, N = 0, M = 0, ldE = 0, band = 0;  // band: entries above the diagonal of N
    std::vector<int64_t> pixels;                     // those with enough observations
};

// The exact path for pixel p: x = E y with the program's E.
struct ExactWork {
    std::vector<double> A, y, w, E;
    lib::EstimatorScratch scratch;
    explicit ExactWork(const Problem& pb)
        : A(static_cast<size_t>(pb.N * pb.M)), y(static_cast<size_t>(pb.N)), w(static_cast<size_t>(pb.N)),
          E(static_cast<size_t>(pb.N * pb.ldE))
    {
    }
};

void solve_exact(const Problem& pb, int64_t p, ExactWork& s, double* x)
{
    const int64_t rows = pb.count[p], M = pb.M;
    std::fill(s.A.begin(), s.A.begin() + rows * M, 0.0);
    std::fill(s.y.begin(), s.y.begin() + rows, 0.0);
    std::fill(s.w.begin(), s.w.begin() + rows, 0.0);
    com::readoneunwseries3(pb.cfg, pb.stack, pb.count.data(), M, pb.dates, nullptr, p, 0.0, s.y.data(), s.A.data(),
                           s.w.data(), rows);
    lib::weighted_estimator(s.A.data(), s.w.data(), rows, M, s.E.data(), pb.ldE, s.scratch);
    for (int64_t i = 0; i < M; ++i) x[i] = 0.0;
    for (int64_t l = 0; l < rows; ++l)
        for (int64_t i = 0; i < M; ++i) x[i] += s.E[l * pb.ldE + i] * s.y[l];
}

// One pixel's rows as readoneunwseries3 takes them: the first count[p]
// valid interferograms, with their samples and spans [j1, j2) of unknowns.
struct Rows {
    std::vector<float> y;
    std::vector<int64_t> j1, j2;
};

void gather(const Problem& pb, int64_t p, Rows& r)
{
    r.y.clear(), r.j1.clear(), r.j2.clear();
    for (int64_t k = 0; k < pb.N && static_cast<int64_t>(r.y.size()) < pb.count[p]; ++k) {
        const float sample = pb.stack[k][p];
        if (!lib::isvalid(sample)) continue;
        r.y.push_back(sample);
        r.j1.push_back(std::max(pb.cfg.ifg_date1_index[k], 0));
        r.j2.push_back(std::min<int64_t>(pb.cfg.ifg_date2_index[k], pb.M));
    }
}

// The prototype: banded N and b from the rows (weight 1), N = R^T R with R
// upper banded (R[j * (band + 1) + e] = R(j, j + e)), then R^T z = b and
// R x = z. Returns false when N is not (numerically) positive definite.
bool solve_banded(const Problem& pb, const Rows& rows, std::vector<double>& Rb, std::vector<double>& b, double* x)
{
    const int64_t M = pb.M, bw = pb.band, W = bw + 1;
    std::fill(Rb.begin(), Rb.end(), 0.0);
    std::fill(b.begin(), b.end(), 0.0);
    double* R = Rb.data();
    for (size_t r = 0; r < rows.y.size(); ++r)
        for (int64_t a = rows.j1[r]; a < rows.j2[r]; ++a) {
            b[a] += rows.y[r];
            for (int64_t c = a; c < rows.j2[r]; ++c) R[a * W + (c - a)] += 1.0;
        }
    for (int64_t j = 0; j < M; ++j) {
        double s = R[j * W];
        for (int64_t k = std::max<int64_t>(0, j - bw); k < j; ++k) s -= R[k * W + (j - k)] * R[k * W + (j - k)];
        if (!(s > 1e-10 * R[j * W])) return false;  // also NaN
        const double d = std::sqrt(s);
        R[j * W] = d;
        for (int64_t e = 1; e <= bw && j + e < M; ++e) {
            double t = R[j * W + e];
            for (int64_t k = std::max<int64_t>(0, j + e - bw); k < j; ++k)
                t -= R[k * W + (j - k)] * R[k * W + (j + e - k)];
            R[j * W + e] = t / d;
        }
    }
    for (int64_t j = 0; j < M; ++j) {
        double t = b[j];
        for (int64_t k = std::max<int64_t>(0, j - bw); k < j; ++k) t -= R[k * W + (j - k)] * x[k];
        x[j] = t / R[j * W];
    }
    for (int64_t j = M - 1; j >= 0; --j) {
        double t = x[j];
        for (int64_t e = 1; e <= bw && j + e < M; ++e) t -= R[j * W + e] * x[j + e];
        x[j] = t / R[j * W];
    }
    return true;
}

// A pixel's outputs as the program forms them: the cumulative maps rounded
// to float date by date, sigma from the float sum of squared residuals.
void outputs(const Problem& pb, const Rows& rows, const double* x, float* cumulative, float* sigma)
{
    cumulative[0] = static_cast<float>(x[0]);
    for (int64_t j = 1; j < pb.M; ++j) cumulative[j] = cumulative[j - 1] + x[j];
    float sum = 0.0f;
    for (size_t r = 0; r < rows.y.size(); ++r) {
        double fitted = 0.0;
        for (int64_t j = rows.j1[r]; j < rows.j2[r]; ++j) fitted += x[j];
        const double residual = rows.y[r] - fitted;
        sum += residual * residual;
    }
    *sigma = std::sqrt(sum / static_cast<float>(rows.y.size()));
}

// Runs `body` `repeat` times and prints a line of the table for the best
// run: wall, thread time per pixel, pixels per second, a 5000 x 5000 grid at
// that rate, the load before the first run and after the last.
template <typename Body>
void timed(const char* path, int threads, int repeat, int64_t pixels, Body&& body)
{
    const double before = load_average();
    double seconds = 1e300;
    for (int r = 0; r < repeat; ++r) {
        const auto start = Clock::now();
        body();
        seconds = std::min(seconds, seconds_since(start));
    }
    const double rate = static_cast<double>(pixels) / seconds;
    std::printf("%-10s %7d %9.2f s %9.1f us %10.0f %12.1f min   %.2f / %.2f\n", path, threads, seconds,
                seconds * threads / static_cast<double>(pixels) * 1e6, rate, 25e6 / rate / 60.0, before,
                load_average());
    std::fflush(stdout);
}

}  // namespace

int main(int argc, char** argv)
{
    const Settings s = parse(argc, argv);
    const std::string base = s.folder + "/config.txt";
    if (!std::filesystem::exists(base)) {  // as sbas-bench makes its job
        synth::Options o;
        o.width = s.width, o.length = s.length, o.dates = s.dates, o.neighbours = s.neighbours;
        o.deformation = synth::Deformation::mixed, o.noise = 0.5, o.nodata_fraction = s.nodata_fraction;
        std::printf("generating %d x %d pixels, %d dates in %s ...\n", s.width, s.length, s.dates, s.folder.c_str());
        std::fflush(stdout);
        synth::write_job(o, s.folder);
    }
    const CFG base_cfg = lib::value_or_exit(lib::loadcfg(base.c_str()));
    const HEADER header = lib::value_or_exit(com::readheader(base_cfg.headerfile));
    const int64_t grid = header.WIDTH * header.FILE_LENGTH;
    const std::string config = make_scattered(base, base_cfg, grid, s.folder + "-scattered", s.scatter);

    Problem pb;
    pb.cfg = lib::value_or_exit(lib::loadcfg(config.c_str()));
    if (pb.cfg.if_est_hgt != 0 || pb.cfg.temporal_constraint != 0) {
        std::fprintf(stderr, "the prototype handles neither if_est_hgt nor temporal_constraint\n");
        return 2;
    }
    pb.dates = lib::value_or_exit(com::getdateorder(pb.cfg));
    lib::ok_or_exit(com::readdesignmatrixorder(&pb.cfg, pb.dates));
    pb.N = pb.cfg.n_ifg = static_cast<int>(pb.cfg.ifg_names.size());
    pb.cfg.n_date = static_cast<int>(pb.dates.size());
    pb.M = pb.cfg.n_date - 1;
    pb.ldE = (pb.M + 7) / 8 * 8;
    for (int64_t k = 0; k < pb.N; ++k)
        pb.band = std::max<int64_t>(pb.band, pb.cfg.ifg_date2_index[k] - pb.cfg.ifg_date1_index[k] - 1);
    pb.band = std::min(pb.band, pb.M - 1);
    pb.P = s.pixels > 0 ? std::min<int64_t>(s.pixels, grid) : grid;
    pb.count.assign(static_cast<size_t>(pb.P), 0);
    const std::vector<float> references(static_cast<size_t>(pb.N), 0.0f), mask(static_cast<size_t>(pb.P), 0.0f);
    auto start = Clock::now();
    pb.stack = lib::value_or_exit(com::readallfile(pb.cfg, 0, pb.P, references.data(), mask.data(), pb.count.data()));
    const double load_seconds = seconds_since(start);
    for (int64_t p = 0; p < pb.P; ++p)
        if (pb.count[p] >= pb.M) pb.pixels.push_back(p);
    const int64_t n = static_cast<int64_t>(pb.pixels.size()), M = pb.M;
    std::printf("%s: %d dates, %lld interferograms, %lld unknowns, band %lld; %lld of %lld pixels timed "
                "(%lld estimable), loaded in %.2f s\n",
                config.c_str(), pb.cfg.n_date, static_cast<long long>(pb.N), static_cast<long long>(M),
                static_cast<long long>(pb.band), static_cast<long long>(pb.P), static_cast<long long>(grid),
                static_cast<long long>(n), load_seconds);

    std::vector<double> xe(static_cast<size_t>(pb.P * M), 0.0), xp(static_cast<size_t>(pb.P * M), 0.0);
    std::vector<float> cp(static_cast<size_t>(pb.P * M), 0.0f), sp(static_cast<size_t>(pb.P), 0.0f);
    int64_t rejected = 0;
    std::printf("path       threads      wall  thread time   pixels/s  5000x5000 at this rate  "
                "load 1-min before / after\n");
    for (int threads : s.threads) {
        timed("exact", threads, s.repeat, n, [&] {
#pragma omp parallel num_threads(threads)
            {
                ExactWork w(pb);
#pragma omp for schedule(dynamic, 64)
                for (int64_t i = 0; i < n; ++i) solve_exact(pb, pb.pixels[i], w, xe.data() + pb.pixels[i] * M);
            }
        });
        timed("prototype", threads, s.repeat, n, [&] {
            rejected = 0;
#pragma omp parallel num_threads(threads) reduction(+ : rejected)
            {
                std::vector<ExactWork> fallback;  // made on the first rejection
                std::vector<double> band(static_cast<size_t>(M * (pb.band + 1))), b(static_cast<size_t>(M));
                Rows rows;
#pragma omp for schedule(dynamic, 64)
                for (int64_t i = 0; i < n; ++i) {
                    const int64_t p = pb.pixels[i];
                    double* x = xp.data() + p * M;
                    gather(pb, p, rows);
                    if (!solve_banded(pb, rows, band, b, x)) {
                        ++rejected;
                        if (fallback.empty()) fallback.emplace_back(pb);
                        solve_exact(pb, p, fallback[0], x);
                    }
                    outputs(pb, rows, x, cp.data() + p * M, &sp[p]);
                }
            }
        });
        CFG run = pb.cfg;
        run.max_parallel_threads = threads;
        sbas::InversionProfile profile;
        std::fflush(stderr);
        const int saved = dup(STDERR_FILENO), null = open("/dev/null", O_WRONLY);
        dup2(null, STDERR_FILENO);  // the inversion's report and progress
        timed("program", threads, s.repeat, n, [&] {
            profile = sbas::InversionProfile{};
            lib::ok_or_exit(sbas::invert_batch(run, pb.dates, nullptr, pb.stack, pb.count.data(), 0, pb.P, &profile));
        });
        dup2(saved, STDERR_FILENO);
        close(saved);
        close(null);
        std::printf("           (program: %lld complete pixels, %lld in %lld patterns, %lld of one pixel; "
                    "writing the maps %.2f s)\n",
                    static_cast<long long>(profile.complete), static_cast<long long>(profile.incomplete),
                    static_cast<long long>(profile.patterns), static_cast<long long>(profile.single), profile.writing);
    }

    // Differences over the estimable pixels, and the exact path against the
    // maps and sigma the program wrote.
    std::vector<float> ce(static_cast<size_t>(M)), prog(static_cast<size_t>(pb.P * (M + 1)));
    const std::string result(pb.cfg.resultfolder);
    for (int64_t j = 0; j <= M; ++j) {
        const std::string name = j == M ? "least_square_sigma"
                                        : "culmap-" + std::to_string(pb.dates[j + 1].date) + "-" +
                                              std::to_string(pb.dates[0].date) + ".disp";
        lib::ok_or_exit(com::read_raster((result + "/" + name).c_str(), 0, pb.P, prog.data() + j * pb.P));
    }
    double dx = 0, xmax = 0, dc = 0, cmax = 0, rel = 0, spacings = 0, ds = 0, ds_rel = 0;
    int64_t differing = 0, mismatched = 0;
    Rows rows;
    for (int64_t p : pb.pixels) {
        float sigma = 0;
        gather(pb, p, rows);
        outputs(pb, rows, xe.data() + p * M, ce.data(), &sigma);
        bool same = sigma == prog[M * pb.P + p];
        double pixel_dc = 0, pixel_cmax = 0;
        for (int64_t j = 0; j < M; ++j) {
            same = same && std::memcmp(&ce[j], &prog[j * pb.P + p], 4) == 0;
            dx = std::max(dx, std::fabs(xp[p * M + j] - xe[p * M + j]));
            xmax = std::max(xmax, std::fabs(xe[p * M + j]));
            differing += cp[p * M + j] != ce[j];
            pixel_dc = std::max(pixel_dc, std::fabs(static_cast<double>(cp[p * M + j]) - ce[j]));
            pixel_cmax = std::max(pixel_cmax, std::fabs(static_cast<double>(ce[j])));
        }
        mismatched += !same;
        dc = std::max(dc, pixel_dc);
        cmax = std::max(cmax, pixel_cmax);
        const float top = static_cast<float>(pixel_cmax);  // float spacing at the pixel's largest value
        if (top > 0) rel = std::max(rel, pixel_dc / pixel_cmax);
        if (top > 0) spacings = std::max(spacings, pixel_dc / (std::nextafter(top, 2 * top) - top));
        ds = std::max(ds, std::fabs(static_cast<double>(sp[p]) - sigma));
        if (sigma >= 1e-3f) ds_rel = std::max(ds_rel, std::fabs(static_cast<double>(sp[p]) - sigma) / sigma);
    }
    const double mm = pb.cfg.wavelength / (4.0 * M_PI) * 1000.0;  // per radian
    std::printf("\ndifferences over %lld pixels x %lld unknowns (job units: radians; 1 rad = %.3f mm here):\n"
                "  max |x_proto - x_exact|  %.3g rad (%.3g mm; largest |x_exact| %.3g rad)\n"
                "  cumulative maps (float): %lld of %lld values differ, by at most %.3g rad (%.3g mm; largest "
                "|value| %.3g rad)\n"
                "  max over pixels of max_j |difference| / max_j |cumulative|: %.3g (%.2g float spacings)\n"
                "  sigma: max |difference| %.3g rad, relative (where sigma >= 1e-3 rad) %.3g\n"
                "  pixels whose N the Cholesky rejected (solved the exact way): %lld\n"
                "  pixels where the exact path differs from what the program wrote: %lld\n",
                static_cast<long long>(n), static_cast<long long>(M), mm, dx, dx * mm, xmax,
                static_cast<long long>(differing), static_cast<long long>(n * M), dc, dc * mm, cmax, rel, spacings, ds,
                ds_rel, static_cast<long long>(rejected), static_cast<long long>(mismatched));
    lib::free2d_float(pb.stack, pb.cfg.n_ifg);
    return 0;
}
