// Makes malloc fail on demand beside calloc: for tests that link the static library with
// -Wl,--wrap=calloc,--wrap=malloc. Calls of both are counted together.
#ifndef QVLIB_TESTS_FAILING_MALLOC_H
#define QVLIB_TESTS_FAILING_MALLOC_H

#include "failing_calloc.h"

namespace failing_alloc = failing_calloc;

extern "C" {
void *__real_malloc(size_t size);

inline __attribute__((used)) void *__wrap_malloc(size_t size)
{
    return failing_calloc::fails() ? nullptr : __real_malloc(size);
}
}

#endif
