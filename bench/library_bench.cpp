// Loading the library beside loading json-c: dlopen with all names resolved, then dlclose. Nothing here is
// linked with either.

#include <cstdio>
#include <cstdlib>

#include <dlfcn.h>

#include "pairs.h"

namespace
{

using namespace bench;

double load(const char *path)
{
    constexpr int times = 20;
    return time_of([&] {
               for (int i = 0; i < times; i++) {
                   void *library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
                   if (!library) {
                       fprintf(stderr, "library_bench: %s\n", dlerror());
                       exit(1);
                   }
                   dlclose(library);
               }
           }) /
           times;
}

void load_library(benchmark::State &state)
{
    if (void *peer = dlopen(JSON_C_LIBRARY, RTLD_NOW | RTLD_LOCAL))
        dlclose(peer);
    else
        return state.SkipWithError("json-c is not installed");
    measure_pairs(
        state, 1, [] { return load(QVLIB_LIBRARY); }, [] { return load(JSON_C_LIBRARY); });
}
BENCHMARK(load_library)->UseManualTime()->Iterations(50);

} // namespace
