// Documents as plain values: what trees and texts of the library are compared with, and random ones.
#ifndef QVLIB_TESTS_MODELS_DOCUMENT_MODEL_H
#define QVLIB_TESTS_MODELS_DOCUMENT_MODEL_H

#include <cstdint>
#include <cstring>
#include <list>
#include <optional>
#include <random>
#include <string>

#include <qvlib/corelink.h>

namespace document_model
{

struct value {
    int type = CLPARSE_TYPE_NULL;
    std::optional<std::string> tag;
    std::string text;
    uint64_t number = 0;
    bool boolean = false;
    std::list<value> children;

    bool is_container() const
    {
        return type == CLPARSE_TYPE_STRUCT || type == CLPARSE_TYPE_ARRAY;
    }
    bool operator==(const value &) const = default;
};

inline value container(int type)
{
    value made;
    made.type = type;
    return made;
}

// ---- What can be read back

// A text can't be read back when a backslash stands before a quote, a backslash, a line feed or at its end.
inline bool is_readable(const std::string &text)
{
    for (size_t i = 0; i < text.size(); i++)
        if (text[i] == '\\' && (i + 1 == text.size() || strchr("\"\\\n", text[i + 1])))
            return false;
    return true;
}

inline bool is_readable(const value &node)
{
    if (node.type == CLPARSE_TYPE_STRING && !is_readable(node.text))
        return false;
    for (const value &child : node.children)
        if ((node.type == CLPARSE_TYPE_ARRAY && child.type == CLPARSE_TYPE_NULL) || !is_readable(child))
            return false;
    return true;
}

// As paths, arrays have positions that are no members, empty containers leave doubled commas, and the members
// of a container go to the last one of its name.
inline bool is_readable_as_paths(const value &node)
{
    if (node.type == CLPARSE_TYPE_ARRAY || (node.is_container() && node.children.empty()))
        return false;
    for (auto child = node.children.begin(); child != node.children.end(); ++child) {
        for (auto other = node.children.begin(); other != child; ++other)
            if (child->is_container() && other->tag == child->tag)
                return false;
        if (!is_readable_as_paths(*child))
            return false;
    }
    return true;
}

// ---- What the writers give, but for what an element without a value does to its array

inline std::string quoted(const std::string &text)
{
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"')
            out += '\\';
        out += c;
    }
    return out + "\"";
}

// Without the outer braces, as the writers have it.
inline std::string text_of(const value &node, bool json)
{
    std::string out;
    switch (node.type) {
    case CLPARSE_TYPE_STRING:
        return quoted(node.text);
    case CLPARSE_TYPE_NUMBER:
        return std::to_string(node.number);
    case CLPARSE_TYPE_BOOLEAN:
        return node.boolean ? "true" : "false";
    case CLPARSE_TYPE_NULL:
        return json ? "null" : "";
    default:
        break;
    }
    for (const value &child : node.children) {
        if (!out.empty())
            out += ',';
        if (node.type == CLPARSE_TYPE_STRUCT)
            out += json ? quoted(*child.tag) + ":" : *child.tag;
        if (node.type == CLPARSE_TYPE_STRUCT && !json && child.type != CLPARSE_TYPE_NULL)
            out += '=';
        if (child.is_container())
            out += (child.type == CLPARSE_TYPE_ARRAY ? "[" : "{") + text_of(child, json) +
                   (child.type == CLPARSE_TYPE_ARRAY ? "]" : "}");
        else
            out += text_of(child, json);
    }
    return out;
}

// ---- Random documents

class generator
{
  public:
    explicit generator(unsigned seed) : random_(seed)
    {
    }

    unsigned below(size_t count)
    {
        return static_cast<unsigned>(random_() % count);
    }

    template <size_t N> const char *one_of(const char *const (&list)[N])
    {
        return list[below(N)];
    }

    std::string space()
    {
        static const char *const spaces[] = {"", "", "", "", " ", "\t", "\n", "\r\n", "  \n"};
        return one_of(spaces);
    }

    std::string name()
    {
        static const char *const names[] = {"a", "b",        "c",       "a1",   "_",
                                            "A", "trueness", "false_x", "null", "x0"};
        return one_of(names);
    }

    std::string members(int depth)
    {
        std::string text = member(depth);
        for (unsigned more = below(4); more > 0; more--)
            text += space() + "," + space() + member(depth);
        return text;
    }

    std::string member(int depth)
    {
        std::string text = name();
        while (below(4) == 0)
            text += space() + "." + space() + name();
        if (below(4) != 0)
            text += space() + "=" + space() + value_text(depth);
        return text;
    }

    std::string value_text(int depth)
    {
        static const char *const scalars[] = {"0",
                                              "007",
                                              "0x1F",
                                              "0XfF",
                                              "18446744073709551615",
                                              "18446744073709551616",
                                              "true",
                                              "false",
                                              "\"\"",
                                              "12",
                                              "0xfffffffffffffffff",
                                              "\"x\\\"y\"",
                                              "42",
                                              "\"x\\ny\\\\\"",
                                              "\"a\nb\"",
                                              "\"\xc3\xa9\xff,={}[].\"",
                                              "99999999999999999999999"};
        switch (depth > 0 ? below(5) : 4) {
        case 0:
            return "{" + space() + "}";
        case 1:
            return "{" + space() + members(depth - 1) + space() + "}";
        case 2: {
            std::string text = "[" + space();
            for (unsigned more = below(4); more > 0; more--)
                text += value_text(depth - 1) + space() + (more > 1 ? "," : "") + space();
            return text + "]";
        }
        default:
            return one_of(scalars);
        }
    }

    std::string damage(std::string text)
    {
        static const char *const bits[] = {"{",     "}",    "[",    "]",    ",",    "=", ".", "\"",
                                           "\\",    " ",    "\n",   "0x",   "-",    "1", "a", "true",
                                           "false", "\x01", "\x80", "\\\n", "\\\"", "0", "f"};
        for (unsigned times = 1 + below(3); times > 0; times--) {
            const size_t where = below(text.size() + 1);
            const size_t length = below(4);
            switch (below(4)) {
            case 0:
                text.insert(where, one_of(bits));
                break;
            case 1:
                text.erase(where, length);
                break;
            case 2:
                text.insert(where, text.substr(below(text.size() + 1), 6));
                break;
            default:
                text.replace(where, length, one_of(bits));
            }
        }
        return text;
    }

    // A tree as code could build it. `plain` texts are such that JSON and XML take them as they are written.
    value tree(int depth, bool plain)
    {
        value root = container(CLPARSE_TYPE_STRUCT);
        root.tag = "head";
        fill(root, depth, plain);
        return root;
    }

    void fill(value &into, int depth, bool plain)
    {
        for (unsigned more = below(5); more > 0; more--) {
            value &child = into.children.emplace_back();
            if (into.type == CLPARSE_TYPE_STRUCT)
                child.tag = name();
            child.type = static_cast<int>(below(depth > 0 ? 6 : 4));
            if (child.type == CLPARSE_TYPE_STRING)
                child.text = string_text(plain);
            if (child.type == CLPARSE_TYPE_NUMBER)
                child.number = below(3) ? below(100) : ~uint64_t{0} - below(3);
            if (child.type == CLPARSE_TYPE_BOOLEAN)
                child.boolean = below(2);
            if (child.is_container())
                fill(child, depth - 1, plain);
        }
    }

    std::string string_text(bool plain)
    {
        static const char *const any[] = {"a", "\"", "\\",       "\n", "<",    "&",
                                          "'", ">",  "\xc3\xa9", " ",  "{,=.", "n"};
        static const char *const safe[] = {"a",        "\"", "<",   "&",     "'", ">",
                                           "\xc3\xa9", " ",  "]]>", "&amp;", "{,"};
        std::string text;
        for (unsigned more = below(6); more > 0; more--)
            text += plain ? one_of(safe) : one_of(any);
        return text;
    }

  private:
    std::mt19937 random_;
};

} // namespace document_model

#endif
