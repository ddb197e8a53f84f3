// sbas-view: the results of an sbas-ts run as files a GIS opens and figures a
// person looks at. The command line is parsed here; each subcommand lives in
// its own source file.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "view/commands.h"
#include "view/fail.h"

namespace {

const char* const kUsage =
    "Usage: sbas-view COMMAND ...\n"
    "\n"
    "  export RESULTDIR --config CFG [--out DIR] [--unit rad|mm|m] [--keep-undetermined]\n"
    "      every raster of RESULTDIR as a Cloud-Optimised GeoTIFF, and the\n"
    "      displacement history as one NetCDF-CF cube (default DIR: RESULTDIR/export);\n"
    "      pixels whose network is split are left as no data unless kept, and\n"
    "      undetermined.tif marks them\n"
    "  map RASTER --config CFG -o PNG [--unit rad|mm|m] [--size WxH]\n"
    "      a map of one raster of a result folder\n"
    "  series RESULTDIR --config CFG (--pixel ROW COL | --lonlat LON LAT) -o PNG\n"
    "         [--csv FILE] [--unit rad|mm|m] [--size WxH]\n"
    "      one pixel's displacement history (ROW, COL from 0, as ref_row/ref_col)\n"
    "  network --config CFG -o PNG [--size WxH]\n"
    "      the interferogram network: dates against perpendicular baseline\n"
    "  report RESULTDIR --config CFG -o HTML [--pixel ROW,COL ...]\n"
    "      one self-contained HTML page: velocity map, click for a pixel's history,\n"
    "      network and run summary; OUT.html#row=R&col=C opens at a pixel\n"
    "\n"
    "CFG is the configuration sbas-ts ran with; its relative paths are taken\n"
    "relative to the folder holding CFG. --unit converts phase to line-of-sight\n"
    "distance with the configuration's wavelength (distance = phase * wavelength\n"
    "/ (4 pi), sign unchanged). Default unit: rad. Default size: 1200x800.\n"
    "The README's section on sbas-view gives the conventions of every output.\n";

// The arguments of one subcommand: positionals and --options with values.
class Arguments {
public:
    Arguments(int argc, char** argv) : args_(argv + std::min(argc, 2), argv + argc) {}

    bool done() const { return next_ >= args_.size(); }
    std::string take() { return args_[next_++]; }

    std::string value_of(const std::string& option)
    {
        if (done()) view::usage_error("%s needs a value", option.c_str());
        return take();
    }

private:
    std::vector<std::string> args_;
    size_t next_ = 0;
};

long long parse_integer(const std::string& text, const char* option)
{
    char* end = nullptr;
    errno = 0;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || errno != 0)
        view::usage_error("%s needs an integer, not '%s'", option, text.c_str());
    return value;
}

double parse_real(const std::string& text, const char* option)
{
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !std::isfinite(value))
        view::usage_error("%s needs a number, not '%s'", option, text.c_str());
    return value;
}

view::PageSize parse_size(const std::string& text)
{
    int width = 0;
    int height = 0;
    char tail = 0;
    if (std::sscanf(text.c_str(), "%dx%d%c", &width, &height, &tail) != 2 || width < 300 || height < 200 ||
        width > 10000 || height > 10000)
        view::usage_error("--size needs WIDTHxHEIGHT in pixels, 300x200 to 10000x10000, not '%s'", text.c_str());
    return {width, height};
}

void need(const std::string& value, const char* what)
{
    if (value.empty()) view::usage_error("%s is missing", what);
}

// Sets `slot` from the next positional argument; a second one is an error.
void positional(std::string& slot, const std::string& arg)
{
    if (!arg.empty() && arg[0] == '-') view::usage_error("unknown option %s", arg.c_str());
    if (!slot.empty()) view::usage_error("unexpected argument '%s'", arg.c_str());
    slot = arg;
}

void export_command(Arguments args)
{
    view::ExportOptions o;
    while (!args.done()) {
        const std::string arg = args.take();
        if (arg == "--config") o.config = args.value_of(arg);
        else if (arg == "--out") o.out_dir = args.value_of(arg);
        else if (arg == "--keep-undetermined") o.keep_undetermined = true;
        else if (arg == "--unit") o.unit = view::parse_unit(args.value_of(arg));
        else positional(o.result_dir, arg);
    }
    need(o.result_dir, "RESULTDIR");
    need(o.config, "--config CFG");
    view::run_export(o);
}

void map_command(Arguments args)
{
    view::MapOptions o;
    while (!args.done()) {
        const std::string arg = args.take();
        if (arg == "--config") o.config = args.value_of(arg);
        else if (arg == "-o") o.png = args.value_of(arg);
        else if (arg == "--unit") o.unit = view::parse_unit(args.value_of(arg));
        else if (arg == "--size") o.size = parse_size(args.value_of(arg));
        else positional(o.raster, arg);
    }
    need(o.raster, "RASTER");
    need(o.config, "--config CFG");
    need(o.png, "-o PNG");
    view::run_map(o);
}

void series_command(Arguments args)
{
    view::SeriesOptions o;
    bool pixel = false;
    while (!args.done()) {
        const std::string arg = args.take();
        if (arg == "--config") o.config = args.value_of(arg);
        else if (arg == "-o") o.png = args.value_of(arg);
        else if (arg == "--csv") o.csv = args.value_of(arg);
        else if (arg == "--unit") o.unit = view::parse_unit(args.value_of(arg));
        else if (arg == "--size") o.size = parse_size(args.value_of(arg));
        else if (arg == "--pixel") {
            o.row = parse_integer(args.value_of(arg), "--pixel ROW");
            o.col = parse_integer(args.value_of(arg), "--pixel COL");
            pixel = true;
        } else if (arg == "--lonlat") {
            o.lon = parse_real(args.value_of(arg), "--lonlat LON");
            o.lat = parse_real(args.value_of(arg), "--lonlat LAT");
            o.by_lonlat = true;
        } else positional(o.result_dir, arg);
    }
    need(o.result_dir, "RESULTDIR");
    need(o.config, "--config CFG");
    need(o.png, "-o PNG");
    if (pixel == o.by_lonlat) view::usage_error("give exactly one of --pixel ROW COL and --lonlat LON LAT");
    view::run_series(o);
}

void network_command(Arguments args)
{
    view::NetworkOptions o;
    while (!args.done()) {
        const std::string arg = args.take();
        if (arg == "--config") o.config = args.value_of(arg);
        else if (arg == "-o") o.png = args.value_of(arg);
        else if (arg == "--size") o.size = parse_size(args.value_of(arg));
        else view::usage_error("unexpected argument '%s'", arg.c_str());
    }
    need(o.config, "--config CFG");
    need(o.png, "-o PNG");
    view::run_network(o);
}

void report_command(Arguments args)
{
    view::ReportOptions o;
    while (!args.done()) {
        const std::string arg = args.take();
        if (arg == "--config") o.config = args.value_of(arg);
        else if (arg == "-o") o.html = args.value_of(arg);
        else if (arg == "--pixel") {
            const std::string value = args.value_of(arg);
            const size_t comma = value.find(',');
            if (comma == std::string::npos) view::usage_error("--pixel needs ROW,COL, not '%s'", value.c_str());
            o.pixels.emplace_back(parse_integer(value.substr(0, comma), "--pixel ROW"),
                                  parse_integer(value.substr(comma + 1), "--pixel COL"));
        } else positional(o.result_dir, arg);
    }
    need(o.result_dir, "RESULTDIR");
    need(o.config, "--config CFG");
    need(o.html, "-o HTML");
    view::run_report(o);
}

}  // namespace

namespace view {

// The command line of sbas-view: parses it and runs the subcommand it names
// (a fuzz harness calls it with view::fail, view::usage_error and the
// run_* functions of its own).
int command_line(int argc, char** argv)
{
    const std::string command = argc > 1 ? argv[1] : "";
    for (int i = 1; i < argc; ++i)
        if (!std::strcmp(argv[i], "--help") || !std::strcmp(argv[i], "-h") || (i == 1 && command == "help")) {
            std::fputs(kUsage, stdout);
            return 0;
        }
    const Arguments args(argc, argv);
    if (command == "export") export_command(args);
    else if (command == "map") map_command(args);
    else if (command == "series") series_command(args);
    else if (command == "network") network_command(args);
    else if (command == "report") report_command(args);
    else if (command.empty()) view::usage_error("no command given");
    else view::usage_error("unknown command '%s'", command.c_str());
    return 0;
}

}  // namespace view

#ifndef SBAS_VIEW_NO_MAIN
int main(int argc, char** argv) { return view::command_line(argc, argv); }
#endif
