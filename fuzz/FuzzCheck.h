// What a fuzz target does when one of its properties fails: print the property
// and where it is checked, then abort. libFuzzer turns the abort into a saved
// crash input; the replay runner lets the abort end the process, so ctest
// fails and the output names the property.

#ifndef QUOR_FUZZ_FUZZCHECK_H
#define QUOR_FUZZ_FUZZCHECK_H

#include <cstdio>
#include <cstdlib>

#define QUOR_FUZZ_CHECK(condition)                                                                 \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            std::fprintf(stderr, "%s:%d: property failed: %s\n", __FILE__, __LINE__, #condition);  \
            std::abort();                                                                          \
        }                                                                                          \
    } while (false)

#endif
