// Whether the test runs under Valgrind, where everything is 20-50 times slower: tests that
// depend on short time limits widen them, and long runs shrink their counts.
#ifndef LARKPOST_TESTS_UNDER_VALGRIND_H
#define LARKPOST_TESTS_UNDER_VALGRIND_H

#if __has_include(<valgrind/valgrind.h>)
#include <valgrind/valgrind.h>
#endif

namespace larkpost::test {

inline bool UnderValgrind() {
#ifdef RUNNING_ON_VALGRIND
    return RUNNING_ON_VALGRIND != 0;
#else
    return false;
#endif
}

}  // namespace larkpost::test

#endif
