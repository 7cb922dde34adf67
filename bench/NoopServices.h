// The service doubles of the collection and pruning driver: a runtime whose
// paths come from the command line and a precompiler that returns at once.
// With them, a cold ensure() is exactly the bootstrap's own share of a build
// (first-launch state, lock, walk, header test, marker), which is what the
// collection benchmark sets against reading the same tree with find and cat.
// The content cache and the type-header parser are the real ones, linked from
// the compiler's sources, because the header test is part of what is timed.

#ifndef QUOR_BENCH_NOOPSERVICES_H
#define QUOR_BENCH_NOOPSERVICES_H

#include <cstddef>

namespace quor::bench {

// How many units the last precompileSources call was handed.
std::size_t noopPrecompiledUnitCount();

} // namespace quor::bench

#endif
