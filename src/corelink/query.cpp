// Path queries: nodes and values by dotted paths.

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <qvlib/corelink.h>
#include <qvlib/memcheck.h>
#include <qvlib/strings.h>

#include "../guard.h"
#include "../where.h"
#include "tag_words.h"
#include "tree.h"

using namespace qv;

namespace
{

using tag_compare = int (*)(const char *segment, const char *tag);

// One segment of a path. It compares itself in place with verify_tag; a caller's comparison gets a copy.
class path_segment
{
  public:
    path_segment(const char *path, tag_compare compare)
        : text_(path), length_(by_words ? take_word(path) : 0), compare_(compare), copy_(nullptr, QV_WHERE)
    {
        while (by_words && length_ >= word_size && path[length_] != '.' && path[length_] != '\0')
            length_++;
        if (!by_words)
            length_ = strcspn(path, ".");
    }
    path_segment(const path_segment &) = delete;
    path_segment &operator=(const path_segment &) = delete;

    bool is_last() const
    {
        return text_[length_] == '\0';
    }
    const char *rest() const
    {
        return text_ + length_ + 1;
    }
    bool is_index() const
    {
        return *text_ >= '0' && *text_ <= '9';
    }
    // The position that an index segment names; one that is too large names no child.
    unsigned long position() const
    {
        return strtoul(text_, nullptr, 10);
    }
    // Whether a tag matches. False for a child without one, and when the copy can't be made.
    bool matches(const char *tag)
    {
        if (!tag)
            return false;
        if (compare_ == verify_tag)
            return equals(tag);
        return compare_ && make_copy() && compare_(copy_.get(), tag) == 0;
    }
    // The first child from `child` on whose tag can match, or null. Most tags differ in their first word.
    clparse_node *skip(const clparse_node *container, clparse_node *child) const
    {
        if (!by_words || compare_ != verify_tag)
            return child;
        const uint64_t word = word_, mask = mask_;
        while (child && child->tag && begins_a_word(child->tag) &&
               ((aligned_word(child->tag) ^ word) & mask) != 0)
            child = next_child(container, child);
        return child;
    }

  private:
    // Puts up to eight characters of the segment into the word. Returns how many.
    size_t take_word(const char *path)
    {
        size_t length = 0;
        for (; length < word_size && path[length] != '.' && path[length] != '\0'; length++)
            word_ |= static_cast<uint64_t>(static_cast<unsigned char>(path[length])) << 8 * length;
        if (length < word_size)
            mask_ >>= 8 * (word_size - 1 - length);
        return length;
    }
    bool equals(const char *tag) const
    {
        if (!by_words || !begins_a_word(tag))
            return strncmp(tag, text_, length_) == 0 && tag[length_] == '\0';
        if (((aligned_word(tag) ^ word_) & mask_) != 0)
            return false;
        for (size_t i = word_size; i < length_; i++)
            if (tag[i] != text_[i])
                return false;
        return length_ < word_size || tag[length_] == '\0';
    }
    bool make_copy()
    {
        if (!copy_.get())
            copy_.reset(static_cast<char *>(
                qv_memcheck_malloc(qv_malloc, length_ + 1, "clparse_get_tagtype", __LINE__)));
        if (!copy_.get())
            return false;
        memcpy(copy_.get(), text_, length_);
        return true;
    }

    uint64_t word_ = 0;            // the first characters
    uint64_t mask_ = ~UINT64_C(0); // what they, and the NUL behind them, are of a tag's first word
    const char *text_;
    size_t length_;
    tag_compare compare_;
    tracked_guard<char> copy_;
};

bool has_type(const clparse_node *node, int type)
{
    return type == -1 || node->type == type;
}

// The node for the rest of the path inside a function node's expansion, which is kept then; null otherwise.
clparse_node *find_in_expansion(clparse_node *function, path_segment &segment, int type, tag_compare compare)
{
    clparse_node *expansion = expand_function(function);
    if (has_children_list(expansion) && segment.matches(expansion->tag))
        if (clparse_node *found = clparse_get_tagtype(expansion, segment.rest(), type, compare))
            return found;
    if (function->value.func.release)
        function->value.func.release(function, function->value.func.priv);
    return nullptr;
}

// What one level of a path leads to: a result, or a container for the rest of the path.
struct level_result {
    clparse_node *found;
    clparse_node *descend;
};

level_result search_level(clparse_node *container, path_segment &segment, int type, tag_compare compare)
{
    const bool by_index = segment.is_index();
    const unsigned long position = by_index ? segment.position() : 0;
    unsigned long at = 0;
    for (clparse_node *child = first_child(container); child; child = next_child(container, child), at++) {
        if (!by_index && !(child = segment.skip(container, child)))
            break;
        if (by_index ? at != position : !segment.matches(child->tag))
            continue;
        if (segment.is_last()) {
            if (has_type(child, type))
                return {child, nullptr};
            continue; // a later child with the same tag may have the type
        }
        if (is_container(child))
            return {nullptr, child};
        if (child->type != CLPARSE_TYPE_FUNCTION)
            return {nullptr, nullptr};
        if (clparse_node *found = find_in_expansion(child, segment, type, compare))
            return {found, nullptr};
    }
    return {nullptr, nullptr};
}

// The path is given as a format; it is a tracked allocation. Null also when it can't be formatted.
QV_PRINTF(3, 0)
clparse_node *find_formatted(clparse_head *head, int type, const char *fmt, va_list ap, const char *caller)
{
    if (!head || !fmt)
        return nullptr;
    char *text = nullptr;
    const bool formatted = __qv_vasprintf(&text, caller, __LINE__, fmt, ap) >= 0;
    const tracked_guard<char> path(text, QV_WHERE);
    return formatted ? clparse_get_tagtype(&head->root, path.get(), type, verify_tag) : nullptr;
}

} // namespace

clparse_node *clparse_get_tagtype(clparse_node *container, const char *path, int type,
                                  int (*cmp)(const char *segment, const char *tag))
{
    while (path && has_children_list(container)) {
        path_segment segment(path, cmp);
        const level_result level = search_level(container, segment, type, cmp);
        if (!level.descend)
            return level.found;
        container = level.descend;
        path = segment.rest();
    }
    return nullptr;
}

clparse_node *__clparse_get_node(clparse_head *head, const char *path, int (*cmp)(const char *, const char *))
{
    return head ? clparse_get_tagtype(&head->root, path, -1, cmp) : nullptr;
}

int verify_tag(const char *segment, const char *tag)
{
    return segment && tag ? strcmp(segment, tag) : -1;
}

int clparse_get_bool(clparse_head *head, unsigned char *out, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const clparse_node *node = find_formatted(head, CLPARSE_TYPE_BOOLEAN, fmt, ap, "clparse_get_bool");
    va_end(ap);
    if (!node || !out)
        return -1;
    *out = node->value.boolean;
    return 0;
}

int clparse_get_string(clparse_head *head, char **out, const char *fmt, ...)
{
    if (out)
        *out = nullptr;
    va_list ap;
    va_start(ap, fmt);
    const clparse_node *node = find_formatted(head, CLPARSE_TYPE_STRING, fmt, ap, "clparse_get_string");
    va_end(ap);
    if (!node)
        return -1;
    if (!out)
        return 0;
    *out = clparse_strdup(node->value.str, "clparse_get_string", __LINE__);
    return *out ? 0 : -1;
}

int clparse_get_number(clparse_head *head, uint64_t *out, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const clparse_node *node = find_formatted(head, CLPARSE_TYPE_NUMBER, fmt, ap, "clparse_get_number");
    va_end(ap);
    if (!node || !out)
        return -1;
    *out = node->value.num;
    return 0;
}

int clparse_get_type(clparse_head *head, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const clparse_node *node = find_formatted(head, -1, fmt, ap, "clparse_get_type");
    va_end(ap);
    return node ? node->type : -1;
}

int clparse_get_tag(clparse_head *head, const char **out, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const clparse_node *node = find_formatted(head, -1, fmt, ap, "clparse_get_tag");
    va_end(ap);
    if (!node || !out)
        return -1;
    *out = node->tag;
    return 0;
}
