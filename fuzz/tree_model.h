// Corelink trees as plain values, and the writers over them in the fewest words: what the library's are
// compared with.
#ifndef QVLIB_FUZZ_TREE_MODEL_H
#define QVLIB_FUZZ_TREE_MODEL_H

#include <qvlib/corelink.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz_input.h"

namespace tree_model
{

struct node {
    int type = CLPARSE_TYPE_NULL;
    bool is_tagged = false;
    std::string tag;
    std::string text;
    uint64_t number = 0; // of a boolean too
    std::vector<node> children;

    bool operator==(const node &) const = default;

    bool is_container() const
    {
        return type == CLPARSE_TYPE_STRUCT || type == CLPARSE_TYPE_ARRAY;
    }
};

// The value of a library's tree; its links are held against each other.
inline node value_of(const clparse_node *from)
{
    node made{from->type, from->tag != nullptr, from->tag ? from->tag : "", "", 0, {}};
    if (from->type == CLPARSE_TYPE_STRING)
        made.text = from->value.str;
    if (from->type == CLPARSE_TYPE_NUMBER)
        made.number = from->value.num;
    if (from->type == CLPARSE_TYPE_BOOLEAN)
        made.number = from->value.boolean;
    if (!made.is_container())
        return made;
    const clparse_node *end = from->value.children;
    for (const clparse_node *child = end->next; child != end; child = child->next) {
        fuzz::require(child->parent == from && child->prev->next == child && child->next->prev == child,
                      "a child's links or parent are wrong");
        made.children.push_back(value_of(child));
    }
    return made;
}

// ---- JSON, corelink text and lists of paths

enum class form { json, corelink, paths };

inline std::string with_escaped_quotes(std::string_view text)
{
    std::string escaped;
    for (const char c : text)
        escaped += c == '"' ? "\\\"" : std::string(1, c);
    return escaped;
}

inline void write_children(std::string &out, const node &container, form as, const std::string &path);

inline void write_value(std::string &out, const node &from, form as, const std::string &path)
{
    switch (from.type) {
    case CLPARSE_TYPE_NULL:
        if (as == form::json)
            out += "null";
        else
            out.pop_back();
        break;
    case CLPARSE_TYPE_STRING:
        out += '"' + with_escaped_quotes(from.text) + '"';
        break;
    case CLPARSE_TYPE_NUMBER:
        out += std::to_string(from.number);
        break;
    case CLPARSE_TYPE_BOOLEAN:
        out += from.number != 0 ? "true" : "false";
        break;
    case CLPARSE_TYPE_STRUCT:
    case CLPARSE_TYPE_ARRAY:
        if (as != form::paths)
            out += from.type == CLPARSE_TYPE_STRUCT ? '{' : '[';
        write_children(out, from, as, path + ".");
        if (as != form::paths)
            out += from.type == CLPARSE_TYPE_STRUCT ? '}' : ']';
        break;
    default:
        break;
    }
}

inline void write_children(std::string &out, const node &container, form as, const std::string &path)
{
    const bool in_array = container.type == CLPARSE_TYPE_ARRAY;
    for (size_t i = 0; i < container.children.size(); i++) {
        const node &child = container.children[i];
        const std::string child_path = path + (in_array ? std::to_string(i) : child.tag);
        if (i > 0)
            out += ',';
        if (as == form::paths)
            out += child.is_container() ? "" : child_path + "=";
        else if (!in_array)
            out += as == form::json ? '"' + child.tag + "\":" : child.tag + "=";
        write_value(out, child, as, as == form::paths ? child_path : "");
    }
}

inline std::string written(const node &root, form as)
{
    std::string out;
    write_children(out, root, as, "");
    return out;
}

// ---- XML

inline std::string with_entities(std::string_view text, bool apostrophes = true)
{
    std::string replaced;
    for (const char c : text)
        replaced += c == '<'                   ? "&lt;"
                    : c == '>'                 ? "&gt;"
                    : c == '&'                 ? "&amp;"
                    : c == '"'                 ? "&quot;"
                    : c == '\'' && apostrophes ? "&apos;"
                                               : std::string(1, c);
    return replaced;
}

inline void write_elements(std::string &out, const node &container, bool pretty, const std::string &tabs)
{
    for (const node &child : container.children) {
        const std::string name = container.type == CLPARSE_TYPE_ARRAY ? "li" : child.tag;
        static const char *const types[] = {"null", "string", "number", "boolean", "struct", "array"};
        out += tabs + "<" + name + " type=\"" + types[child.type] + "\"";
        if (child.type == CLPARSE_TYPE_NULL) {
            out += pretty ? " />\n" : " />";
            continue;
        }
        out += ">";
        if (child.is_container()) {
            out += pretty ? "\n" : "";
            write_elements(out, child, pretty, pretty ? tabs + "\t" : "");
            out += tabs;
        } else if (child.type == CLPARSE_TYPE_STRING) {
            out += with_entities(child.text);
        } else {
            write_value(out, child, form::json, "");
        }
        out += "</" + name + (pretty ? ">\n" : ">");
    }
}

inline std::string written_as_xml(const node &root, bool pretty, const char *root_name)
{
    const std::string prolog = root_name ? "" : "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
    const std::string name = root_name ? root_name : "corelink";
    std::string out = prolog + (pretty && !prolog.empty() ? "\n" : "") + "<" + name + ">";
    out += pretty ? "\n" : "";
    write_elements(out, root, pretty, pretty ? "\t" : "");
    return out + "</" + name + ">";
}

// ---- What is read back as it was written

// A backslash that stands before a quote, a backslash, a line feed or the end changes what is read.
inline bool is_string_kept(std::string_view text)
{
    for (size_t i = text.find('\\'); i != text.npos; i = text.find('\\', i + 1))
        if (i + 1 == text.size() || text[i + 1] == '"' || text[i + 1] == '\\' || text[i + 1] == '\n')
            return false;
    return true;
}

// Elements of arrays lose their tags; null ones take a comma or the bracket away.
inline bool is_kept_by_corelink(const node &of)
{
    if (of.type == CLPARSE_TYPE_STRING && !is_string_kept(of.text))
        return false;
    for (const node &child : of.children)
        if ((of.type == CLPARSE_TYPE_ARRAY && (child.type == CLPARSE_TYPE_NULL || child.is_tagged)) ||
            !is_kept_by_corelink(child))
            return false;
    return true;
}

// Positions are no identifiers, empty containers leave a comma alone, and a path leads through the last
// member of its name.
inline bool is_kept_by_paths(const node &of)
{
    if (of.type == CLPARSE_TYPE_ARRAY || (of.type == CLPARSE_TYPE_STRUCT && of.children.empty()) ||
        (of.type == CLPARSE_TYPE_STRING && !is_string_kept(of.text)))
        return false;
    for (size_t i = 0; i < of.children.size(); i++) {
        if (!is_kept_by_paths(of.children[i]))
            return false;
        for (size_t j = 0; j < of.children.size(); j++)
            if (i != j && of.children[i].is_container() && of.children[i].tag == of.children[j].tag)
                return false;
    }
    return true;
}

inline size_t depth_of(const node &of)
{
    size_t deepest = 0;
    for (const node &child : of.children)
        deepest = std::max(deepest, depth_of(child));
    return deepest + 1;
}

} // namespace tree_model

#endif
