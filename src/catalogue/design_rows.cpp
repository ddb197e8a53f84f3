#include "catalogue/design_rows.h"

#include <algorithm>
#include <cmath>

#include "numerics/validity.h"

namespace com {

void set_span(double* A, int64_t ld, int64_t row, int64_t j1, int64_t j2, int64_t increments)
{
    for (int64_t j = std::max<int64_t>(j1, 0); j < j2 && j < increments; ++j) A[j * ld + row] = 1.0;
}

double model_term(const CFG& cfg, const std::vector<DATEORDER>& dates, int64_t k)
{
    const double a = dates[k].mjd;
    const double b = dates[k + 1].mjd;
    if (cfg.temporal_constraint == 1) return -(b - a) / 365.25;
    const double t0 = cfg.simple_log_origin_mjd;
    return -(std::log(b - t0) - std::log(a - t0));
}

void readoneunwseries3(const CFG& cfg, float* const* stack, const int* /*count*/, int64_t M,
                       const std::vector<DATEORDER>& dateorder, const BASELINE* baselines, int64_t pixel,
                       double K, double* y, double* A, double* w, int64_t rows)
{
    const int64_t N = static_cast<int64_t>(cfg.ifg_names.size());
    const int64_t D = static_cast<int64_t>(dateorder.size());
    const bool constrained = cfg.temporal_constraint == 1 || cfg.temporal_constraint == 2;
    const int64_t constraint_rows = constrained && D > 1 ? D - 1 : 0;
    const int64_t observations = rows - constraint_rows;
    const bool dem_error = cfg.if_est_hgt != 0;
    int64_t r = 0;
    for (int64_t k = 0; k < N && r < observations; ++k) {
        const float sample = stack[k][pixel];
        if (!lib::isvalid(sample)) continue;
        y[r] = sample;
        set_span(A, rows, r, cfg.ifg_date1_index[k], cfg.ifg_date2_index[k], D - 1);
        if (dem_error) A[(M - 1) * rows + r] = baselines[k].bperp * K;
        w[r] = 1.0;
        ++r;
    }
    const double constraint_weight = 1.0 / std::sqrt(static_cast<double>(cfg.temporal_strength));
    const int64_t model_column = dem_error ? M - 2 : M - 1;
    for (int64_t k = 0; k < constraint_rows; ++k) {
        const int64_t row = observations + k;
        A[k * rows + row] = 1.0;
        A[model_column * rows + row] = model_term(cfg, dateorder, k);
        w[row] = constraint_weight;
    }
}

}  // namespace com
