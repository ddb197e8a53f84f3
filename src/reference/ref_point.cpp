// Choice of the reference.
//
// A pixel named in the configuration is used as given. Otherwise one of two
// searches picks the steadiest place of the scene through time, on the idea
// that a point which barely moves from one interferogram to the next is the
// best stand-in for "no deformation":
//
//  - the least-variance pixel: the pixel whose samples vary least over all
//    interferograms;
//  - the most stable window: the scene is cut into square cells of
//    ref_window pixels, and the cell whose mean varies least wins. Averaging
//    over a cell trades resolution for robustness against noisy pixels.
//
// Both searches stream the interferograms one at a time through the running
// mean and sample variance, so memory holds one raster plus the
// accumulators whatever the length of the list. The pixels (or rows of
// cells) of an interferogram are shared out over max_parallel_threads
// threads; each accumulator still takes its updates in list order, so the
// choice does not depend on the thread count. A pixel or cell that holds
// no data in any one interferogram is dropped for good: a reference must be
// present in all of them. The third choice, the scene's global mean, needs
// no search.
//
// An automatically chosen pixel is written back into the run record and
// reported in the file "refpoint", so that a later pass over corrected
// interferograms refers to the same pixel without searching again.
#include "reference/ref_point.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "catalogue/header.h"
#include "catalogue/raster.h"
#include "catalogue/stack.h"
#include "config/fatal.h"
#include "numerics/arrays.h"
#include "numerics/ranks.h"
#include "numerics/parallel.h"
#include "numerics/stats.h"
#include "numerics/validity.h"
#include "reference/ref_values.h"

namespace com {
namespace {

// Where a flat index lies. Row and column come from the index in double
// precision; the coordinates are those of the pixel's corner sample.
// Precondition: header.WIDTH >= 1.
struct Place {
    int64_t row;
    int64_t col;
    double lat;
    double lon;
};

Place place_of(int64_t index, const HEADER& header)
{
    const double width = static_cast<double>(header.WIDTH);
    const double row = std::floor(static_cast<double>(index) / width);
    Place place{};
    place.row = static_cast<int64_t>(row);
    place.col = static_cast<int64_t>(static_cast<double>(index) - row * width);
    place.lat = static_cast<double>(place.row) * header.Y_STEP + header.Y_FIRST;
    place.lon = static_cast<double>(place.col) * header.X_STEP + header.X_FIRST;
    return place;
}

lib::Error no_stable_point()
{
    return lib::error(lib::Fault::data, "", lib::Stream::err,
                      "Cannot find a stable reference point!\n"
                      "There are interferograms that may contain too many invalid pixels!\n");
}

// The report of an automatically chosen pixel, for the user and for later
// runs; the last line has no line end.
lib::Status write_report(const CFG& cfg, int64_t index, const HEADER& header)
{
    const Place place = place_of(index, header);
    const Path path = join_path(cfg.resultfolder, "refpoint");
    SBAS_TAKE(lib::File output, open_output(path.c_str(), "w"));
    FILE* file = output.get();
    std::fprintf(file, "refpoint position: %d\n", static_cast<int>(index));
    std::fprintf(file, "refpoint row: %d\n", static_cast<int>(place.row));
    std::fprintf(file, "refpoint col: %d\n", static_cast<int>(place.col));
    std::fprintf(file, "refpoint lat: %.6f\n", place.lat);
    std::fprintf(file, "refpoint lon: %.6f", place.lon);
    if (std::fclose(output.release()) != 0) return write_error(path.c_str());
    return {};
}

// This rank's block of `units` (all of them in a run of one process).
lib::Block rank_units(int64_t units)
{
    const lib::Ranks place = lib::ranks();
    return lib::block_of(units, place.size, place.rank);
}

// Streams the interferograms, list order, through visit(k, units, first,
// samples) on max_parallel_threads threads: the grid is cut into `units`
// runs of `unit_pixels` pixels, each thread takes a block of units and reads
// only their pixels [first, ...) of every interferogram into `samples`, so
// the threads never wait for one another. An interferogram that cannot be
// read is reported as reading it whole reports it (the first one in the
// list that fails); the accumulators are then of no use. In an MPI run the
// units are first cut into one block per rank (rank_units). With `keep`,
// the interferograms are read into rows of the whole grid that are left to
// the caller (one rank only).
template <typename Visit>
lib::Status for_each_slice(const CFG& cfg, int64_t pixels, int64_t units, int64_t unit_pixels, Visit visit,
                           HeldBatch* keep)
{
    const int64_t n = static_cast<int64_t>(cfg.ifg_names.size());
    const lib::Block mine = rank_units(units);
    lib::FirstError failure;
    float** rows = keep && !lib::spread() && n > 0 && pixels > 0 ? lib::need_rows_to_fill(n, pixels) : nullptr;
#pragma omp parallel num_threads(lib::region_threads(cfg.max_parallel_threads))
    {
        lib::Block block = lib::block_of(mine.end - mine.first, omp_get_num_threads(), omp_get_thread_num());
        block.first += mine.first;
        block.end += mine.first;
        const int64_t first = std::min(block.first * unit_pixels, pixels);
        const int64_t end = std::min(block.end * unit_pixels, pixels);
        lib::Owned<float> own(rows ? 0 : std::max<int64_t>(end - first, 1));
        for (int64_t k = 0; k < n && !failure.past(k); ++k) {
            float* samples = rows ? rows[k] + first : own.get();
            const Path path = join_path(cfg.datafolder, cfg.ifg_names[k].c_str());
            lib::Status read = read_raster(path.c_str(), first, end - first, samples);
            if (!read.ok()) {
                lib::Owned<float> whole(std::max<int64_t>(pixels, 1));
                lib::Status again = read_raster(path.c_str(), 0, pixels, whole.get());
                failure.record(k, again.ok() ? std::move(read).error() : std::move(again).error());
                break;
            }
            visit(static_cast<size_t>(k), block, first, static_cast<const float*>(samples));
        }
    }
    if (rows && !failure.error) {
        keep->release();
        keep->rows = rows;
        keep->n_rows = n;
        keep->first = 0;
        keep->end = pixels;
    } else if (rows) {
        lib::free2d_float(rows, static_cast<int>(n));
    }
    return lib::agree(failure.index, failure.status());
}

// Rank 0 gathers the accumulators of every rank's units (units_elements
// accumulators per unit), chooses the pixel with `choose` and every rank
// returns its choice (or its error). With one rank: choose().
template <typename T, typename Choose>
lib::Result<int64_t> choose_on_first_rank(T* accumulators, int64_t units, int64_t unit_elements, Choose choose)
{
    if (!lib::spread()) return choose();
    const lib::Ranks place = lib::ranks();
    std::vector<int64_t> first, end;
    std::vector<int> owner;
    for (int r = 0; r < place.size; ++r) {
        const lib::Block b = lib::block_of(units, place.size, r);
        first.push_back(b.first * unit_elements);
        end.push_back(b.end * unit_elements);
        owner.push_back(r);
    }
    lib::collect(reinterpret_cast<char*>(accumulators), sizeof(T), first, end, owner);
    lib::Status status;
    int64_t chosen = -1;
    if (place.rank == 0) {
        lib::Result<int64_t> got = choose();
        if (got.ok()) chosen = *got;
        else status = std::move(got).error();
    }
    SBAS_TRY(lib::agree(0, std::move(status)));
    std::vector<char> bytes(sizeof chosen);
    std::memcpy(bytes.data(), &chosen, sizeof chosen);
    lib::broadcast(bytes, 0);
    std::memcpy(&chosen, bytes.data(), sizeof chosen);
    return chosen;
}

}  // namespace

lib::Result<int64_t> find_ref_point(CFG cfg, const HEADER& header, HeldBatch* keep)
{
    const int64_t pixels = pixel_count(header);
    const lib::Owned<lib::RunningMoments> moments(pixels);

    // A mean of 0 marks an excluded pixel: invalid once, it stays out.
    // Pixels are independent: each thread updates a block of them.
    const auto update = [&](size_t k, lib::Block block, int64_t first, const float* samples) {
        for (int64_t p = block.first; p < block.end && p < pixels; ++p) {
            lib::RunningMoments& m = moments[p];
            const float x = samples[p - first];
            if ((k == 0 || lib::isvalid_double(m.mean)) && lib::isvalid(x)) {
                m.add(x, lib::PreviousMean::rounded_to_float);
            } else if (k > 0) {
                m.mean = 0;
                m.variance = 0;
            }
        }
    };
    SBAS_TRY(for_each_slice(cfg, pixels, pixels, 1, update, keep));

    return choose_on_first_rank(moments.get(), pixels, 1, [&]() -> lib::Result<int64_t> {
        // A variance of exactly 0 (a constant pixel, or a single
        // interferogram) is no evidence of stability and does not qualify.
        float least = 999999.0f;
        int64_t chosen = -1;
        for (int64_t p = 0; p < pixels; ++p) {
            const double variance = moments[p].variance;
            if (!lib::isvalid_double(variance)) continue;
            if (least > std::fabs(variance)) {
                least = static_cast<float>(std::fabs(variance));
                chosen = p;
            }
        }
        if (chosen < 0) return no_stable_point();
        SBAS_TRY(write_report(cfg, chosen, header));
        return chosen;
    });
}

lib::Result<int64_t> find_ref_grid(CFG cfg, const HEADER& header, HeldBatch* keep)
{
    const int64_t pixels = pixel_count(header);
    // A cell below one pixel makes no sense; one pixel is the closest meaning.
    const int64_t side = std::max(cfg.ref_window, 1);

    // Cells start at row 0, column 0; the last cell across and down may be
    // partial, or empty when the size is a multiple of the side.
    int64_t across = 0;
    int64_t down = 0;
    if (pixels > 0) {
        across = static_cast<int64_t>(std::floor(static_cast<double>(header.WIDTH) / static_cast<double>(side))) + 1;
        down = static_cast<int64_t>(std::floor(static_cast<double>(header.FILE_LENGTH) / static_cast<double>(side))) + 1;
    }
    const int64_t cells = across * down;

    // Per cell: the moments of its mean through the interferograms (a count
    // of 0 marks an excluded cell), and this interferogram's valid samples.
    const lib::Owned<lib::RunningMoments> moments(cells);
    const lib::Owned<double> sums(cells);
    const lib::Owned<double> counts(cells);
    double* cell_sum = sums.get();
    double* cell_n = counts.get();

    // Rows of cells are independent: each thread takes a block of them,
    // their rows in order.
    const int64_t rows = pixels > 0 ? header.FILE_LENGTH : 0;
    const auto update = [&](size_t k, lib::Block band, int64_t first, const float* samples) {
        const int64_t first_cell = band.first * across, end_cell = band.end * across;
        // One pass in raster order adds each cell's samples row by row, the
        // order a cell-by-cell walk would take.
        std::fill(cell_sum + first_cell, cell_sum + end_cell, 0.0);
        std::fill(cell_n + first_cell, cell_n + end_cell, 0.0);
        for (int64_t i = band.first * side; i < std::min(band.end * side, rows); ++i) {
            const int64_t cell_row = (i / side) * across;
            const float* line = samples + (i * header.WIDTH - first);
            for (int64_t j = 0; j < header.WIDTH; ++j) {
                if (!lib::isvalid(line[j])) continue;
                const int64_t cell = cell_row + j / side;
                cell_sum[cell] += line[j];
                cell_n[cell] += 1;
            }
        }
        for (int64_t cell = first_cell; cell < end_cell; ++cell) {
            lib::RunningMoments& m = moments[cell];
            if (k > 0 && m.count < 0.5) continue;
            if (cell_n[cell] < 0.5) {
                m.count = 0;
                continue;
            }
            m.add(cell_sum[cell] / cell_n[cell], lib::PreviousMean::rounded_to_float);
        }
    };
    SBAS_TRY(for_each_slice(cfg, pixels, down, side * (pixels > 0 ? header.WIDTH : 0), update, keep));
    return choose_on_first_rank(moments.get(), down, across, [&]() -> lib::Result<int64_t> {
    // Unlike the single-pixel search, a deviation of 0 qualifies here: the
    // cell's count, not its spread, decides whether it is a candidate.
    const int64_t half = static_cast<int64_t>(std::ceil((side - 1) * 0.5));
    float least = 999999.0f;
    int64_t chosen = -1;
    for (int64_t r = 0; r < down; ++r) {
        for (int64_t c = 0; c < across; ++c) {
            const int64_t cell = r * across + c;
            if (!lib::isvalid_double(moments[cell].count)) continue;
            const double deviation = std::sqrt(moments[cell].variance);
            if (!(least > deviation)) continue;
            least = static_cast<float>(deviation);
            int64_t centre_row = r * side + half;
            int64_t centre_col = c * side + half;
            // A partial last row of cells is pulled back inside the grid. The
            // column of a partial last column may stay at WIDTH, which names
            // the first pixel of the next row; reports and users' later runs
            // rely on that index, so it is kept.
            if (centre_row >= header.FILE_LENGTH) centre_row = header.FILE_LENGTH - 1;
            if (centre_col > header.WIDTH) centre_col = header.WIDTH;
            chosen = centre_row * header.WIDTH + centre_col;
        }
    }
    if (chosen < 0) return no_stable_point();
    SBAS_TRY(write_report(cfg, chosen, header));
    return chosen;
    });
}

}  // namespace com

namespace sbas {
namespace {

void set_reference_pixel(CFG* cfg, int64_t index, const HEADER& header)
{
    const com::Place place = com::place_of(index, header);
    cfg->ref_col = place.col;
    cfg->ref_row = place.row;
    cfg->ref_lat = static_cast<float>(place.lat);
    cfg->ref_lon = static_cast<float>(place.lon);
}

lib::Error out_of_coverage()
{
    return lib::error(lib::Fault::setting, "ref_row/ref_col", lib::Stream::err,
                      "ERROR: Rereference point out of coverage!\n");
}

}  // namespace

lib::Result<float*> sbas_step1(CFG* cfg, const HEADER& header, com::HeldBatch* keep)
{
    if (cfg->ref_col < 0) return out_of_coverage();

    // Row 0 with column 0 means that no pixel was given, so pixel (0, 0)
    // itself cannot be named.
    if (cfg->ref_col != 0 || cfg->ref_row != 0) {
        if (cfg->ref_col < header.WIDTH && cfg->ref_row >= 0 && cfg->ref_row < header.FILE_LENGTH)
            return com::get_ref_point_value(*cfg, header, header.WIDTH * cfg->ref_row + cfg->ref_col);
        return out_of_coverage();
    }

    switch (cfg->ref_method) {
    case 0: {
        std::fprintf(stderr, "\n*********Looking for an arbitrary reference point********\n");
        SBAS_TAKE(const int64_t index, com::find_ref_point(*cfg, header, keep));
        SBAS_TAKE(float* values, com::get_ref_point_value(*cfg, header, index));
        set_reference_pixel(cfg, index, header);
        return values;
    }
    case 1:
        std::fprintf(stderr, "\n***********Using global mean as reference point**********\n");
        return com::get_ref_point_value_global_mean(*cfg, header);
    case 2: {
        std::fprintf(stderr, "\n***********Looking for a stable reference point**********\n");
        SBAS_TAKE(const int64_t index, com::find_ref_grid(*cfg, header, keep));
        SBAS_TAKE(float* values, com::get_ref_point_value(*cfg, header, index));
        set_reference_pixel(cfg, index, header);
        return values;
    }
    default:
        // No method, no reference: zeros leave the interferograms as they are.
        return lib::per_interferogram(cfg->ifg_names.size());
    }
}

}  // namespace sbas
