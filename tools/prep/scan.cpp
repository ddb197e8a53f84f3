// A folder source: every file below it is taken for what its name says, and
// the unwrapped-phase rasters become the job's pairs.
#include <fnmatch.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <map>
#include <set>

#include "catalogue/filelist.h"
#include "common/gdal_start.h"
#include "prep/fail.h"
#include "prep/prep.h"

namespace fs = std::filesystem;

namespace prep {
namespace {

bool has(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

bool ends(const std::string& text, const std::string& tail)
{
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// Dates from the file's name, else from the nearest folder below the source
// whose name holds two.
std::optional<std::pair<int, int>> pair_dates(const fs::path& relative)
{
    for (fs::path p = relative; !p.empty(); p = p.parent_path())
        if (auto d = dates_in(p.filename().string())) return d;
    return std::nullopt;
}

}  // namespace

std::string Pair::name() const { return "geo_" + std::to_string(date1) + "_" + std::to_string(date2) + ".unw"; }

const char* kind_label(Kind kind)
{
    static const char* const labels[kKinds] = {"unwrapped phase", "coherence",  "wrapped phase",
                                               "amplitude",       "DEM",        "connected components",
                                               "other rasters",   "previews and metadata"};
    return labels[static_cast<int>(kind)];
}

std::optional<std::pair<int, int>> dates_in(const std::string& name)
{
    const int first = com::phsfilename2date(name.c_str(), 1);
    const int second = first ? com::phsfilename2date(name.c_str(), 2) : 0;
    if (!second) return std::nullopt;
    return std::pair{first, second};
}

Kind kind_of(const std::string& file_name)
{
    std::string n = file_name;
    for (char& c : n) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const std::string ext = n.find('.') == std::string::npos ? "" : n.substr(n.rfind('.') + 1);
    static const std::set<std::string> sidecars = {"png", "jpg", "jpeg", "gif", "kmz", "kml", "xml", "txt",
                                                   "json", "md", "html", "pdf", "zip", "log", "rsc", "hdr",
                                                   "aux", "ovr", "csv", "py", "sh", "yaml", "yml"};
    if (sidecars.count(ext)) return Kind::sidecar;
    if (has(n, "conncomp") || has(n, "conn_comp") || has(n, "concomp")) return Kind::conncomp;
    if (has(n, "unw_phase") || has(n, "unwrapped") || has(n, ".unw.") || ends(n, ".unw")) return Kind::unwrapped;
    if (has(n, "corr") || has(n, "coh") || has(n, ".cc.")) return Kind::coherence;
    if (has(n, "wrapped") || has(n, "diff") || has(n, ".int.") || has(n, "_int.") || ends(n, ".int"))
        return Kind::wrapped;
    if (has(n, "amp") || has(n, "mli") || has(n, "intensity")) return Kind::amplitude;
    if (has(n, "dem") || has(n, "hgt") || has(n, "height") || has(n, "elev")) return Kind::dem;
    return Kind::other_raster;
}

Plan plan_folder(const Options& o)
{
    Plan plan;
    plan.source = o.source;
    plan.source_kind = "raster folder";
    plan.inputs.push_back(o.source);

    std::vector<fs::path> files;
    std::error_code error;
    for (fs::recursive_directory_iterator it(o.source, fs::directory_options::skip_permission_denied, error), end;
         !error && it != end; it.increment(error))
        if (it->is_regular_file()) files.push_back(it->path());
    if (error) fail("cannot read the folder %s: %s", o.source.c_str(), error.message().c_str());
    std::sort(files.begin(), files.end());

    std::map<std::pair<int, int>, std::string> seen;
    for (const fs::path& file : files) {
        const std::string name = file.filename().string();
        const fs::path relative = file.lexically_relative(o.source);
        Kind kind = kind_of(name);
        if (!o.pattern.empty()) {
            const bool whole = o.pattern.find('/') != std::string::npos;
            const bool match = whole ? fnmatch(o.pattern.c_str(), relative.c_str(), FNM_PATHNAME) == 0
                                     : fnmatch(o.pattern.c_str(), name.c_str(), 0) == 0;
            if (match) kind = Kind::unwrapped;
            else if (kind == Kind::unwrapped) kind = Kind::other_raster;
        }
        ++plan.counts[static_cast<int>(kind)];
        if (kind != Kind::unwrapped) continue;
        const auto dates = pair_dates(relative);
        if (!dates)
            fail("%s is taken for unwrapped phase, but neither its name nor its folders' names hold two dates "
                 "yyyymmdd",
                 file.c_str());
        if (dates->first == dates->second)
            fail("%s: both dates in its name are %d; an interferogram needs two acquisitions", file.c_str(),
                 dates->first);
        const auto [at, fresh] = seen.emplace(*dates, file.string());
        if (!fresh)
            fail("two unwrapped-phase rasters for the pair %d_%d: %s and %s (--pattern GLOB chooses one kind)",
                 dates->first, dates->second, at->second.c_str(), file.c_str());
        Pair pair;
        pair.date1 = dates->first;
        pair.date2 = dates->second;
        pair.source = file.string();
        plan.pairs.push_back(pair);
    }
    if (plan.pairs.empty())
        fail("no unwrapped-phase raster found under %s (names with 'unw_phase' or '.unw.' and two dates yyyymmdd; "
             "--pattern GLOB chooses others)",
             o.source.c_str());
    std::sort(plan.pairs.begin(), plan.pairs.end(),
              [](const Pair& a, const Pair& b) { return std::pair{a.date1, a.date2} < std::pair{b.date1, b.date2}; });

    tools::start_gdal();
    std::vector<Grid> grids;
    std::vector<std::string> names;
    std::map<std::string, int> warped;
    const Pair* wavelength_pair = nullptr;
    for (Pair& pair : plan.pairs) {
        const RasterInfo info = inspect_raster(pair.source);
        plan.inputs.push_back(pair.source);
        grids.push_back(info.grid);
        names.push_back(pair.source);
        if (info.warped) ++warped[info.crs];
        pair.bperp = info.bperp;
        if (!info.wavelength) continue;
        if (!plan.wavelength) {
            plan.wavelength = info.wavelength;
            wavelength_pair = &pair;
        } else if (std::fabs(info.wavelength->value - plan.wavelength->value) > 1e-6 * plan.wavelength->value) {
            fail("the rasters disagree on the wavelength: %.10g m for %s, %.10g m for %s", plan.wavelength->value,
                 wavelength_pair->source.c_str(), info.wavelength->value, pair.source.c_str());
        }
    }
    for (const auto& [crs, count] : warped)
        plan.notes.push_back("warped " + std::to_string(count) + " raster(s) from " + crs +
                             " to WGS 84 longitude/latitude (nearest neighbour)");
    plan.grid = common_grid(grids, names);
    const auto differ = std::count_if(grids.begin(), grids.end(), [&](const Grid& g) { return !(g == plan.grid); });
    if (differ > 0)
        plan.notes.push_back("the rasters' grids differ: " + std::to_string(differ) +
                             " raster(s) put on one common grid (union of the extents at the spacing of " +
                             plan.pairs.front().source + ", nearest neighbour, no data outside a raster)");
    return plan;
}

}  // namespace prep
