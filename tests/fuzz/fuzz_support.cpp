// The job folder is made once per process and removed at its normal exit;
// each input overwrites one file of it. The readers hold their streams and
// buffers in owners that release them on every way out, so thousands of
// errors leak neither memory nor descriptors; the memory sink's ending
// throws, and the owners release them as the stack unwinds.
#include "fuzz_support.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "numerics/sink.h"

namespace fuzz {
namespace {

struct Stopped {};

std::string& folder()
{
    static std::string path;
    return path;
}

void write_file(const std::string& name, const std::string& text)
{
    std::ofstream(name, std::ios::binary) << text;
}

void remove_folder()
{
    std::error_code ignored;
    std::filesystem::remove_all(folder(), ignored);
}

// Memory-backed when the system has such a folder: every input is written
// to a file, and truncating a file on a disk costs milliseconds.
void prepare()
{
    char name[] = "/dev/shm/sbas-fuzz-XXXXXX";
    char fallback[] = "/tmp/sbas-fuzz-XXXXXX";
    const char* made = mkdtemp(name);
    if (!made) made = mkdtemp(fallback);
    if (!made || chdir(made) != 0) std::abort();
    folder() = made;
    std::atexit(remove_folder);
    std::filesystem::create_directory("ifg");
    std::filesystem::create_directory("result");
    write_file("header.txt", "WIDTH 6\nFILE_LENGTH 4\nX_FIRST 100.0\nY_FIRST 30.0\nX_STEP 0.01\nY_STEP -0.01\n");
    write_file("list.txt", "geo_20200101_20200113.unw\ngeo_20200113_20200125.unw\ngeo_20200101_20200125.unw\n");
    write_file("baselines.txt", "20200101_20200113 10.5\n20200113_20200125 -20\ngeo_20200101_20200125.unw -9.5\n");
    write_file("config.txt",
               "resultfolder result\nheaderfile header.txt\nfilelist list.txt\ndatafolder ifg\n"
               "baselines baselines.txt\nif_est_hgt 1\nref_lat 29.985\nref_lon 100.02\n");
    lib::set_run_end([] { throw Stopped{}; });
}

}  // namespace

void write_input(const char* name, const uint8_t* data, size_t size)
{
    write_file(name, std::string(reinterpret_cast<const char*>(data), size));
}

void run(const std::function<lib::Status()>& body)
{
    try {
        const lib::Status outcome = body();
        static_cast<void>(outcome);
    } catch (const Stopped&) {
    }
}

}  // namespace fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::prepare();
    return 0;
}
