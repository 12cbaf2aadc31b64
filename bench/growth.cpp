// One operation of the corelink road on one document, to be run by scripts/growth under callgrind.
//   growth OPERATION SHAPE ITEMS
//
// Prints the number of nodes, of bytes for the single string. Only the function `measured` is counted.

#include <cstdlib>
#include <cstring>
#include <string>

#include "documents.h"

namespace
{

using namespace bench;

struct named_shape {
    const char *name;
    shape make, source;
};

const named_shape shapes[] = {
    {"ports", tagged_ports, tagged_ports},
    {"flat", flat, flat},
    {"reversed", flat, reversed},
    {"disjoint", flat, other_tags},
    {"dotted", dotted, dotted},
    {"dotted_twice", dotted_twice, dotted_twice},
    {"strings", strings, strings},
    {"numbers", numbers, numbers},
    {"one_string", one_string, one_string},
};

clparse_head *target, *source;
std::string text;
char *written;

void read_text()
{
    target = clparse_start(text.c_str());
}
void stop()
{
    clparse_stop(target);
    target = nullptr;
}
void json_text()
{
    written = clparse_get_json(target);
}
void corelink_text()
{
    clparse_get_corelink(target, &written, 0);
}
void paths_text()
{
    clparse_get_corelink(target, &written, 1);
}
void xml_text()
{
    clparse_get_xml(target, &written, 1, nullptr);
}
void update()
{
    clparse_update(target, source);
}
void select()
{
    clparse_select(target, source);
}
void insert()
{
    clparse_insert(target, source);
}
void insert_sort()
{
    clparse_insert_sort(target, source);
}

struct operation {
    const char *name;
    void (*run)();
};

const operation operations[] = {
    {"read", read_text},          {"stop", stop},        {"json", json_text},
    {"corelink", corelink_text},  {"paths", paths_text}, {"xml", xml_text},
    {"update", update},           {"select", select},    {"insert", insert},
    {"insert_sort", insert_sort},
};

} // namespace

extern "C" __attribute__((noinline)) void measured(void (*run)())
{
    run();
    __asm__ volatile(""); // no tail call: it must be seen to end
}

int main(int argc, char **argv)
{
    if (argc != 4)
        fail("usage: growth OPERATION SHAPE ITEMS");
    const int items = atoi(argv[3]);
    for (const named_shape &shape : shapes) {
        if (strcmp(shape.name, argv[2]) != 0)
            continue;
        text = shape.make(items, 0, "");
        target = parse(text);
        source = parse(shape.source(items, items / 2, "x"));
        const bool by_bytes = strcmp(shape.name, "one_string") == 0;
        printf("%ld\n", by_bytes ? items : count_nodes(clparse_get_head(source)));
        for (const operation &operation : operations)
            if (strcmp(operation.name, argv[1]) == 0) {
                if (operation.run == read_text)
                    stop();
                measured(operation.run);
                return 0;
            }
    }
    fail("no such operation or shape");
}
