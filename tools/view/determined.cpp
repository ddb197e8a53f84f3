// Undetermined pixels: a union-find over the dates of each pixel's valid
// interferograms.
//
// The loader's rules are repeated here on the original interferograms: a
// sample counts when it holds data (the no-data rule) and the pixel's closure
// mask value is below 0.5; a pixel whose count over the list falls below
// minimum_temporal_ifg_ratio (a float, widened, against the double share) is
// zeroed; a pixel with fewer valid interferograms than unknowns is skipped by
// the inversion. Both are "no estimate". One rule of the loader is not
// repeated: it also drops a sample equal, to the last bit, to its
// interferogram's reference value (which the corrections may have changed);
// in practice that is the reference pixel itself with ref_window 1, which is
// determined by definition here.
//
// The rows are read in blocks of at most about 32 MB of validity flags (one
// byte per interferogram and pixel), one seek and one read per interferogram
// and block.
#include "view/determined.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <numeric>

#include "numerics/validity.h"
#include "view/fail.h"
#include "view/rasters.h"

namespace view {
namespace {

constexpr int64_t kBlockBytes = 32 << 20;

struct Network {
    std::vector<std::string> paths;      // interferogram files
    std::vector<int> first, second;      // per interferogram: date indices
    int dates = 0;
};

Network network_of(const Job& job, const std::string& result_dir)
{
    const std::vector<Pair> pairs = pairs_used(job, result_dir);
    const std::vector<int> dates = dates_of(pairs);
    Network n;
    n.dates = static_cast<int>(dates.size());
    const uintmax_t bytes = static_cast<uintmax_t>(job.grid.pixels()) * 4;
    for (const Pair& pair : pairs) {
        const std::string path = resolve(job.datafolder.empty() ? "." : job.datafolder, pair.name);
        std::error_code error;
        if (!is_file(path) || std::filesystem::file_size(path, error) < bytes || error)
            fail("interferogram %s is missing or shorter than the grid; it is needed to tell the pixels whose "
                 "network is split (--keep-undetermined skips that)",
                 path.c_str());
        n.paths.push_back(path);
        n.first.push_back(static_cast<int>(std::lower_bound(dates.begin(), dates.end(), pair.date1) - dates.begin()));
        n.second.push_back(static_cast<int>(std::lower_bound(dates.begin(), dates.end(), pair.date2) - dates.begin()));
    }
    return n;
}

void read_rows(const std::string& path, const Grid& grid, int64_t row, int64_t rows, std::vector<float>& samples)
{
    samples.resize(static_cast<size_t>(rows * grid.width));
    read_samples(path, row * grid.width, rows * grid.width, samples.data());
}

int root(std::vector<int>& parent, int i)
{
    while (parent[static_cast<size_t>(i)] != i)
        i = parent[static_cast<size_t>(i)] = parent[static_cast<size_t>(parent[static_cast<size_t>(i)])];
    return i;
}

}  // namespace

Determination find_undetermined(const Job& job, const std::string& result_dir, int64_t first_row, int64_t end_row)
{
    const Grid& grid = job.grid;
    Determination d;
    d.first_row = first_row;
    d.end_row = end_row;
    d.undetermined.assign(static_cast<size_t>((end_row - first_row) * grid.width), 0);
    d.bridged = job.switches.temporal_constraint != 0;
    d.no_estimate_count = -1;
    if (d.bridged) return d;

    const Network n = network_of(job, result_dir);
    const int64_t count_ifg = static_cast<int64_t>(n.paths.size());
    // Unknowns of a pixel: the steps between dates, the model coefficient
    // with a temporal constraint (whose D - 1 rows add to the observations),
    // the DEM error when estimated.
    const int64_t unknowns = n.dates - 1 + (d.bridged ? 1 : 0) + (job.switches.if_est_hgt == 1 ? 1 : 0);
    const int64_t constraint_rows = d.bridged ? n.dates - 1 : 0;
    const std::string mask_path = result_dir + "/phase_loop_closure_mask";
    const bool masked = job.switches.if_check_loop_closure == 1 && is_file(mask_path);
    const uintmax_t mask_bytes = masked ? std::filesystem::file_size(mask_path) : 0;
    const Reference ref = reference_of(job, result_dir);
    d.no_estimate_count = 0;
    const double ratio = job.switches.minimum_temporal_ifg_ratio;

    const int64_t block_rows =
        std::max<int64_t>(1, kBlockBytes / std::max<int64_t>(1, count_ifg * grid.width));
    std::vector<uint8_t> valid;
    std::vector<float> samples, mask;
    std::vector<int> parent(static_cast<size_t>(n.dates));
    for (int64_t row = first_row; row < end_row; row += block_rows) {
        const int64_t rows = std::min(block_rows, end_row - row);
        const size_t pixels = static_cast<size_t>(rows * grid.width);
        // The mask as the driver reads it: a short file leaves the rest 0.
        mask.assign(pixels, 0.0f);
        if (masked) {
            const int64_t start = row * grid.width;
            const int64_t have = std::clamp<int64_t>(static_cast<int64_t>(mask_bytes / 4) - start, 0,
                                                     static_cast<int64_t>(pixels));
            FILE* file = std::fopen(mask_path.c_str(), "rb");
            const bool ok = file && (have == 0 || (std::fseek(file, static_cast<long>(start * 4), SEEK_SET) == 0 &&
                                                   std::fread(mask.data(), 4, static_cast<size_t>(have), file) ==
                                                       static_cast<size_t>(have)));
            if (file) std::fclose(file);
            if (!ok) fail("cannot read %s", mask_path.c_str());
        }
        valid.assign(static_cast<size_t>(count_ifg) * pixels, 0);
        for (int64_t k = 0; k < count_ifg; ++k) {
            read_rows(n.paths[static_cast<size_t>(k)], grid, row, rows, samples);
            uint8_t* flags = &valid[static_cast<size_t>(k) * pixels];
            for (size_t p = 0; p < pixels; ++p) flags[p] = lib::isvalid(samples[p]) && mask[p] < 0.5f;
        }
        for (size_t p = 0; p < pixels; ++p) {
            int64_t count = 0;
            for (int64_t k = 0; k < count_ifg; ++k) count += valid[static_cast<size_t>(k) * pixels + p];
            const bool zeroed = ratio > static_cast<double>(count) / static_cast<double>(count_ifg);
            if (zeroed || unknowns > count + constraint_rows) {
                ++d.no_estimate_count;
                continue;
            }
            if (d.bridged) continue;
            const int64_t r = row + static_cast<int64_t>(p) / grid.width;
            const int64_t c = static_cast<int64_t>(p) % grid.width;
            if (ref.known && r == ref.row && c == ref.col) continue;
            std::iota(parent.begin(), parent.end(), 0);
            int parts = n.dates;
            for (int64_t k = 0; k < count_ifg; ++k) {
                if (!valid[static_cast<size_t>(k) * pixels + p]) continue;
                const int a = root(parent, n.first[static_cast<size_t>(k)]);
                const int b = root(parent, n.second[static_cast<size_t>(k)]);
                if (a != b) {
                    parent[static_cast<size_t>(a)] = b;
                    --parts;
                }
            }
            if (parts > 1) {
                d.undetermined[static_cast<size_t>((r - first_row) * grid.width + c)] = 1;
                ++d.undetermined_count;
            }
        }
    }
    return d;
}

Determination find_undetermined(const Job& job, const std::string& result_dir)
{
    return find_undetermined(job, result_dir, 0, job.grid.length);
}

}  // namespace view
