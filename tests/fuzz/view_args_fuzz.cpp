// sbas-view's command line as the program parses it: the input is cut at
// NUL bytes into arguments. The subcommands are replaced by checks that the
// parser handed over what each needs (a command it accepted with a missing
// path or an out-of-range size is a finding), and view::fail and
// view::usage_error, which end sbas-view, leave the input by an exception.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "view/commands.h"
#include "view/fail.h"

namespace view {

int command_line(int argc, char** argv);

namespace {

struct Refused {};

void require(bool holds)
{
    if (!holds) std::abort();
}

void check_size(const PageSize& size)
{
    require(size.width >= 300 && size.width <= 10000 && size.height >= 200 && size.height <= 10000);
}

}  // namespace

void fail(const char*, ...) { throw Refused{}; }
void usage_error(const char*, ...) { throw Refused{}; }

void run_export(const ExportOptions& o) { require(!o.result_dir.empty() && !o.config.empty()); }
void run_map(const MapOptions& o)
{
    require(!o.raster.empty() && !o.config.empty() && !o.png.empty());
    check_size(o.size);
}
void run_series(const SeriesOptions& o)
{
    require(!o.result_dir.empty() && !o.config.empty() && !o.png.empty());
    check_size(o.size);
}
void run_network(const NetworkOptions& o)
{
    require(!o.config.empty() && !o.png.empty());
    check_size(o.size);
}
void run_report(const ReportOptions& o) { require(!o.result_dir.empty() && !o.config.empty() && !o.html.empty()); }

}  // namespace view

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::vector<std::string> words{"sbas-view"};
    std::string word;
    for (size_t k = 0; k < size; ++k) {
        if (data[k] == 0) {
            words.push_back(word);
            word.clear();
        } else {
            word += static_cast<char>(data[k]);
        }
    }
    words.push_back(word);
    if (words.size() > 64) return 0;
    std::vector<char*> argv;
    for (std::string& w : words) argv.push_back(w.data());
    argv.push_back(nullptr);
    try {
        view::command_line(static_cast<int>(words.size()), argv.data());
    } catch (const view::Refused&) {
    }
    return 0;
}
