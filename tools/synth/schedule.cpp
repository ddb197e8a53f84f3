// The acquisition calendar and the small-baseline network.
//
// Date i after the first falls on first + i * spacing days, moved by its own
// jitter and pushed later by every long gap before it; a date that would not
// come after its predecessor is put one day after it. The network links each
// date with its next K dates (so consecutive dates are always linked and the
// network is connected) and adds N long links chosen uniformly among the
// pairs more than K dates apart.
#include "synth/schedule.h"

#include <algorithm>
#include <cstdio>

#include "synth/random.h"

namespace synth {

std::vector<int> make_dates(const Options& options)
{
    const int n = options.dates;
    Rng rng(options.seed, Stream::dates);
    std::vector<long> offset(n, 0);
    for (int i = 1; i < n; ++i) {
        long jitter = 0;
        if (options.jitter > 0)
            jitter = static_cast<long>(rng.below(2 * static_cast<std::uint64_t>(options.jitter) + 1)) -
                     options.jitter;
        offset[i] = static_cast<long>(i) * options.spacing + jitter;
    }

    // Long gaps lengthen distinct intervals (interval i lies before date i).
    std::vector<int> intervals;
    for (int i = 1; i < n; ++i) intervals.push_back(i);
    std::vector<long> extra(n, 0);
    const long gap = options.gap_days > 0 ? options.gap_days : 4L * options.spacing;
    draw_to_front(rng, intervals, options.long_gaps);
    for (int g = 0; g < options.long_gaps; ++g) extra[intervals[g]] += gap;

    const long first = mjd_from_date(options.first_date);
    const long last_allowed = mjd_from_date(latest_date);
    std::vector<int> dates(n);
    long previous = first;
    long shift = 0;
    for (int i = 0; i < n; ++i) {
        shift += extra[i];
        long day = first + offset[i] + shift;
        if (i > 0 && day <= previous) day = previous + 1;
        if (day > last_allowed) {
            throw Error("the dates run past " + std::to_string(latest_date) + " (date " +
                        std::to_string(i + 1) + " of " + std::to_string(n) +
                        "): use fewer dates, a shorter spacing or an earlier first date");
        }
        dates[i] = date_from_mjd(static_cast<int>(day));
        previous = day;
    }
    return dates;
}

std::vector<std::pair<int, int>> make_network(const Options& options, int date_count)
{
    std::vector<std::pair<int, int>> pairs;
    std::vector<std::pair<int, int>> far;
    for (int i = 0; i < date_count; ++i) {
        for (int j = i + 1; j < date_count; ++j) {
            if (j - i <= options.neighbours)
                pairs.emplace_back(i, j);
            else
                far.emplace_back(i, j);
        }
    }
    if (options.long_links > static_cast<int>(far.size())) {
        throw Error("--long-links " + std::to_string(options.long_links) + " asks for more than the " +
                    std::to_string(far.size()) + " pairs more than " +
                    std::to_string(options.neighbours) + " dates apart");
    }
    Rng rng(options.seed, Stream::network);
    draw_to_front(rng, far, options.long_links);
    pairs.insert(pairs.end(), far.begin(), far.begin() + options.long_links);
    std::sort(pairs.begin(), pairs.end());
    return pairs;
}

std::string ifg_name(int first, int second)
{
    char name[64];
    std::snprintf(name, sizeof name, "geo_%08d_%08d.unw", first, second);
    return name;
}

}  // namespace synth
