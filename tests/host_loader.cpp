// Loads the library into a process in which other parsers came first: host_loader LIBRARY, with or without
// parsers of its own and with or without LD_PRELOAD. Its status is 0 when the library read and wrote by its
// own parser.

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>

namespace
{

template <class F> F *find(void *library, const char *name)
{
    void *symbol = dlsym(library, name);
    if (!symbol) {
        fprintf(stderr, "%s\n", dlerror());
        exit(1);
    }
    return reinterpret_cast<F *>(symbol);
}

int fail(const char *message)
{
    fprintf(stderr, "%s\n", message);
    return 1;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 2)
        return fail("usage: host_loader LIBRARY");
    void *library = dlopen(argv[1], RTLD_NOW | RTLD_GLOBAL);
    if (!library)
        return fail(dlerror());
    auto *start = find<void *(const char *)>(library, "clparse_start");
    auto *stop = find<void(void *)>(library, "clparse_stop");
    auto *get_json = find<char *(void *)>(library, "clparse_get_json");

    // The names that come first in this process are the host's, which the library must not have called.
    auto *host_parse = find<int()>(RTLD_DEFAULT, "yyparse");
    auto *host_calls = find<int>(RTLD_DEFAULT, "host_calls");

    void *head = start("a.b=[1,\"x\"]");
    if (!head)
        return fail("a document was not read");
    char *json = get_json(head);
    if (!json || strcmp(json, "\"a\":{\"b\":[1,\"x\"]}") != 0)
        return fail("a document was read wrongly");
    free(json);
    stop(head);
    if (*host_calls != 0)
        return fail("the library called the host's parser");
    if (host_parse() != 321)
        return fail("the host's parser does not work any more");
    return 0;
}
