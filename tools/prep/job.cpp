// Writing the job: rasters, header, list, baselines, DEM and configuration,
// after the checks that nothing of the input is written over and that every
// path fits sbas-ts's configuration.
#include <sys/stat.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstdio>
#include <filesystem>
#include <set>

#include "prep/fail.h"
#include "prep/prep.h"

namespace fs = std::filesystem;

namespace prep {
namespace {

static_assert(std::endian::native == std::endian::little, "rasters are written in the machine's byte order");

using Id = std::pair<dev_t, ino_t>;

std::optional<Id> id_of(const fs::path& path)
{
    struct stat s;
    if (::stat(path.c_str(), &s) != 0) return std::nullopt;
    return Id{s.st_dev, s.st_ino};
}

// The identities of `path` and of every folder above it that exists.
std::set<Id> chain(const fs::path& path)
{
    std::set<Id> ids;
    std::error_code error;
    fs::path p = fs::weakly_canonical(fs::absolute(path), error);
    if (error) p = fs::absolute(path).lexically_normal();
    for (;; p = p.parent_path()) {
        if (const auto id = id_of(p)) ids.insert(*id);
        if (p == p.parent_path()) break;
    }
    return ids;
}

// The shortest text that reads back as the same double.
std::string exact(double v)
{
    char text[64];
    const auto result = std::to_chars(text, text + sizeof text, v);
    return std::string(text, result.ptr);
}

void write_file(const fs::path& path, const void* data, size_t bytes)
{
    FILE* f = std::fopen(path.c_str(), "wb");
    const bool ok = f && std::fwrite(data, 1, bytes, f) == bytes;
    if (!f || std::fclose(f) != 0 || !ok) fail("cannot write %s", path.c_str());
}

void write_text(const fs::path& path, const std::string& text) { write_file(path, text.data(), text.size()); }

void write_raster(const fs::path& path, const std::vector<float>& samples)
{
    write_file(path, samples.data(), samples.size() * sizeof(float));
}

std::string header_text(const Grid& g)
{
    return "WIDTH " + std::to_string(g.width) + "\nFILE_LENGTH " + std::to_string(g.length) + "\nX_FIRST " +
           exact(g.centre_x()) + "\nY_FIRST " + exact(g.centre_y()) + "\nX_STEP " + exact(g.dx) + "\nY_STEP " +
           exact(g.dy) + "\n";
}

// sbas-ts splits configuration lines at blanks and holds at most 199
// characters a field.
void check_config_path(const std::string& path)
{
    if (path.size() > 199)
        fail("the path %s is %zu characters long; sbas-ts's configuration holds at most 199: choose a shorter --out",
             path.c_str(), path.size());
    if (path.find_first_of(" \t\r\n") != std::string::npos)
        fail("the path '%s' holds a blank, which sbas-ts's configuration cannot hold: choose another --out",
             path.c_str());
}

void check_output_folder(const fs::path& out, const Plan& plan, const Options& o)
{
    std::vector<std::string> inputs = plan.inputs;
    if (!o.dem.empty()) inputs.push_back(o.dem);
    const auto out_id = id_of(out);
    const auto above_out = chain(out);
    for (const std::string& input : inputs) {
        if (out_id && chain(input).count(*out_id)) fail("the output folder %s holds the input %s", out.c_str(), input.c_str());
        std::error_code error;
        if (fs::is_directory(input, error) && above_out.count(*id_of(input)))
            fail("the output folder %s lies inside the source folder %s", out.c_str(), input.c_str());
    }
    std::error_code error;
    if (fs::exists(out, error)) {
        if (!fs::is_directory(out, error)) fail("%s exists and is not a folder", out.c_str());
        if (!fs::is_empty(out, error))
            fail("the output folder %s is not empty: give a new or empty folder", out.c_str());
    }
}

}  // namespace

Written write_job(const Plan& plan, const Options& o)
{
    std::string root = fs::absolute(o.out).lexically_normal().string();
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    const fs::path out(root);
    Written w;
    w.folder = root;
    w.config = (out / "config.txt").string();
    w.result = (out / "result").string();
    w.baselines = std::all_of(plan.pairs.begin(), plan.pairs.end(), [](const Pair& p) { return p.bperp.has_value(); });
    if (o.wavelength) {
        w.wavelength = *o.wavelength;
        w.wavelength_from = "--wavelength";
    } else if (plan.wavelength) {
        w.wavelength = plan.wavelength->value;
        w.wavelength_from = plan.wavelength->where;
    } else {
        fail("the source gives no radar wavelength: give it with --wavelength METRES (0.05546576 for Sentinel-1)");
    }

    const std::vector<std::string> paths = {w.result, (out / "ifg_header.txt").string(), (out / "ifg_list.txt").string(),
                                            (out / "ifg").string(), (out / "baselines.txt").string(),
                                            (out / "dem").string(), (out / "dem_header.txt").string()};
    for (const std::string& p : paths) check_config_path(p);
    check_output_folder(out, plan, o);

    // Everything is checked: from here on the job is written.
    std::error_code error;
    for (const char* sub : {"ifg", "result"}) {
        fs::create_directories(out / sub, error);
        if (error) fail("cannot create %s: %s", (out / sub).c_str(), error.message().c_str());
    }
    std::string list, baselines;
    for (const Pair& p : plan.pairs) {
        write_raster(out / "ifg" / p.name(), p.layer >= 0 ? read_stack_layer(p.source, p.layer, plan.grid)
                                                          : read_on_grid(p.source, plan.grid));
        list += p.name() + "\n";
        if (w.baselines) baselines += p.name() + " " + exact(*p.bperp) + "\n";
    }
    write_text(paths[1], header_text(plan.grid));
    write_text(paths[2], list);
    if (w.baselines) write_text(paths[4], baselines);
    if (!o.dem.empty()) {
        write_raster(paths[5], read_on_grid(o.dem, plan.grid));
        write_text(paths[6], header_text(plan.grid));
    }

    // Every value is an absolute path or a number, so none can equal a key
    // name (the reader would set that key too).
    std::string config = "# job written by sbas-prep\nresultfolder " + paths[0] + "\nheaderfile " + paths[1] +
                         "\nfilelist " + paths[2] + "\ndatafolder " + paths[3] + "\nwavelength " + exact(w.wavelength) +
                         "\n";
    if (w.baselines) config += "baselines " + paths[4] + "\n";
    if (!o.dem.empty()) config += "demfile " + paths[5] + "\ndemfile_header " + paths[6] + "\n";
    write_text(w.config, config);
    return w;
}

}  // namespace prep
