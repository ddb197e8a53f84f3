// `sbas-view network`: the interferogram network of a job.
//
// Each acquisition date is a point at its date and its perpendicular
// baseline, each interferogram a segment between its two dates. The
// baselines file gives one baseline per pair; the per-date baselines are
// their least-squares fit b(date2) - b(date1) = bperp with the first date at
// 0 m (in a network of several unconnected parts, each part's first date is
// at 0 m, and the title says how many parts there are). The rms misfit of
// that fit is printed, as it tells how consistent the pair baselines are.
// Without a baselines file (or with a pair missing from it) the dates lie on
// a line and each interferogram is an arc over its time span.
//
// The list drawn is the configuration's whole list; the interferograms the
// loop-closure check dropped (result/filelist_deleted) are drawn dashed red.
#include <plplot/plplot.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <numeric>
#include <utility>

#include "catalogue/filelist.h"
#include "config/text.h"
#include "numerics/linalg.h"
#include "view/commands.h"
#include "view/fail.h"
#include "view/guard.h"
#include "view/plot.h"

namespace view {
namespace {

using PairKey = std::pair<int, int>;

// The baselines file as a table from a pair's two dates to its baseline
// (metres). A line that does not read as a name holding two dates followed
// by a number is skipped; a later line for the same pair wins.
std::map<PairKey, double> read_baselines(const std::string& path)
{
    std::map<PairKey, double> found;
    FILE* file = std::fopen(path.c_str(), "r");
    if (!file) fail("cannot open baselines file %s", path.c_str());
    const lib::Status read = lib::for_each_line(file, path.c_str(), true, [&](char* line) {
        char name[lib::kFieldBytes];
        char value[lib::kFieldBytes];
        lib::substr(name, line, 1);
        lib::substr(value, line, 2);
        char* end = nullptr;
        const double bperp = std::strtod(value, &end);
        const int d1 = com::phsfilename2date(name, 1);
        const int d2 = com::phsfilename2date(name, 2);
        if (d1 && d2 && end != value && std::isfinite(bperp)) found[{d1, d2}] = bperp;
    });
    std::fclose(file);
    if (!read.ok()) fail("%s", read.error().message.c_str());
    return found;
}

struct Network {
    std::vector<int> dates;
    std::vector<size_t> first, second;  // per interferogram: date indices
    std::vector<bool> dropped;
    std::vector<double> pair_bperp;     // per interferogram, when known
    std::vector<double> date_bperp;     // per date, fitted
    int parts = 1;
    double rms = 0;
};

size_t root(std::vector<size_t>& parent, size_t i)
{
    while (parent[i] != i) i = parent[i] = parent[parent[i]];
    return i;
}

// Least squares of the per-date baselines, each connected part on its own
// with its earliest date fixed at 0.
void fit_dates(Network& n)
{
    const size_t d = n.dates.size();
    std::vector<size_t> parent(d);
    std::iota(parent.begin(), parent.end(), 0);
    for (size_t k = 0; k < n.first.size(); ++k) parent[root(parent, n.first[k])] = root(parent, n.second[k]);
    n.date_bperp.assign(d, 0.0);
    n.parts = 0;
    std::vector<bool> seen(d, false);
    for (size_t fixed = 0; fixed < d; ++fixed) {
        const size_t part = root(parent, fixed);
        if (seen[part]) continue;
        seen[part] = true;
        // `fixed` is the earliest date of its part: number the others.
        ++n.parts;
        std::vector<int64_t> unknown(d, -1);
        int64_t m = 0;
        for (size_t e = fixed + 1; e < d; ++e)
            if (root(parent, e) == part) unknown[e] = m++;
        if (m == 0) continue;
        std::vector<double> normal(static_cast<size_t>(m * m), 0.0), rhs(static_cast<size_t>(m), 0.0);
        for (size_t k = 0; k < n.first.size(); ++k) {
            const int64_t a = unknown[n.first[k]];
            const int64_t b = unknown[n.second[k]];
            if (a < 0 && b < 0) continue;
            // Row: +1 at the second date, -1 at the first.
            if (b >= 0) {
                normal[static_cast<size_t>(b * m + b)] += 1;
                rhs[static_cast<size_t>(b)] += n.pair_bperp[k];
            }
            if (a >= 0) {
                normal[static_cast<size_t>(a * m + a)] += 1;
                rhs[static_cast<size_t>(a)] -= n.pair_bperp[k];
            }
            if (a >= 0 && b >= 0) {
                normal[static_cast<size_t>(a * m + b)] -= 1;
                normal[static_cast<size_t>(b * m + a)] -= 1;
            }
        }
        std::vector<int> pivots(static_cast<size_t>(m));
        double sign = 0;
        if (lib::ludcmp(normal.data(), m, pivots.data(), &sign) != 0) fail("the baseline fit is singular");
        lib::lubksb(normal.data(), m, pivots.data(), rhs.data());
        for (size_t e = 0; e < d; ++e)
            if (unknown[e] >= 0) n.date_bperp[e] = rhs[static_cast<size_t>(unknown[e])];
    }
    double sum = 0;
    for (size_t k = 0; k < n.first.size(); ++k) {
        const double misfit = n.date_bperp[n.second[k]] - n.date_bperp[n.first[k]] - n.pair_bperp[k];
        sum += misfit * misfit;
    }
    n.rms = std::sqrt(sum / static_cast<double>(n.first.size()));
}

}  // namespace

void draw_network(const Job& job, const std::string& png, PageSize size)
{
    const NetworkOptions options{job.config, png, size};
    const std::vector<Pair> pairs = read_pairs(job.filelist);
    std::vector<std::string> deleted;
    if (!job.resultfolder.empty()) deleted = read_names(job.resultfolder + "/filelist_deleted");

    Network n;
    n.dates = dates_of(pairs);
    bool have_baselines = !job.baselines.empty() && is_file(job.baselines);
    const std::map<PairKey, double> table =
        have_baselines ? read_baselines(job.baselines) : std::map<PairKey, double>{};
    auto place = [&](int date) {
        return static_cast<size_t>(std::lower_bound(n.dates.begin(), n.dates.end(), date) - n.dates.begin());
    };
    std::string missing;
    for (const Pair& pair : pairs) {
        n.first.push_back(place(pair.date1));
        n.second.push_back(place(pair.date2));
        n.dropped.push_back(std::find(deleted.begin(), deleted.end(), pair.name) != deleted.end());
        const auto found = table.find({pair.date1, pair.date2});
        if (found != table.end()) n.pair_bperp.push_back(found->second);
        else if (have_baselines && missing.empty()) missing = pair.name;
    }
    if (have_baselines && !missing.empty()) {
        std::fprintf(stderr, "sbas-view: note: %s has no line for %s; drawing the network against dates only\n",
                     job.baselines.c_str(), missing.c_str());
        have_baselines = false;
    }
    if (have_baselines) fit_dates(n);

    std::vector<double> days;
    for (int date : n.dates) days.push_back(static_cast<double>(day_number(date)));
    const double xpad = std::max(0.03 * (days.back() - days.front()), 3.0);
    const double x0 = days.front() - xpad;
    const double x1 = days.back() + xpad;
    double ymin = 0, ymax = 1;
    if (have_baselines) {
        ymin = *std::min_element(n.date_bperp.begin(), n.date_bperp.end());
        ymax = *std::max_element(n.date_bperp.begin(), n.date_bperp.end());
        const double pad = std::max(0.08 * (ymax - ymin), 1.0);
        ymin -= pad;
        ymax += pad;
    } else {
        ymin = -0.08;
        ymax = 1.1;
    }
    double longest = 1;
    for (size_t k = 0; k < n.first.size(); ++k) longest = std::max(longest, days[n.second[k]] - days[n.first[k]]);

    open_figure(options.png, options.size);
    viewport(120, 36, 128, 120);
    plwind(x0, x1, ymin, ymax);
    text_size(1.0);
    date_axis(days.front(), days.back(), ymin, ymax, true);
    plcol0(kBlack);
    plbox("bc", 0, 0, have_baselines ? "bcnstv" : "bc", 0, 0);

    auto segment = [&](size_t k) {
        const double xa = days[n.first[k]], xb = days[n.second[k]];
        if (have_baselines) {
            pljoin(xa, n.date_bperp[n.first[k]], xb, n.date_bperp[n.second[k]]);
            return;
        }
        double x[33], y[33];
        for (int i = 0; i <= 32; ++i) {
            const double t = i / 32.0;
            x[i] = xa + t * (xb - xa);
            y[i] = (xb - xa) / longest * std::sin(t * 3.141592653589793);
        }
        plline(33, x, y);
    };
    size_t kept = 0, dropped = 0;
    plcol0(kBlue);
    plwidth(1.5);
    for (size_t k = 0; k < n.first.size(); ++k)
        if (!n.dropped[k]) {
            segment(k);
            ++kept;
        }
    plcol0(kRed);
    plwidth(2.5);
    pllsty(2);
    for (size_t k = 0; k < n.first.size(); ++k)
        if (n.dropped[k]) {
            segment(k);
            ++dropped;
        }
    pllsty(1);
    plwidth(1.0);
    std::vector<double> py(n.dates.size(), 0.0);
    if (have_baselines) py = n.date_bperp;
    dots(days, py, 6.0, kBlack);

    const std::string used = "used (" + std::to_string(kept) + ")";
    const std::string gone = "dropped by loop closure (" + std::to_string(dropped) + ")";
    const std::string acquisitions = "acquisition (" + std::to_string(n.dates.size()) + ")";
    legend_below({used, gone, acquisitions}, {PL_LEGEND_LINE, PL_LEGEND_LINE, PL_LEGEND_SYMBOL}, {kBlue, kRed, kBlack},
                 {1, 2, 1}, {1.5, 2.5, 1.0});

    char title[160];
    std::snprintf(title, sizeof title, "Interferogram network: %zu interferograms, %zu dates%s", n.first.size(),
                  n.dates.size(), n.parts > 1 ? (", " + std::to_string(n.parts) + " unconnected parts").c_str() : "");
    char subtitle[240];
    if (have_baselines)
        std::snprintf(subtitle, sizeof subtitle,
                      "per-date baselines: least squares of the pair baselines, %s at 0 m; rms misfit %.2f m",
                      n.parts > 1 ? "each part's first date" : "first date", n.rms);
    else
        std::snprintf(subtitle, sizeof subtitle, "%s",
                      "no perpendicular baselines: each arc joins the two dates of an interferogram");
    titles(title, subtitle);
    text_size(1.0);
    if (have_baselines) plmtex("l", 4.5, 0.5, 0.5, "Perpendicular baseline (m)");
    close_figure(options.png);
}

void run_network(const NetworkOptions& options)
{
    const Job job = read_job(options.config);
    com::FileIdentities inputs;
    for (const std::string* path : {&job.config, &job.headerfile, &job.filelist, &job.baselines})
        if (!path->empty()) com::add_file(inputs, *path);
    if (!job.resultfolder.empty()) com::add_file(inputs, job.resultfolder + "/filelist_deleted");
    claim_outputs(inputs, {options.png});
    draw_network(job, options.png, options.size);
    std::printf("%s\n", options.png.c_str());
}

}  // namespace view
