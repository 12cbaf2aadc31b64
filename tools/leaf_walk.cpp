// The steps are those of build_path_next_leaf, over all members of the document. That function, called for
// each leaf, would count an array's elements and search a container's children from the first one every time;
// here each level of the walk keeps its place.
#include "leaf_walk.h"

#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>
#include "failure.h"
#include "writers.h"

namespace qvl
{

namespace
{

// A container that the walk is in.
struct level {
    const clparse_node *container;
    const clparse_node *child; // the place in it; the sentinel at its end
    size_t position;
    size_t path_length;
    bool hidden; // an earlier member has the name of the container, or of one around it
    std::unordered_set<std::string_view> names; // of the children before `child`

    explicit level(const clparse_node *of, size_t path_length_of = 0, bool hidden_is = false)
        : container(of), child(of->value.children->next), position(0), path_length(path_length_of),
          hidden(hidden_is)
    {
    }

    bool at_end() const
    {
        return child == container->value.children;
    }

    void advance()
    {
        if (child->tag != nullptr && container->type == CLPARSE_TYPE_STRUCT)
            names.insert(child->tag);
        child = child->next;
        position++;
    }

    bool child_is_hidden() const
    {
        return hidden || (container->type == CLPARSE_TYPE_STRUCT && child->tag != nullptr &&
                          names.find(child->tag) != names.end());
    }
};

// Whether a step out of one of them passes over the other.
bool alike(const clparse_node *a, const clparse_node *b)
{
    return a->tag != nullptr && b->tag != nullptr && *a->tag != '\0' && *b->tag != '\0' &&
           check_tag_snmp(a->tag, b->tag) == 0;
}

class leaf_walk
{
  public:
    explicit leaf_walk(const document &read) : read_(read)
    {
        levels_.emplace_back(read.root());
    }

    // Goes to a leaf, or into a container, before its first child.
    void go_to(const clparse_node *node)
    {
        std::vector<const clparse_node *> way;
        for (; node->parent != nullptr; node = node->parent)
            way.push_back(node);
        for (; !way.empty(); way.pop_back()) {
            while (levels_.back().child != way.back())
                levels_.back().advance();
            if (is_container(way.back()))
                enter();
        }
    }

    // Lists on to the end of the member of the document that the walk is in, or of the whole document.
    void list(bool whole)
    {
        for (;;) {
            level &here = levels_.back();
            if (here.at_end()) {
                if (among_members())
                    return;
                leave();
                if (among_members() && !whole)
                    return;
            } else if (is_container(here.child)) {
                enter();
            } else {
                // A leaf among the members of the document is out of the steps' reach.
                if (!among_members())
                    list_leaf();
                here.advance();
            }
        }
    }

    void list_leaf()
    {
        const level &here = levels_.back();
        append_segment();
        if (here.child_is_hidden())
            throw plain_failure(read_.name + ": the walk can't pass \"" + path_ +
                                "\": another member has the same name");
        text_ += path_;
        if (here.child->type != CLPARSE_TYPE_NULL)
            text_ += "=" + to_corelink(here.child, layout::compact);
        text_ += "\n";
        path_.resize(here.path_length);
    }

    bool among_members() const
    {
        return levels_.size() == 1;
    }

    std::string text() &&
    {
        return std::move(text_);
    }

  private:
    void append_segment()
    {
        const level &here = levels_.back();
        if (!among_members())
            path_ += '.';
        path_ += here.container->type == CLPARSE_TYPE_ARRAY ? std::to_string(here.position) : here.child->tag;
    }

    void enter()
    {
        append_segment();
        const level &around = levels_.back();
        const clparse_node *entered = around.child;
        const bool hidden = around.child_is_hidden();
        levels_.emplace_back(entered, path_.size(), hidden);
    }

    void leave()
    {
        const clparse_node *left = levels_.back().container;
        levels_.pop_back();
        level &around = levels_.back();
        path_.resize(around.path_length);
        around.advance();
        while (!among_members() && !around.at_end() && alike(around.child, left))
            around.advance();
    }

    const document &read_;
    std::string text_;
    std::string path_; // of the innermost level
    std::vector<level> levels_;
};

} // namespace

std::string list_leaves(const document &read, const clparse_node *from)
{
    const bool whole = from == read.root();
    leaf_walk walk(read);
    walk.go_to(from);
    if (walk.among_members() && !whole)
        walk.list_leaf();
    else
        walk.list(whole);
    return std::move(walk).text();
}

} // namespace qvl
