#include "core/ranks.hpp"

#include <fcntl.h>
#include <mpi.h>
#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>

#include <omp.h>

#include "core/error.hpp"

namespace torix {

namespace {

bool mpi_running() {
    int on = 0, off = 0;
    MPI_Initialized(&on);
    MPI_Finalized(&off);
    return on && !off;
}

int world(int (*query)(MPI_Comm, int*), int fallback) {
    if (!mpi_running()) return fallback;
    int v = fallback;
    query(MPI_COMM_WORLD, &v);
    return v;
}

}  // namespace

bool launched() {
    for (const char* v : {"OMPI_COMM_WORLD_SIZE", "PMIX_RANK", "PMI_RANK", "PMI_SIZE"})
        if (std::getenv(v) != nullptr) return true;
    return false;
}

int rank_count() { return world(MPI_Comm_size, 1); }
int my_rank() { return world(MPI_Comm_rank, 0); }

void start_ranks(int* argc, char*** argv) {
    if (!launched() || mpi_running()) return;
    // Only the thread that started MPI calls it: OpenMP's threads never do.
    int provided = 0;
    if (MPI_Init_thread(argc, argv, MPI_THREAD_FUNNELED, &provided) != MPI_SUCCESS)
        throw FatalError("MPI could not be started");
    std::atexit([] {
        if (mpi_running()) MPI_Finalize();
    });
    if (my_rank() != 0) {
        const int nowhere = ::open("/dev/null", O_WRONLY);
        if (nowhere >= 0) {
            ::dup2(nowhere, STDOUT_FILENO);
            ::dup2(nowhere, STDERR_FILENO);
            ::close(nowhere);
        }
    }
    // Ranks that share a machine share its processors: without a thread
    // count from the environment, each takes its part of those it may run
    // on (a launcher that binds each rank to one core leaves one each).
    if (std::getenv("OMP_NUM_THREADS") == nullptr) {
        MPI_Comm node = MPI_COMM_NULL;
        int local = 1;
        if (MPI_Comm_split_type(MPI_COMM_WORLD, MPI_COMM_TYPE_SHARED, 0, MPI_INFO_NULL, &node) == MPI_SUCCESS) {
            MPI_Comm_size(node, &local);
            MPI_Comm_free(&node);
        }
        cpu_set_t set;
        CPU_ZERO(&set);
        int cpus = omp_get_num_procs();
        if (sched_getaffinity(0, sizeof set, &set) == 0) cpus = CPU_COUNT(&set);
        // Bound to a part of the machine already: the launcher shared it out.
        if (cpus < omp_get_num_procs()) local = 1;
        omp_set_num_threads(std::max(1, cpus / std::max(1, local)));
    }
}

void agree_on_failure(const std::string* failure) {
    if (rank_count() == 1) {
        if (failure != nullptr) throw AgreedFailure(*failure);
        return;
    }
    const int P = rank_count(), me = my_rank();
    int mine = failure != nullptr ? me : P, first = P;
    MPI_Allreduce(&mine, &first, 1, MPI_INT, MPI_MIN, MPI_COMM_WORLD);
    if (first == P) return;
    // The lowest failed rank's message goes to rank 0.
    std::string text = failure != nullptr ? *failure : std::string();
    if (first != 0) {
        if (me == first) {
            const int n = static_cast<int>(std::min<std::size_t>(text.size(), INT_MAX));
            MPI_Send(&n, 1, MPI_INT, 0, 1, MPI_COMM_WORLD);
            MPI_Send(text.data(), n, MPI_CHAR, 0, 2, MPI_COMM_WORLD);
        } else if (me == 0) {
            int n = 0;
            MPI_Recv(&n, 1, MPI_INT, first, 1, MPI_COMM_WORLD, MPI_STATUS_IGNORE);
            text.assign(static_cast<std::size_t>(n), '\0');
            MPI_Recv(text.data(), n, MPI_CHAR, first, 2, MPI_COMM_WORLD, MPI_STATUS_IGNORE);
            text = "rank " + std::to_string(first) + ": " + text;
        }
    }
    if (me == 0) throw AgreedFailure(text);
    throw OtherRankReports();
}

void broadcast_bytes(void* data, std::size_t bytes, int root) {
    if (rank_count() == 1) return;
    auto* p = static_cast<char*>(data);
    // MPI counts in int: large arrays go in pieces.
    while (bytes > 0) {
        const int n = static_cast<int>(std::min<std::size_t>(bytes, 1u << 30));
        MPI_Bcast(p, n, MPI_BYTE, root, MPI_COMM_WORLD);
        p += n;
        bytes -= static_cast<std::size_t>(n);
    }
}

std::string broadcast(std::string s, int root) {
    std::vector<char> v(s.begin(), s.end());
    broadcast(v, root);
    return {v.begin(), v.end()};
}

std::vector<std::size_t> split_evenly(std::size_t count, int parts) {
    std::vector<std::size_t> start(static_cast<std::size_t>(parts) + 1, 0);
    const std::size_t q = count / parts, extra = count % parts;
    for (int r = 0; r < parts; ++r) start[r + 1] = start[r] + q + (static_cast<std::size_t>(r) < extra ? 1 : 0);
    return start;
}

void gather_pieces(double* data, const std::vector<std::size_t>& start) {
    const int P = rank_count();
    if (P == 1) return;
    std::vector<int> counts(static_cast<std::size_t>(P)), displs(static_cast<std::size_t>(P));
    for (int r = 0; r < P; ++r) {
        counts[r] = static_cast<int>(start[r + 1] - start[r]);
        displs[r] = static_cast<int>(start[r]);
    }
    MPI_Allgatherv(MPI_IN_PLACE, 0, MPI_DATATYPE_NULL, data, counts.data(), displs.data(), MPI_DOUBLE, MPI_COMM_WORLD);
}

void gather_pieces(const double* mine, double* data, const std::vector<std::size_t>& start) {
    const auto me = static_cast<std::size_t>(my_rank());
    std::copy(mine, mine + (start[me + 1] - start[me]), data + start[me]);
    gather_pieces(data, start);
}

double sum_over_ranks(double value) {
    if (rank_count() == 1) return value;
    double total = 0.0;
    MPI_Allreduce(&value, &total, 1, MPI_DOUBLE, MPI_SUM, MPI_COMM_WORLD);
    return total;
}

}  // namespace torix
