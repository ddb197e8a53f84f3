#include "inversion/system.h"

#include <cmath>

#include "catalogue/design_rows.h"
#include "catalogue/filelist.h"
#include "numerics/lanes.h"
#include "numerics/linalg.h"
#include "numerics/validity.h"

namespace sbas {

Network describe(const CFG& cfg, const std::vector<DATEORDER>& dates)
{
    Network net;
    net.N = static_cast<int64_t>(cfg.ifg_names.size());
    net.D = static_cast<int64_t>(dates.size());
    const bool constrained = cfg.temporal_constraint == 1 || cfg.temporal_constraint == 2;
    // D - 1 even for a list without dates: the report prints what follows.
    net.constraints = constrained ? net.D - 1 : 0;
    net.dem_error = cfg.if_est_hgt != 0;
    net.M = net.D - 1 + (constrained ? 1 : 0) + (net.dem_error ? 1 : 0);
    net.L = net.N + net.constraints;
    net.model_column = net.dem_error ? net.M - 2 : net.M - 1;
    net.K = kFourPi / (static_cast<double>(cfg.wavelength) * static_cast<double>(cfg.orbit_altitude) *
                       std::sin(static_cast<double>(cfg.incidence) * M_PI / 180.0));
    net.ldE = (net.M + 7) / 8 * 8;
    return net;
}

SBAS_VECTOR_CLONES
bool estimator_finite(const Network& net, const double* E, int64_t rows)
{
    for (int64_t l = 0; l < rows; ++l)
        if (!lib::all_finite(E + l * net.ldE, net.M)) return false;
    return true;
}

FullNetwork full_network(const CFG& cfg, const Network& net, const std::vector<DATEORDER>& dates,
                         const BASELINE* baselines)
{
    const int64_t L = net.L, M = net.M;
    lib::Owned<double> A(L * M), w(L);
    for (int64_t i = 0; i < net.N; ++i) {
        const char* name = cfg.ifg_names[i].c_str();
        const int j1 = com::findorder(dates, com::phsfilename2date(name, 1));
        const int j2 = com::findorder(dates, com::phsfilename2date(name, 2));
        com::set_span(A.get(), L, i, j1, j2, net.D - 1);
        if (cfg.if_est_hgt == 1) A[(M - 1) * L + i] = baselines[i].bperp * net.K;
        w[i] = 1.0;
    }
    for (int64_t k = 0; k < net.constraints; ++k) {
        const int64_t r = net.N + k;
        A[k * L + r] = 1.0;
        w[r] = cfg.temporal_strength;
        A[net.model_column * L + r] = com::model_term(cfg, dates, k);
    }
    FullNetwork full;
    full.E = lib::Owned<double>(net.ldE * L);
    lib::EstimatorScratch scratch;
    lib::weighted_estimator(A.get(), w.get(), L, M, full.E.get(), net.ldE, scratch);
    lib::index_design(A.get(), L, M, full.design);
    if (!estimator_finite(net, full.E.get(), L)) full.A = std::move(A);
    full.ifgs = lib::Owned<int64_t>(net.N);
    for (int64_t k = 0; k < net.N; ++k) full.ifgs[k] = k;
    return full;
}

RowTemplate row_template(const CFG& cfg, const Network& net, const std::vector<DATEORDER>& dates,
                         const BASELINE* baselines)
{
    const int64_t rows = net.N + net.constraints;
    lib::Owned<float> samples(net.N);
    lib::Owned<float*> stack(net.N);
    for (int64_t k = 0; k < net.N; ++k) {
        samples[k] = 1.0f;
        stack[k] = samples.get() + k;
    }
    const int count[] = {static_cast<int>(net.N)};
    lib::Owned<double> A(rows * net.M), y(rows);
    RowTemplate t;
    t.w = lib::Owned<double>(rows);
    com::readoneunwseries3(cfg, stack.get(), count, net.M, dates, baselines, 0, net.K, y.get(), A.get(), t.w.get(),
                           rows);
    lib::index_design(A.get(), rows, net.M, t.design);
    t.skip = lib::Owned<int64_t>(rows);
    for (int64_t l = 0; l < rows; ++l) t.skip[l] = lib::shared_prefix(t.design, l);
    return t;
}

void select_rows(const RowTemplate& t, const Network& net, const int64_t* ifgs, int64_t observed, int64_t n,
                 lib::SparseDesign& design, double* w)
{
    const int64_t rows = n + net.constraints;
    // Room for every row of the template, so that the copies below are
    // plain stores; the entries past row_start[rows] are not used.
    const size_t room = t.design.columns.size();
    if (design.columns.size() < room) {
        design.columns.resize(room);
        design.values.resize(room);
    }
    design.row_start.resize(static_cast<size_t>(rows + 1));
    int64_t* start = design.row_start.data();
    int64_t* columns = design.columns.data();
    double* values = design.values.data();
    const int64_t* from_start = t.design.row_start.data();
    const int64_t* from_columns = t.design.columns.data();
    const double* from_values = t.design.values.data();
    int64_t at = 0;
    auto copy = [&](int64_t r, int64_t from) {
        start[r] = at;
        for (int64_t p = from_start[from]; p < from_start[from + 1]; ++p, ++at) {
            columns[at] = from_columns[p];
            values[at] = from_values[p];
        }
        w[r] = t.w[from];
    };
    for (int64_t r = 0; r < observed; ++r) copy(r, ifgs[r]);
    for (int64_t r = observed; r < n; ++r) {
        start[r] = at;
        w[r] = 0.0;
    }
    for (int64_t c = 0; c < net.constraints; ++c) copy(n + c, net.N + c);
    start[rows] = at;
}

}  // namespace sbas
