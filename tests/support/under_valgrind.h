// Whether the test runs under Valgrind, 20-50 times slower: time limits widen, long runs shrink.
#ifndef LARKPOST_TESTS_UNDER_VALGRIND_H
#define LARKPOST_TESTS_UNDER_VALGRIND_H

#if __has_include(<valgrind/valgrind.h>)
#include <valgrind/valgrind.h>
#else
#define RUNNING_ON_VALGRIND 0
#endif

namespace larkpost::test {
inline bool UnderValgrind() { return RUNNING_ON_VALGRIND != 0; }
}  // namespace larkpost::test

#endif
