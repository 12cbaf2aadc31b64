// A writer keeps the containers that it is inside of in a vector, with the child that is next in each.
#include "writers.h"

#include <algorithm>
#include <string_view>
#include <vector>
#include "failure.h"
#include "utf8.h"

namespace qvl
{

namespace
{

constexpr std::size_t deepest_indent = 32; // levels; below, deep nesting would cost the square of its depth

const clparse_node *first_child(const clparse_node *container)
{
    return container->value.children->next;
}

const clparse_node *children_end(const clparse_node *container)
{
    return container->value.children;
}

bool is_empty(const clparse_node *container)
{
    return first_child(container) == children_end(container);
}

bool is_array(const clparse_node *node)
{
    return node->type == CLPARSE_TYPE_ARRAY;
}

bool is_root(const clparse_node *node)
{
    return node->parent == nullptr;
}

std::string path_of(const clparse_node *node)
{
    std::string path;
    for (; !is_root(node); node = node->parent) {
        std::string segment;
        if (node->tag != nullptr) {
            segment = node->tag;
        } else {
            std::size_t position = 0;
            for (const clparse_node *at = first_child(node->parent); at != node; at = at->next)
                ++position;
            segment = std::to_string(position);
        }
        path.insert(0, path.empty() ? segment : segment + ".");
    }
    return path;
}

void new_line(std::string &text, std::size_t level)
{
    text += '\n';
    text.append(2 * std::min(level, deepest_indent), ' ');
}

void append_json_string(std::string &text, std::string_view value)
{
    constexpr char digits[] = "0123456789abcdef";
    text += '"';
    while (!value.empty()) {
        const char c = value.front();
        const std::size_t length = utf8_sequence(value);
        if (length == 0) {
            text += "\\ufffd";
        } else if (c == '"' || c == '\\') {
            text += '\\';
            text += c;
        } else if (c == '\n') {
            text += "\\n";
        } else if (c == '\t') {
            text += "\\t";
        } else if (c == '\r') {
            text += "\\r";
        } else if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
            text += "\\u00";
            text += digits[c >> 4];
            text += digits[c & 15];
        } else {
            text += value.substr(0, length);
        }
        value.remove_prefix(std::max<std::size_t>(length, 1));
    }
    text += '"';
}

void append_corelink_string(std::string &text, std::string_view value)
{
    text += '"';
    for (const char c : value) {
        if (c == '"' || c == '\\')
            text += '\\';
        text += c;
    }
    text += '"';
}

std::string_view string_value(const clparse_node *node)
{
    return node->value.str == nullptr ? std::string_view() : std::string_view(node->value.str);
}

// Appends the value of a node that is neither a string nor a container.
void append_plain_value(std::string &text, const clparse_node *node)
{
    if (node->type == CLPARSE_TYPE_NUMBER)
        text += std::to_string(node->value.num);
    else if (node->type == CLPARSE_TYPE_BOOLEAN)
        text += node->value.boolean != 0 ? "true" : "false";
    else
        text += "null";
}

class json_writer
{
  public:
    explicit json_writer(layout lines) : pretty_(lines == layout::pretty)
    {
    }

    std::string write(const clparse_node *top)
    {
        begin(top);
        while (!open_.empty()) {
            level &inner = open_.back();
            const clparse_node *child = inner.child;
            if (child == children_end(inner.container)) {
                end();
                continue;
            }
            inner.child = child->next;
            if (child != first_child(inner.container))
                text_ += ',';
            if (pretty_)
                new_line(text_, open_.size());
            if (!is_array(inner.container)) {
                append_json_string(text_, child->tag == nullptr ? "" : child->tag);
                text_ += pretty_ ? ": " : ":";
            }
            begin(child);
        }
        return std::move(text_);
    }

  private:
    struct level {
        const clparse_node *container, *child;
    };

    void begin(const clparse_node *node)
    {
        if (is_container(node)) {
            text_ += is_array(node) ? '[' : '{';
            open_.push_back({node, first_child(node)});
        } else if (node->type == CLPARSE_TYPE_STRING) {
            append_json_string(text_, string_value(node));
        } else {
            append_plain_value(text_, node);
        }
    }

    void end()
    {
        const clparse_node *container = open_.back().container;
        open_.pop_back();
        if (pretty_ && !is_empty(container))
            new_line(text_, open_.size());
        text_ += is_array(container) ? ']' : '}';
    }

    std::string text_;
    std::vector<level> open_;
    bool pretty_;
};

// An array's untagged elements stand between its brackets; its tagged ones follow as members "prefix.tag",
// where the prefix leads from the members around it to the array. So each array is walked twice.
class corelink_writer
{
  public:
    explicit corelink_writer(layout lines) : pretty_(lines == layout::pretty)
    {
    }

    std::string write(const clparse_node *top)
    {
        top_ = top;
        begin(top, "");
        while (!open_.empty()) {
            level &inner = open_.back();
            const clparse_node *child = inner.child;
            if (child == children_end(inner.container)) {
                end_of_children();
                continue;
            }
            inner.child = child->next;
            if (!is_array(inner.container))
                begin_member(child);
            else if ((child->tag != nullptr) == inner.bracket_closed)
                begin_element(child);
        }
        return std::move(text_);
    }

  private:
    struct level {
        const clparse_node *container, *child;
        std::string prefix;
        bool bracket_closed;
        bool first;
    };

    void separate(bool comma)
    {
        if (comma)
            text_ += ',';
        const std::size_t outer = is_root(top_) ? 1 : 0;
        if (pretty_ && text_.size() != 0)
            new_line(text_, open_.size() - outer);
        open_.back().first = false;
    }

    void begin_member(const clparse_node *child)
    {
        if (child->tag == nullptr)
            throw plain_failure("\"" + shown(path_of(child)) + "\" has no name, and corelink text needs one");
        separate(!open_.back().first);
        text_ += child->tag;
        assign(child);
        begin(child, child->tag);
    }

    void begin_element(const clparse_node *child)
    {
        level &array = open_.back();
        if (child->tag == nullptr) {
            if (child->type == CLPARSE_TYPE_NULL)
                throw plain_failure("\"" + shown(path_of(child)) +
                                    "\" is null, and corelink text has no null elements");
            separate(!array.first);
            begin(child, "");
            return;
        }
        if (array.prefix.empty())
            throw plain_failure("\"" + shown(path_of(child)) + "\" has a name, but its array has none");
        const std::string name = array.prefix + "." + child->tag;
        text_ += ',';
        if (pretty_)
            new_line(text_, level_of_members());
        text_ += name;
        assign(child);
        begin(child, name);
    }

    // The depth of the members among which the named elements of an array are written.
    std::size_t level_of_members() const
    {
        std::size_t depth = open_.size();
        while (depth > 0 && is_array(open_[depth - 1].container))
            --depth;
        return depth - (is_root(top_) ? 1 : 0);
    }

    void assign(const clparse_node *node)
    {
        if (node->type != CLPARSE_TYPE_NULL)
            text_ += pretty_ ? " = " : "=";
    }

    void begin(const clparse_node *node, std::string prefix)
    {
        if (is_container(node)) {
            if (!is_root(node))
                text_ += is_array(node) ? '[' : '{';
            open_.push_back({node, first_child(node), std::move(prefix), false, true});
        } else if (node->type == CLPARSE_TYPE_STRING) {
            append_corelink_string(text_, string_value(node));
        } else if (node->type != CLPARSE_TYPE_NULL) {
            append_plain_value(text_, node);
        }
    }

    void end_of_children()
    {
        level &inner = open_.back();
        const clparse_node *container = inner.container;
        if (is_array(container) && inner.bracket_closed) {
            open_.pop_back();
            return;
        }
        if (pretty_ && !inner.first && !is_root(container))
            new_line(text_, open_.size() - (is_root(top_) ? 2 : 1));
        if (is_array(container)) {
            text_ += ']';
            inner.bracket_closed = true;
            inner.child = first_child(container);
            return;
        }
        if (!is_root(container))
            text_ += '}';
        open_.pop_back();
    }

    std::string text_;
    std::vector<level> open_;
    const clparse_node *top_ = nullptr;
    bool pretty_;
};

// Calls `visit` for every node below the root, each before its children.
template <typename Visit> void for_each_node(const clparse_node *root, Visit visit)
{
    const clparse_node *container = root;
    const clparse_node *node = first_child(root);
    for (;;) {
        if (node == children_end(container)) {
            if (container == root)
                return;
            node = container->next;
            container = container->parent;
            continue;
        }
        if (!visit(node))
            return;
        if (is_container(node)) {
            container = node;
            node = first_child(node);
        } else {
            node = node->next;
        }
    }
}

} // namespace

std::string to_json(const clparse_node *node, layout lines)
{
    return json_writer(lines).write(node);
}

std::string to_json_string(std::string_view bytes)
{
    std::string text;
    append_json_string(text, bytes);
    return text;
}

std::string to_corelink(const clparse_node *node, layout lines)
{
    return corelink_writer(lines).write(node);
}

std::string to_paths(const clparse_node *root, layout lines)
{
    struct level {
        const clparse_node *container, *child;
        std::size_t position, path_length;
    };
    std::string text;
    std::string path;
    std::vector<level> open{{root, first_child(root), 0, 0}};
    while (!open.empty()) {
        level &inner = open.back();
        const clparse_node *child = inner.child;
        path.resize(inner.path_length);
        if (child == children_end(inner.container)) {
            open.pop_back();
            continue;
        }
        inner.child = child->next;
        if (!path.empty())
            path += '.';
        if (is_array(inner.container))
            path += std::to_string(inner.position);
        else if (child->tag != nullptr)
            path += child->tag;
        ++inner.position;
        if (is_container(child) && !is_empty(child)) {
            open.push_back({child, first_child(child), 0, path.size()});
            continue;
        }
        if (!text.empty())
            text += lines == layout::pretty ? '\n' : ',';
        text += path;
        if (child->type != CLPARSE_TYPE_NULL)
            text += '=' + to_corelink(child, layout::compact);
    }
    return text;
}

void check_xml_strings(const clparse_node *root)
{
    for_each_node(root, [](const clparse_node *node) {
        if (node->type != CLPARSE_TYPE_STRING)
            return true;
        for (std::string_view value = string_value(node); !value.empty();) {
            const char c = value.front();
            const std::size_t length = utf8_sequence(value);
            const bool control = static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r';
            const bool noncharacter =
                value.substr(0, 3) == "\xEF\xBF\xBE" || value.substr(0, 3) == "\xEF\xBF\xBF";
            if (length == 0 || control || noncharacter)
                throw plain_failure("\"" + shown(path_of(node)) + "\" holds \"" +
                                    shown(value.substr(0, std::max<std::size_t>(length, 1))) +
                                    "\", which XML can't carry");
            value.remove_prefix(length);
        }
        return true;
    });
}

const clparse_node *find_unnamed_member(const clparse_node *root)
{
    const clparse_node *found = nullptr;
    for_each_node(root, [&found](const clparse_node *node) {
        if (node->tag == nullptr && !is_array(node->parent))
            found = node;
        return found == nullptr;
    });
    return found;
}

const char *type_name(const clparse_node *node)
{
    constexpr const char *names[] = {"null", "string", "number", "boolean", "struct", "array", "function"};
    return names[node->type];
}

bool is_container(const clparse_node *node)
{
    return node->type == CLPARSE_TYPE_STRUCT || is_array(node);
}

} // namespace qvl
