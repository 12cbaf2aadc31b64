// Path queries beside their model:
//
//   scripts/fuzz 60 query
//
// An input is a text up to its first NUL, then paths, one a line.

#include <qvlib/corelink.h>
#include <qvlib/memcheck.h>

#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "failing_alloc.h"
#include "fuzz_input.h"

namespace
{

using fuzz::require;

bool is_container(const clparse_node *node)
{
    return node->type == CLPARSE_TYPE_STRUCT || node->type == CLPARSE_TYPE_ARRAY;
}

std::vector<const clparse_node *> children_of(const clparse_node *container)
{
    std::vector<const clparse_node *> children;
    const clparse_node *end = container->value.children;
    for (const clparse_node *child = end->next; child != end; child = child->next)
        children.push_back(child);
    return children;
}

// ---- The model

struct segment {
    std::string text;
    bool is_last;

    bool is_index() const
    {
        return !text.empty() && text[0] >= '0' && text[0] <= '9';
    }
    bool matches(const clparse_node *child, size_t position) const
    {
        return is_index() ? strtoul(text.c_str(), nullptr, 10) == position
                          : child->tag != nullptr && text == child->tag;
    }
};

const clparse_node *find(const clparse_node *container, const std::string &path, int type)
{
    const size_t dot = path.find('.');
    const segment first{path.substr(0, dot), dot == path.npos};
    const std::vector<const clparse_node *> children = children_of(container);
    for (size_t i = 0; i < children.size(); i++) {
        if (!first.matches(children[i], i))
            continue;
        if (!first.is_last)
            return is_container(children[i]) ? find(children[i], path.substr(dot + 1), type) : nullptr;
        if (type == -1 || children[i]->type == type)
            return children[i];
    }
    return nullptr;
}

std::string listed(const clparse_node *node, const std::string &path)
{
    if (!is_container(node))
        return node->tag != nullptr ? node->tag : "(null)";
    std::string list;
    for (const clparse_node *child : children_of(node))
        list += (list.empty() ? "" : ",") + path + "." + (child->tag != nullptr ? child->tag : "(null)");
    return list;
}

// ---- The library

void require_text(char *text, const std::string &expected, const char *what)
{
    require(text != nullptr && text == expected, what);
    qv_memcheck_free(qv_free, text, "query_fuzz");
}

int compare_by_call(const char *segment, const char *tag)
{
    return strcmp(segment, tag);
}

void require_nodes(clparse_head *head, const std::string &path)
{
    clparse_node *root = clparse_get_head(head);
    for (int type = -1; type <= CLPARSE_TYPE_FUNCTION; type++) {
        const clparse_node *expected = find(root, path, type);
        require(clparse_get_tagtype(root, path.c_str(), type, verify_tag) == expected, "another node");
        require(clparse_get_tagtype(root, path.c_str(), type, compare_by_call) == expected,
                "another node for a comparison of the caller's");
    }
    require(clparse_get_node(head, path.c_str()) == find(root, path, -1), "another node of any type");
}

void require_values(clparse_head *head, const std::string &path)
{
    const clparse_node *root = clparse_get_head(head);
    const char *text = path.c_str();

    const clparse_node *expected = find(root, path, CLPARSE_TYPE_BOOLEAN);
    unsigned char boolean = 7;
    require(clparse_get_bool(head, &boolean, "%s", text) == (expected ? 0 : -1), "a boolean's result");
    require(boolean == (expected ? expected->value.boolean : 7), "a boolean's value");

    expected = find(root, path, CLPARSE_TYPE_NUMBER);
    uint64_t number = 7;
    require(clparse_get_number(head, &number, "%s", text) == (expected ? 0 : -1), "a number's result");
    require(number == (expected ? expected->value.num : 7), "a number's value");

    expected = find(root, path, CLPARSE_TYPE_STRING);
    char *string = nullptr;
    require(clparse_get_string(head, &string, "%s", text) == (expected ? 0 : -1), "a string's result");
    require(clparse_get_string(head, nullptr, "%s", text) == (expected ? 0 : -1),
            "whether there is a string");
    require((string != nullptr) == (expected != nullptr), "a string where none was found");
    if (string != nullptr)
        require_text(string, expected->value.str, "a string's value");

    expected = find(root, path, -1);
    require(clparse_get_type(head, "%s", text) == (expected ? expected->type : -1), "a node's type");
    const char *tag = text;
    require(clparse_get_tag(head, &tag, "%s", text) == (expected ? 0 : -1), "a tag's result");
    require(tag == (expected ? expected->tag : text), "a node's tag");
    require_text(clparse_get_path(head, text), expected ? listed(expected, path) : "", "a list of paths");
}

// Every node's own path, and those of the leaves.
void collect_paths(const clparse_node *container, const std::string &prefix, std::set<std::string> &leaves)
{
    const std::vector<const clparse_node *> children = children_of(container);
    for (size_t i = 0; i < children.size(); i++) {
        const std::string path =
            prefix + (container->type == CLPARSE_TYPE_ARRAY ? std::to_string(i) : children[i]->tag);
        require_text(clparse_build_path(children[i]), path, "a node's path");
        if (is_container(children[i]))
            collect_paths(children[i], path + ".", leaves);
        else
            leaves.insert(path);
    }
}

void step_from(clparse_node *container, const std::set<std::string> &leaves)
{
    clparse_node *end = container->value.children;
    for (clparse_node *child = end->next; child != end; child = child->next) {
        char *next = build_path_next_leaf(child);
        require(next == nullptr || leaves.count(next) == 1, "the next leaf is none");
        if (next != nullptr)
            qv_memcheck_free(qv_free, next, "query_fuzz");
        if (is_container(child))
            step_from(child, leaves);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    failing_alloc::live_blocks account; // of a text that is refused, some stay
    clparse_head *head = clparse_start(in.text_up_to('\0').c_str());
    if (head == nullptr)
        return 0;
    std::set<std::string> leaves;
    collect_paths(clparse_get_head(head), "", leaves);
    step_from(clparse_get_head(head), leaves);
    for (const std::string &path : leaves)
        require_nodes(head, path);
    while (!in.is_empty()) {
        const std::string path = in.text_up_to('\n').c_str(); // to a NUL at most
        require_nodes(head, path);
        require_values(head, path);
    }
    clparse_stop(head);
    require(account.count() == 0, "blocks are left after clparse_stop");
    return 0;
}
