// Leak reports the sanitizer build ignores: linked into every program of
// that build (tests, fuzz targets, the program).
//
// The LLVM OpenMP runtime keeps the thread descriptors of a team it shrinks
// (omp_set_num_threads to fewer threads) until the process ends.
extern "C" const char* __lsan_default_suppressions() { return "leak:libomp.so\n"; }
