#pragma once
// The processes of a run.  `mpirun -n P torix` starts P ranks that run the
// same script: rank 0 reads it and hands it to the others; every rank holds
// the whole model and runs every command (so that all of them hold the same
// state after each one); rank 0 alone writes the console and the files; the
// matrix-free solve shares its work out over the ranks (slepc_solve.hpp).
// A plain start (no launcher) is one rank, and MPI then starts only when a
// solve needs it.  Everything that crosses ranks goes through here.
#include <cstddef>
#include <exception>
#include <string>
#include <type_traits>
#include <vector>

#include "core/error.hpp"

namespace torix {

// Starts MPI when a launcher started this process, before anything else of
// the run: then standard output and standard error of every rank but 0 go
// to /dev/null (what a rank other than 0 must say reaches rank 0 through
// agree_on_failure), and, unless OMP_NUM_THREADS says otherwise, each rank
// takes its share of the processors it may run on.  Finishes MPI at exit.
// Nothing happens for a plain start.
void start_ranks(int* argc, char*** argv);

// True when a launcher started this process (MPI is then running).
bool launched();
// Number of ranks and this process's rank (1 and 0 without a launcher).
int rank_count();
int my_rank();

// Thrown on every rank but 0 once the ranks have agreed that one of them
// failed: rank 0 reports, the others end quietly.
struct OtherRankReports : std::exception {
    [[nodiscard]] const char* what() const noexcept override { return "another rank reports the failure"; }
};
// Thrown on rank 0 once the ranks have agreed: the run ends with this
// message, and no rank asks again.
struct AgreedFailure : FatalError {
    explicit AgreedFailure(const std::string& what) : FatalError(what) {}
};

// Collective (every rank, the same number of calls): `failure` is this
// rank's message, or null when it did its part.  When some rank failed,
// rank 0 throws AgreedFailure with the message of the lowest failed rank
// and every other rank throws OtherRankReports; otherwise returns.  Every
// exchange of data between ranks is preceded by one, so that no rank waits
// for one that has failed.  A single rank: throws AgreedFailure(*failure).
void agree_on_failure(const std::string* failure);

// Collective: `root`'s bytes to every rank.
void broadcast_bytes(void* data, std::size_t bytes, int root);

template <class T>
void broadcast(std::vector<T>& v, int root) {
    static_assert(std::is_trivially_copyable_v<T>);
    if (rank_count() == 1) return;
    unsigned long long n = v.size();
    broadcast_bytes(&n, sizeof n, root);
    v.resize(static_cast<std::size_t>(n));
    broadcast_bytes(v.data(), v.size() * sizeof(T), root);
}

template <class T>
void broadcast(T& value, int root) {
    static_assert(std::is_trivially_copyable_v<T>);
    if (rank_count() == 1) return;
    broadcast_bytes(&value, sizeof(T), root);
}

std::string broadcast(std::string s, int root);

// Arrays shared out over the ranks in pieces of consecutive entries: rank
// r holds [start[r], start[r+1]).
// Pieces as equal as can be of `count` entries over `parts` ranks (the
// first ones one longer).
std::vector<std::size_t> split_evenly(std::size_t count, int parts);
// Collective: every rank's piece of `data` (of doubles) to every rank, in
// place.
void gather_pieces(double* data, const std::vector<std::size_t>& start);
// The same with this rank's piece taken from `mine` first.
void gather_pieces(const double* mine, double* data, const std::vector<std::size_t>& start);
// Collective: the sum of every rank's `value`.
double sum_over_ranks(double value);

}  // namespace torix
