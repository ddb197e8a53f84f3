// The launch is detected from the variables MPI launchers set for their
// processes (Open MPI's OMPI_COMM_WORLD_SIZE, the PMI and PMIx process
// management interfaces of MPICH, Slurm and others): without them MPI_Init
// is never called. MPI is used from the main thread only, between the
// OpenMP regions of the stages (MPI_THREAD_FUNNELED).
//
// Standard error of a rank above 0 goes to an anonymous in-memory file; what
// a round adds to it is read back and gathered at rank 0. Its standard
// output goes nowhere: the messages a run writes there are errors, which
// rank 0 writes once.
#include "numerics/ranks.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>

#ifdef SBAS_HAVE_MPI
#include <fcntl.h>
#include <mpi.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace lib {
namespace {

Ranks place;
bool started = false;

#ifdef SBAS_HAVE_MPI
int log_fd = -1;     // the captured standard error of a rank above 0
off_t forwarded = 0;  // how much of it has been handed to rank 0

bool launched_by_mpi()
{
    for (const char* name : {"OMPI_COMM_WORLD_SIZE", "PMI_SIZE", "PMI_RANK", "PMIX_RANK"})
        if (std::getenv(name)) return true;
    return false;
}

void capture_stderr()
{
    std::fflush(stderr);
    log_fd = memfd_create("sbas-ts-rank-log", MFD_CLOEXEC);
    if (log_fd >= 0) dup2(log_fd, STDERR_FILENO);
    if (!std::freopen("/dev/null", "w", stdout)) std::fclose(stdout);
}

// What this rank wrote to standard error since the last call.
std::vector<char> new_log()
{
    std::vector<char> text;
    if (log_fd < 0) return text;
    std::fflush(stderr);
    struct stat st {};
    if (fstat(log_fd, &st) != 0 || st.st_size <= forwarded) return text;
    text.resize(static_cast<size_t>(st.st_size - forwarded));
    const ssize_t got = pread(log_fd, text.data(), text.size(), forwarded);
    text.resize(got > 0 ? static_cast<size_t>(got) : 0);
    // Start the file again, so that a long run's log does not pile up in
    // memory (standard error shares the file's offset).
    if (ftruncate(log_fd, 0) == 0 && lseek(log_fd, 0, SEEK_SET) == 0) forwarded = 0;
    else forwarded += static_cast<off_t>(text.size());
    return text;
}

void put_string(std::vector<char>& bytes, const std::string& text)
{
    const uint64_t n = text.size();
    bytes.insert(bytes.end(), reinterpret_cast<const char*>(&n), reinterpret_cast<const char*>(&n) + sizeof n);
    bytes.insert(bytes.end(), text.begin(), text.end());
}

std::string take_string(const std::vector<char>& bytes, size_t& at)
{
    uint64_t n = 0;
    std::memcpy(&n, bytes.data() + at, sizeof n);
    at += sizeof n;
    std::string text(bytes.data() + at, static_cast<size_t>(n));
    at += static_cast<size_t>(n);
    return text;
}

std::vector<char> pack(const Error& error)
{
    std::vector<char> bytes;
    const int32_t head[2] = {static_cast<int32_t>(error.kind), static_cast<int32_t>(error.stream)};
    bytes.insert(bytes.end(), reinterpret_cast<const char*>(head), reinterpret_cast<const char*>(head) + sizeof head);
    put_string(bytes, error.subject);
    put_string(bytes, error.message);
    return bytes;
}

Error unpack(const std::vector<char>& bytes)
{
    int32_t head[2] = {0, 0};
    std::memcpy(head, bytes.data(), sizeof head);
    size_t at = sizeof head;
    Error error;
    error.kind = static_cast<Fault>(head[0]);
    error.stream = static_cast<Stream>(head[1]);
    error.subject = take_string(bytes, at);
    error.message = take_string(bytes, at);
    return error;
}

// Every rank gets the error of rank `owner`.
Status error_of(int owner, const Status& local)
{
    std::vector<char> bytes;
    if (place.rank == owner) bytes = pack(local.error());
    broadcast(bytes, owner);
    return unpack(bytes);
}
#endif

}  // namespace

Ranks start_ranks(int* argc, char*** argv)
{
#ifdef SBAS_HAVE_MPI
    if (!launched_by_mpi()) return place;
    int provided = 0;
    if (MPI_Init_thread(argc, argv, MPI_THREAD_FUNNELED, &provided) != MPI_SUCCESS) return place;
    started = true;
    MPI_Comm_rank(MPI_COMM_WORLD, &place.rank);
    MPI_Comm_size(MPI_COMM_WORLD, &place.size);
    if (place.rank > 0) capture_stderr();
#else
    (void)argc;
    (void)argv;
#endif
    return place;
}

void stop_ranks()
{
#ifdef SBAS_HAVE_MPI
    if (!started) return;
    std::fflush(nullptr);
    MPI_Finalize();
    started = false;
#endif
}

Ranks ranks() { return place; }

Status agree(int64_t failed_item, Status local)
{
#ifdef SBAS_HAVE_MPI
    if (place.size < 2) return local;
    const int64_t none = std::numeric_limits<int64_t>::max();
    int64_t lowest = local.ok() ? none : failed_item;
    MPI_Allreduce(MPI_IN_PLACE, &lowest, 1, MPI_INT64_T, MPI_MIN, MPI_COMM_WORLD);
    if (lowest == none) return {};
    int owner = !local.ok() && failed_item == lowest ? place.rank : place.size;
    MPI_Allreduce(MPI_IN_PLACE, &owner, 1, MPI_INT, MPI_MIN, MPI_COMM_WORLD);
    return error_of(owner, local);
#else
    (void)failed_item;
    return local;
#endif
}

void begin_round()
{
#ifdef SBAS_HAVE_MPI
    if (place.size > 1) static_cast<void>(new_log());
#endif
}

Status end_round(Status local)
{
#ifdef SBAS_HAVE_MPI
    if (place.size < 2) return local;
    const std::vector<char> text = new_log();
    const int failed = local.ok() ? 0 : 1;
    const int length = static_cast<int>(text.size());
    std::vector<int> failures(static_cast<size_t>(place.size)), lengths(static_cast<size_t>(place.size));
    MPI_Gather(&failed, 1, MPI_INT, failures.data(), 1, MPI_INT, 0, MPI_COMM_WORLD);
    MPI_Gather(&length, 1, MPI_INT, lengths.data(), 1, MPI_INT, 0, MPI_COMM_WORLD);
    std::vector<int> offsets(static_cast<size_t>(place.size), 0);
    int total = 0;
    for (int r = 0; r < place.size; ++r) {
        offsets[static_cast<size_t>(r)] = total;
        total += lengths[static_cast<size_t>(r)];
    }
    std::vector<char> all(static_cast<size_t>(place.rank == 0 ? total : 0));
    MPI_Gatherv(text.data(), length, MPI_CHAR, all.data(), lengths.data(), offsets.data(), MPI_CHAR, 0,
                MPI_COMM_WORLD);
    int first_failed = place.size;
    if (place.rank == 0) {
        for (int r = 0; r < place.size; ++r) {
            if (r > 0)
                std::fwrite(all.data() + offsets[static_cast<size_t>(r)], 1,
                            static_cast<size_t>(lengths[static_cast<size_t>(r)]), stderr);
            if (failures[static_cast<size_t>(r)]) {
                first_failed = r;
                break;
            }
        }
        std::fflush(stderr);
    }
    MPI_Bcast(&first_failed, 1, MPI_INT, 0, MPI_COMM_WORLD);
    if (first_failed == place.size) return {};
    return error_of(first_failed, local);
#else
    return local;
#endif
}

void barrier()
{
#ifdef SBAS_HAVE_MPI
    if (place.size > 1) MPI_Barrier(MPI_COMM_WORLD);
#endif
}

void sum_over_ranks(int64_t* values, int64_t count)
{
#ifdef SBAS_HAVE_MPI
    if (place.size > 1 && count > 0)
        MPI_Allreduce(MPI_IN_PLACE, values, static_cast<int>(count), MPI_INT64_T, MPI_SUM, MPI_COMM_WORLD);
#else
    (void)values;
    (void)count;
#endif
}

void broadcast(std::vector<char>& bytes, int root)
{
#ifdef SBAS_HAVE_MPI
    if (place.size < 2) return;
    uint64_t n = bytes.size();
    MPI_Bcast(&n, 1, MPI_UINT64_T, root, MPI_COMM_WORLD);
    bytes.resize(static_cast<size_t>(n));
    for (uint64_t at = 0; at < n;) {
        const int piece = static_cast<int>(std::min<uint64_t>(n - at, 1u << 30));
        MPI_Bcast(bytes.data() + at, piece, MPI_CHAR, root, MPI_COMM_WORLD);
        at += static_cast<uint64_t>(piece);
    }
#else
    (void)bytes;
    (void)root;
#endif
}

void send_to(int to, const std::vector<char>& bytes)
{
#ifdef SBAS_HAVE_MPI
    uint64_t n = bytes.size();
    MPI_Send(&n, 1, MPI_UINT64_T, to, 1, MPI_COMM_WORLD);
    for (uint64_t at = 0; at < n;) {
        const int piece = static_cast<int>(std::min<uint64_t>(n - at, 1u << 30));
        MPI_Send(bytes.data() + at, piece, MPI_CHAR, to, 2, MPI_COMM_WORLD);
        at += static_cast<uint64_t>(piece);
    }
#else
    (void)to;
    (void)bytes;
#endif
}

std::vector<char> receive_from(int from)
{
    std::vector<char> bytes;
#ifdef SBAS_HAVE_MPI
    uint64_t n = 0;
    MPI_Recv(&n, 1, MPI_UINT64_T, from, 1, MPI_COMM_WORLD, MPI_STATUS_IGNORE);
    bytes.resize(static_cast<size_t>(n));
    for (uint64_t at = 0; at < n;) {
        const int piece = static_cast<int>(std::min<uint64_t>(n - at, 1u << 30));
        MPI_Recv(bytes.data() + at, piece, MPI_CHAR, from, 2, MPI_COMM_WORLD, MPI_STATUS_IGNORE);
        at += static_cast<uint64_t>(piece);
    }
#else
    (void)from;
#endif
    return bytes;
}

void collect(char* elements, size_t element_bytes, const std::vector<int64_t>& first,
             const std::vector<int64_t>& end, const std::vector<int>& owner)
{
    if (place.size < 2) return;
    for (size_t s = 0; s < first.size(); ++s) {
        if (owner[s] == 0 || end[s] <= first[s]) continue;
        char* at = elements + static_cast<size_t>(first[s]) * element_bytes;
        const size_t n = static_cast<size_t>(end[s] - first[s]) * element_bytes;
        if (place.rank == owner[s]) send_to(0, std::vector<char>(at, at + n));
        if (place.rank == 0) {
            const std::vector<char> got = receive_from(owner[s]);
            std::memcpy(at, got.data(), std::min(n, got.size()));
        }
    }
}

Status write_at(const char* path, int64_t first, const float* samples, int64_t count)
{
    const Error failed = error(Fault::write, path, Stream::err, "%s could not be written\n", path);
#ifdef SBAS_HAVE_MPI
    if (started) {
        MPI_File file;
        if (MPI_File_open(MPI_COMM_SELF, path, MPI_MODE_WRONLY | MPI_MODE_CREATE, MPI_INFO_NULL, &file) !=
            MPI_SUCCESS)
            return failed;
        bool ok = true;
        for (int64_t at = 0; ok && at < count;) {
            const int piece = static_cast<int>(std::min<int64_t>(count - at, int64_t{1} << 28));
            MPI_Status status;
            ok = MPI_File_write_at(file, static_cast<MPI_Offset>(4 * (first + at)), samples + at, piece, MPI_FLOAT,
                                   &status) == MPI_SUCCESS;
            at += piece;
        }
        if (MPI_File_close(&file) != MPI_SUCCESS) ok = false;
        return ok ? Status() : Status(failed);
    }
#endif
    // One process: a positioned write through the file itself.
    FILE* file = std::fopen(path, "r+b");
    if (!file) file = std::fopen(path, "w+b");
    if (!file) return failed;
    const bool ok = std::fseek(file, static_cast<long>(4 * first), SEEK_SET) == 0 &&
                    std::fwrite(samples, sizeof(float), static_cast<size_t>(count), file) ==
                        static_cast<size_t>(count);
    return std::fclose(file) == 0 && ok ? Status() : Status(failed);
}

}  // namespace lib
