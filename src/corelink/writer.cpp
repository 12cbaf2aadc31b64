// The corelink writers: JSON, corelink text, lists of paths, XML, and three small text functions.
//
// A writer walks the tree in a loop and climbs by the nodes' parents. Calls nest for what has another parent
// than the container that it is met in: what a function node expands to, and what was given another one by
// clparse_snmp_edit_fn_node. Such a subtree is written by a walk of its own.

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <qvlib/corelink.h>
#include <qvlib/memcheck.h>
#include <qvlib/strings.h>

#include "../where.h"
#include "digits.h"
#include "escapes.h"
#include "text_builder.h"
#include "tree.h"

using namespace qv;

namespace
{

enum class text_form { json, corelink, paths };

// An empty text recorded under the writer's name.
char *empty_text(const char *writer)
{
    return static_cast<char *>(qv_memcheck_malloc(qv_malloc, 1, writer, __LINE__));
}

unsigned int position_in(const clparse_node *container, const clparse_node *node)
{
    unsigned int position = 0;
    for (const clparse_node *child = first_child(container); child && child != node;
         child = next_child(container, child))
        position++;
    return position;
}

// Writes a value between quotes, escaped; by pieces, since each needs room for nothing but quotes.
bool append_quoted(text_builder &text, const char *value)
{
    constexpr size_t piece = 4096;
    size_t left = strlen(value);
    for (bool first = true, last = false; !last; first = false) {
        const size_t count = left < piece ? left : piece;
        last = count == left;
        char *to = text.room_for(2 * count + 2);
        if (!to)
            return false;
        if (first)
            *to++ = '"';
        to = escape_quotes<text_block>(to, value, value + count);
        if (last)
            *to++ = '"';
        text.advance_to(to);
        value += count;
        left -= count;
    }
    return true;
}

// ---- Paths

void append_segment(text_builder &text, const clparse_node *container, const clparse_node *child,
                    unsigned int position)
{
    if (container->type == CLPARSE_TYPE_ARRAY)
        text.append_number(position);
    else
        text.append_text(child->tag);
}

// Appends "PATH=" of a leaf, as its own parents have it.
bool append_own_path(text_builder &text, const clparse_node *leaf)
{
    char *path = clparse_build_path(leaf);
    const bool appended = path && text.append_text(path) && text.append('=');
    free_text(path, QV_WHERE);
    return appended;
}

// The paths of the leaves below a container: the path of the level that is being written, extended on the way
// down and cut back on the way up.
class leaf_paths
{
  public:
    explicit leaf_paths(const clparse_node *container)
        : begins_here_(!container->parent),
          path_(begins_here_ ? empty_text("clparse_build_path") : clparse_build_path(container))
    {
        pathless_ = path_.failed();
    }
    ~leaf_paths()
    {
        free(levels_);
    }
    leaf_paths(const leaf_paths &) = delete;
    leaf_paths &operator=(const leaf_paths &) = delete;

    // Goes down to a child, pathless or not: its leaves will tell. False when memory is short.
    bool enter(const clparse_node *container, const clparse_node *child, unsigned int position)
    {
        if (depth_ == room_ && !grow())
            return false;
        levels_[depth_] = {path_.length(), position, pathless_};
        if (begins_here_ && depth_ == 0) {
            pathless_ = !child->tag;
            path_.append_text(child->tag);
        } else {
            path_.append('.');
            append_segment(path_, container, child, position);
        }
        depth_++;
        return pathless_ || !path_.failed();
    }

    // Comes back up and returns the position of the child that is left.
    unsigned int leave()
    {
        const level &up = levels_[--depth_];
        path_.truncate(up.path_length);
        pathless_ = up.pathless;
        return up.position;
    }

    // Whether keys of leaves begin with path(), and a dot unless it is empty. The path of the level that is
    // being written, that is.
    bool has_path() const
    {
        return !pathless_ && !path_.failed() && ((begins_here_ && depth_ == 0) || path_.length() > 0);
    }
    const text_builder &path() const
    {
        return path_;
    }

    // Appends "PATH=" of a leaf. False when it has no path, because the first node on it has no tag.
    bool append_key(text_builder &out, const clparse_node *container, const clparse_node *leaf,
                    unsigned int position) const
    {
        if (leaf->parent != container)
            return append_own_path(out, leaf);
        if (pathless_ || path_.failed())
            return false;
        if (begins_here_ && depth_ == 0) {
            if (!leaf->tag)
                return false;
            out.append_text(leaf->tag);
        } else {
            out.append(path_.data(), path_.length());
            if (container->type != CLPARSE_TYPE_ARRAY)
                return out.append_between(".", leaf->tag, "=");
            out.append('.');
            out.append_number(position);
        }
        return out.append('=');
    }

  private:
    struct level {
        size_t path_length;
        unsigned int position;
        bool pathless;
    };

    bool grow()
    {
        const size_t room = room_ ? room_ * 2 : 32;
        void *moved = realloc(levels_, room * sizeof(level));
        if (!moved)
            return false;
        levels_ = static_cast<level *>(moved);
        room_ = room;
        return true;
    }

    const bool begins_here_; // the container has no parent: its children's tags are their paths
    bool pathless_ = false;
    text_builder path_;
    level *levels_ = nullptr;
    size_t depth_ = 0, room_ = 0;
};

// ---- JSON and corelink text

bool clparse_write_children(const clparse_node *container, text_builder &text, text_form form);
bool clparse_corelink_switch(clparse_node *node, text_builder &text, text_form form);

bool append_key(text_builder &text, const clparse_node *container, const clparse_node *child, text_form form)
{
    if (container->type == CLPARSE_TYPE_ARRAY)
        return true;
    if (form == text_form::corelink)
        return text.append_between("", child->tag, "=");
    return text.append_between("\"", child->tag, "\":");
}

bool append_open(text_builder &text, const clparse_node *container, text_form form)
{
    return form == text_form::paths || text.append(container->type == CLPARSE_TYPE_ARRAY ? '[' : '{');
}

bool append_close(text_builder &text, const clparse_node *container, text_form form)
{
    return form == text_form::paths || text.append(container->type == CLPARSE_TYPE_ARRAY ? ']' : '}');
}

// Writes what a function node stands for, then ends the use of the expansion. A failed writing leaves it.
bool write_expansion(clparse_node *function, text_builder &text, text_form form)
{
    clparse_node *expansion = expand_function(function);
    if (expansion && !clparse_corelink_switch(expansion, text, form))
        return false;
    release_expansion(function, expansion);
    return !text.failed();
}

// Writes the value of a node that is no container. False when it has none to write.
bool write_scalar(clparse_node *node, text_builder &text, text_form form)
{
    switch (node->type) {
    case CLPARSE_TYPE_NULL:
        if (form == text_form::json)
            return text.append("null");
        text.remove_last(); // the "=" of its key; in an array the blind cut takes what stands there
        return true;
    case CLPARSE_TYPE_STRING:
        return node->value.str && append_quoted(text, node->value.str);
    case CLPARSE_TYPE_NUMBER:
        return text.append_number(node->value.num);
    case CLPARSE_TYPE_BOOLEAN:
        return node->value.boolean ? text.append("true") : text.append("false");
    case CLPARSE_TYPE_FUNCTION:
        return write_expansion(node, text, form);
    default:
        return true;
    }
}

bool clparse_corelink_switch(clparse_node *node, text_builder &text, text_form form)
{
    if (!is_container(node))
        return write_scalar(node, text, form);
    append_open(text, node, form);
    clparse_write_children(node, text, form); // a list that failed is closed all the same
    return append_close(text, node, form);
}

bool append_key(text_builder &text, const clparse_node *container, const clparse_node *child,
                unsigned int position, text_form form, const leaf_paths *paths)
{
    if (paths)
        return is_container(child) || paths->append_key(text, container, child, position);
    return append_key(text, container, child, form);
}

// The longest tags and strings that are written in one go with what stands around them.
constexpr size_t few = 64;
constexpr size_t room_for_few = 256;

// Writes a child's value, of a container what opens it. Returns behind it, or null when it can't be written
// in one go.
char *put_value(char *to, const clparse_node *child)
{
    switch (child->type) {
    case CLPARSE_TYPE_NUMBER: {
        const unsigned int digits = count_digits(child->value.num);
        put_digits(to, child->value.num, digits);
        return to + digits;
    }
    case CLPARSE_TYPE_STRING: {
        const size_t length = child->value.str ? strlen(child->value.str) : few + 1;
        if (length > few)
            return nullptr;
        *to++ = '"';
        to = escape_few_quotes<text_block>(to, child->value.str, length);
        *to++ = '"';
        return to;
    }
    case CLPARSE_TYPE_BOOLEAN:
        memcpy(to, child->value.boolean ? "true" : "fals", 4);
        to[4] = 'e';
        return child->value.boolean ? to + 4 : to + 5;
    case CLPARSE_TYPE_STRUCT:
        *to = '{';
        return to + 1;
    case CLPARSE_TYPE_ARRAY:
        *to = '[';
        return to + 1;
    default:
        return nullptr;
    }
}

// Appends a child's comma, key and value, of a container what opens it, with one look at the room. False when
// nothing was appended, since it is not of the usual kind and size.
bool append_in_one_go(text_builder &text, const clparse_node *container, const clparse_node *child,
                      bool separated, text_form form, const leaf_paths *paths)
{
    // Positions and what has no path are left to append_key.
    if (paths && (!paths->has_path() || is_container(child) || container->type == CLPARSE_TYPE_ARRAY))
        return false;
    const size_t path_length = paths ? paths->path().length() : 0;
    char *to = text.room_for(room_for_few + path_length);
    if (!to)
        return false;
    *to = ',';
    to += separated;
    if (path_length > 0) {
        memcpy(to, paths->path().data(), path_length);
        to += path_length;
        *to++ = '.';
    }
    if (container->type != CLPARSE_TYPE_ARRAY) {
        const size_t length = child->tag ? strlen(child->tag) : few + 1;
        if (length > few)
            return false;
        if (form == text_form::json)
            *to++ = '"';
        copy_short(to, child->tag, length);
        to += length;
        if (form == text_form::json)
            memcpy(to, "\":", 2);
        else
            *to = '=';
        to += form == text_form::json ? 2 : 1;
    }
    to = put_value(to, child);
    if (to)
        text.advance_to(to);
    return to;
}

// Opens a child that is a container. False when memory is short.
bool open_container(text_builder &text, const clparse_node *container, const clparse_node *child,
                    unsigned int position, text_form form, leaf_paths *paths)
{
    if (paths)
        return paths->enter(container, child, position);
    return append_key(text, container, child, form) && append_open(text, child, form);
}

// Writes all that a container holds, children separated by commas. False when one of its own children could
// not be written; a failure further down ends the list that it happened in, and no other.
bool write_list(const clparse_node *top, text_builder &text, text_form form, leaf_paths *paths)
{
    const clparse_node *level = top;
    clparse_node *child = has_children_list(top) ? first_child(top) : nullptr;
    unsigned int position = 0;
    bool written = true;
    for (;;) {
        const bool leads_back = child && child->parent == level;
        const bool quick =
            by_words && leads_back && append_in_one_go(text, level, child, position > 0, form, paths);
        if (child && position > 0 && !quick)
            text.append(',');
        if (leads_back && is_container(child) &&
            (quick || open_container(text, level, child, position, form, paths))) {
            level = child;
            child = has_children_list(level) ? first_child(level) : nullptr;
            position = 0;
            continue;
        }
        if (quick) {
            child = next_child(level, child);
            position++;
        } else if (child) {
            written = !(leads_back && is_container(child)) &&
                      append_key(text, level, child, position, form, paths) &&
                      clparse_corelink_switch(child, text, form);
            child = written ? next_child(level, child) : nullptr;
            position++;
        }
        while (!child) {
            if (level == top)
                return written;
            const clparse_node *done = level;
            level = level->parent;
            written = append_close(text, done, form);
            position = paths ? paths->leave() + 1 : 1;
            child = written ? next_child(level, done) : nullptr;
        }
    }
}

bool clparse_write_children(const clparse_node *container, text_builder &text, text_form form)
{
    if (text.failed())
        return false;
    if (form != text_form::paths)
        return write_list(container, text, form, nullptr);
    leaf_paths paths(container);
    return write_list(container, text, form, &paths);
}

char *write_tree(clparse_head *head, text_form form, const char *writer)
{
    if (!head)
        return nullptr;
    text_builder text(empty_text(writer));
    return clparse_write_children(&head->root, text, form) ? text.finish() : nullptr;
}

// ---- XML

constexpr int no_indentation = -1;

bool append_indentation(text_builder &text, int depth)
{
    return depth < 0 || text.append_repeated('\t', static_cast<size_t>(depth) + 1);
}

bool append_line_end(text_builder &text, int depth)
{
    return depth == no_indentation || text.append('\n');
}

void append_name(text_builder &text, const clparse_node *container, const clparse_node *child)
{
    if (container->type == CLPARSE_TYPE_ARRAY)
        text.append("li");
    else
        text.append_text(child->tag);
}

// The characters that end a stretch of plain text, the end of the text itself among them.
constexpr auto ends_plain_text = [] {
    std::array<bool, 256> ends{};
    for (const char c : {'\0', '<', '>', '&', '\'', '"'})
        ends[static_cast<unsigned char>(c)] = true;
    return ends;
}();

bool append_escaped(text_builder &text, const char *value)
{
    constexpr ptrdiff_t piece = 64;
    for (;;) {
        char *to = text.room_for(piece);
        if (!to)
            return false;
        const char *begin = value;
        while (!ends_plain_text[static_cast<unsigned char>(*value)] && value - begin < piece)
            *to++ = *value++;
        text.advance_to(to);
        switch (*value) {
        case '\0':
            return true;
        case '<':
            text.append("&lt;");
            break;
        case '>':
            text.append("&gt;");
            break;
        case '&':
            text.append("&amp;");
            break;
        case '\'':
            text.append("&apos;");
            break;
        case '"':
            text.append("&quot;");
            break;
        default:
            continue; // the end of a piece
        }
        value++;
    }
}

bool append_type(text_builder &text, const clparse_node *node)
{
    switch (node->type) {
    case CLPARSE_TYPE_STRING:
        return text.append(" type=\"string\"");
    case CLPARSE_TYPE_NUMBER:
        return text.append(" type=\"number\"");
    case CLPARSE_TYPE_BOOLEAN:
        return text.append(" type=\"boolean\"");
    case CLPARSE_TYPE_STRUCT:
        return text.append(" type=\"struct\"");
    case CLPARSE_TYPE_ARRAY:
        return text.append(" type=\"array\"");
    default:
        return text.append(" type=\"null\""); // function nodes too: XML does not expand them
    }
}

// Appends INDENTATION<NAME type="TYPE", without the end of the tag.
void append_start(text_builder &text, const clparse_node *container, const clparse_node *node, int depth)
{
    append_indentation(text, depth);
    text.append('<');
    append_name(text, container, node);
    append_type(text, node);
}

bool append_end(text_builder &text, const clparse_node *container, const clparse_node *node, int depth)
{
    text.append("</");
    append_name(text, container, node);
    text.append('>');
    return append_line_end(text, depth);
}

bool append_container_end(text_builder &text, const clparse_node *container, const clparse_node *node,
                          int depth)
{
    append_indentation(text, depth);
    return append_end(text, container, node, depth);
}

bool append_leaf(text_builder &text, const clparse_node *container, const clparse_node *node, int depth)
{
    append_start(text, container, node, depth);
    switch (node->type) {
    case CLPARSE_TYPE_STRING:
        text.append('>');
        if (!node->value.str || !append_escaped(text, node->value.str))
            return false;
        break;
    case CLPARSE_TYPE_NUMBER:
        text.append('>');
        text.append_number(node->value.num);
        break;
    case CLPARSE_TYPE_BOOLEAN:
        text.append('>');
        node->value.boolean ? text.append("true") : text.append("false");
        break;
    default:
        text.append(" />");
        return append_line_end(text, depth);
    }
    return append_end(text, container, node, depth);
}

// Writes a container's children as elements. Any failure ends the whole.
bool clparse_build_xml(const clparse_node *top, text_builder &text, int depth)
{
    const int deeper = depth == no_indentation ? 0 : 1;
    const clparse_node *level = top;
    const clparse_node *child = has_children_list(top) ? first_child(top) : nullptr;
    for (;;) {
        if (child && is_container(child)) {
            append_start(text, level, child, depth);
            text.append('>');
            append_line_end(text, depth);
            if (child->parent == level) {
                level = child;
                child = has_children_list(level) ? first_child(level) : nullptr;
                depth += deeper;
            } else {
                if (!clparse_build_xml(child, text, depth + deeper) ||
                    !append_container_end(text, level, child, depth))
                    return false;
                child = next_child(level, child);
            }
        } else if (child) {
            if (!append_leaf(text, level, child, depth))
                return false;
            child = next_child(level, child);
        } else if (level == top) {
            return !text.failed();
        } else {
            const clparse_node *done = level;
            level = level->parent;
            depth -= deeper;
            if (!append_container_end(text, level, done, depth))
                return false;
            child = next_child(level, done);
        }
    }
}

// ---- Paths of single nodes

// A path ends at the tree's root, whose children's tags are their whole paths.
bool begins_path(const clparse_node *node)
{
    return !node->parent || !node->parent->parent;
}

bool is_numbered(const clparse_node *node)
{
    return node->parent->type == CLPARSE_TYPE_ARRAY;
}

size_t segment_length(const clparse_node *node)
{
    if (is_numbered(node))
        return count_digits(position_in(node->parent, node));
    return node->tag ? strlen(node->tag) : strlen("(null)");
}

// Writes ".SEGMENT" so that it ends before `end`; returns where it begins.
char *put_segment(char *end, const clparse_node *node)
{
    if (is_numbered(node)) {
        unsigned int position = position_in(node->parent, node);
        do
            *--end = static_cast<char>('0' + position % 10);
        while (position /= 10);
    } else {
        const char *tag = node->tag ? node->tag : "(null)";
        end -= strlen(tag);
        memcpy(end, tag, strlen(tag));
    }
    *--end = '.';
    return end;
}

// What clparse_get_path lists of a node.
void append_paths(text_builder &text, const clparse_node *node, const char *path)
{
    if (!is_container(node)) {
        text.append_text(node->tag);
        return;
    }
    bool first = true;
    for (const clparse_node *child = has_children_list(node) ? first_child(node) : nullptr; child;
         child = next_child(node, child)) {
        if (!first)
            text.append(',');
        first = false;
        text.append_text(path);
        text.append('.');
        text.append_text(child->tag);
    }
}

// Appends the element and the "]" to a list whose end is already open, in a buffer of fixed size.
QV_PRINTF(4, 0) int put_element(char *buffer, size_t size, size_t length, const char *fmt, va_list ap)
{
    va_list copy;
    va_copy(copy, ap);
    const int element = vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    if (element < 0)
        return -1;
    const size_t end = length + static_cast<size_t>(element);
    if (end + 2 > size)
        return -1;
    vsnprintf(buffer + length, size - length, fmt, ap);
    // Over the terminator: the buffer is zero behind the text, and no other terminator is written.
    buffer[end] = ']';
    return 0;
}

} // namespace

char *clparse_get_json(clparse_head *head)
{
    return write_tree(head, text_form::json, "clparse_get_json");
}

int clparse_get_corelink(clparse_head *head, char **out, int paths)
{
    if (!out)
        return -1;
    *out = write_tree(head, paths ? text_form::paths : text_form::corelink, "clparse_get_corelink");
    return *out ? 0 : -1;
}

int clparse_get_xml(clparse_head *head, char **out, int pretty, const char *root_name)
{
    if (!out)
        return -1;
    *out = nullptr;
    if (!head)
        return -1;
    const char *prolog = root_name ? "" : "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
    const char *separator = pretty && !root_name ? "\n" : "";
    const char *name = root_name ? root_name : "corelink";
    char *start = nullptr;
    if (__qv_asprintf(&start, "clparse_get_xml", __LINE__, "%s%s<%s>%s", prolog, separator, name,
                      pretty ? "\n" : "") < 0)
        return -1;
    text_builder text(start);
    if (!clparse_build_xml(&head->root, text, pretty ? 0 : no_indentation))
        return -1;
    text.append("</");
    text.append_text(name);
    text.append('>');
    *out = text.finish();
    return *out ? 0 : -1;
}

char *clparse_build_path(const clparse_node *node)
{
    if (!node)
        return nullptr;
    size_t below = 0; // length of what follows the first tag
    const clparse_node *top = node;
    for (; !begins_path(top); top = top->parent)
        below += 1 + segment_length(top);
    char *path = clparse_strdup(top->tag, "clparse_build_path", __LINE__);
    if (!path || top == node)
        return path;
    const size_t first = strlen(path);
    path = resize_text(path, first + below + 1);
    if (!path)
        return nullptr;
    char *end = path + first + below;
    *end = '\0';
    for (; node != top; node = node->parent)
        end = put_segment(end, node);
    return path;
}

char *clparse_get_path(clparse_head *head, const char *path)
{
    text_builder text(empty_text("clparse_get_path"));
    const char *shown = path ? path : "(null)";
    memdbg_printf("Path: %s\n", shown);
    clparse_node *node = __clparse_get_node(head, path, verify_tag);
    if (!node) {
        memdbg_printf("clparse_get_node returned NULL for path : %s\n", shown);
        return text.finish();
    }
    if (node->type != CLPARSE_TYPE_FUNCTION) {
        append_paths(text, node, path);
        return text.finish();
    }
    clparse_node *expansion = expand_function(node);
    if (expansion)
        append_paths(text, expansion, path);
    release_expansion(node, expansion);
    return text.finish();
}

int cl_cat_array_element(char **buf, size_t size, const char *fmt, ...)
{
    size_t length = buf && *buf ? strlen(*buf) : 0;
    if (length == 0 || (*buf)[length - 1] != ']')
        return -1;
    if (length >= 2 && (*buf)[length - 2] == '[')
        (*buf)[--length] = '\0';
    else
        (*buf)[length - 1] = ',';

    va_list ap;
    va_start(ap, fmt);
    int result = 0;
    if (size != 0) {
        result = put_element(*buf, size, length, fmt, ap);
    } else {
        qv_vaasprintf(buf, fmt, ap);
        qv_aasprintf(buf, "]");
    }
    va_end(ap);
    return result;
}
