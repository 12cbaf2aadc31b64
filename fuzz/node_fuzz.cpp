// Calls on the nodes of a tree, in any order that is allowed, beside a model:
//
//   scripts/fuzz 60 node
//
// An input is calls with their arguments. Nodes are in the tree of a head, or in trees of their own that were
// made or taken out; every node of the model knows its place in the library's memory.

#include <qvlib/corelink.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <set>
#include <string>
#include <vector>

#include "failing_alloc.h"
#include "fuzz_input.h"

namespace
{

using fuzz::require;

struct node {
    clparse_node *at = nullptr;
    std::string tag;
    bool is_tagged = true;
    int type = CLPARSE_TYPE_NULL;
    std::string text;
    bool has_text = false;
    uint64_t number = 0; // of a boolean too
    void *priv = nullptr;
    std::vector<node *> children;
    node *parent = nullptr;

    bool is_container() const
    {
        return type == CLPARSE_TYPE_STRUCT || type == CLPARSE_TYPE_ARRAY;
    }
    bool is_empty() const
    {
        if (is_container())
            return children.empty();
        return type == CLPARSE_TYPE_STRING ? !has_text : number == 0;
    }
};

clparse_node *no_expansion(clparse_node *, void *)
{
    return nullptr;
}

void require_same(const node *of)
{
    const clparse_node *got = of->at;
    require(got->type == of->type, "a type");
    require((got->tag != nullptr) == of->is_tagged && (!got->tag || got->tag == of->tag), "a tag");
    require(clparse_get_node_type(got) == of->type && clparse_get_node_tag(got) == got->tag, "type and tag");
    require(got->parent == (of->parent ? of->parent->at : nullptr), "a parent");
    require(clparse_get_parent(got) == got->parent, "the parent that is asked for");

    const char *text = clparse_get_node_value_s(got);
    require((text != nullptr) == of->has_text && (text == nullptr || text == of->text), "a string");
    const bool is_number = of->type == CLPARSE_TYPE_NUMBER, is_boolean = of->type == CLPARSE_TYPE_BOOLEAN;
    require(clparse_get_node_value_n(got) == (is_number ? of->number : UINT64_MAX), "a number");
    require(clparse_get_node_value_b(got) == (is_boolean ? of->number : 0), "a boolean");
    if (of->type == CLPARSE_TYPE_FUNCTION)
        require(clparse_get_func_priv(got) == of->priv, "a function node's private word");
    if (!of->is_container())
        return;
    const clparse_node *end = got->value.children, *child = end->next;
    for (const node *expected : of->children) {
        require(child == expected->at, "a child's place");
        require(child->prev->next == child && child->next->prev == child, "a child's links");
        require_same(expected);
        child = child->next;
    }
    require(child == end, "a child too many");
}

class world
{
  public:
    world()
    {
        require(clparse_init_head(&head_) == 0, "no head");
        root_ = new_node(clparse_get_head(head_), "head", CLPARSE_TYPE_STRUCT);
    }
    world(const world &) = delete;
    world &operator=(const world &) = delete;

    void step(fuzz::input &in)
    {
        switch (in.below(19)) {
        case 0:
        case 1:
        case 2:
            create(in);
            break;
        case 3:
        case 4:
        case 5:
            append(any(in), in);
            break;
        case 6:
            take_out(any(in));
            break;
        case 7:
            take_first(any(in));
            break;
        case 8:
            replace(any(in), in);
            break;
        case 9:
            remove(any(in));
            break;
        case 10:
            set_tag(any(in), in);
            break;
        case 11:
            set_value(any(in), in);
            break;
        case 12:
        case 13:
            append_new(any(in), in);
            break;
        case 14:
            drop(any(in));
            break;
        case 15:
            make_in_place(any(in), in);
            break;
        case 16:
            refuse(any(in));
            break;
        default:
            copy_members();
            break;
        }
        if (++steps_ % 4 == 0)
            compare();
    }

    // Returns how many sentinels of dropped containers stay allocated.
    size_t end()
    {
        compare();
        for (const node *loose : loose_)
            clparse_delete_node(loose->at);
        clparse_stop(head_);
        return lost_;
    }

  private:
    void compare() const
    {
        require_same(root_);
        for (const node *loose : loose_)
            require_same(loose);
    }

    static std::string tag_of(fuzz::input &in)
    {
        static const char *const tags[] = {"a", "b", "p1", "p12", "1", "a much longer tag than the others",
                                           ""};
        return tags[in.below(std::size(tags))];
    }

    node *new_node(clparse_node *at, const std::string &tag, int type)
    {
        require(at != nullptr, "no node");
        node &made = nodes_.emplace_back();
        made.at = at;
        made.tag = tag;
        made.type = type;
        return &made;
    }

    static void list(node *from, std::vector<node *> &all)
    {
        all.push_back(from);
        for (node *child : from->children)
            list(child, all);
    }

    // A node of any tree, the root too.
    node *any(fuzz::input &in)
    {
        std::vector<node *> all;
        list(root_, all);
        for (node *loose : loose_)
            list(loose, all);
        return all[in.size(2) % all.size()];
    }

    bool is_loose(const node *of) const
    {
        return std::find(loose_.begin(), loose_.end(), of) != loose_.end();
    }

    // A loose node whose tree does not hold `outside`; null without one.
    node *take_loose(fuzz::input &in, node *outside)
    {
        if (loose_.empty())
            return nullptr;
        const auto at = loose_.begin() + static_cast<ptrdiff_t>(in.byte() % loose_.size());
        node *taken = *at;
        for (const node *up = outside; up; up = up->parent)
            if (up == taken)
                return nullptr;
        loose_.erase(at);
        return taken;
    }

    static void forget(node *of)
    {
        std::vector<node *> &siblings = of->parent->children;
        siblings.erase(std::find(siblings.begin(), siblings.end(), of));
    }

    // The parent's address stays in a node that is taken out, and must not outlive the parent.
    void loosen(node *of)
    {
        require(of->at->parent == of->parent->at, "the parent of a node that was taken out");
        require(of->at->next == of->at && of->at->prev == of->at, "the links of a node that was taken out");
        clparse_snmp_edit_fn_node(of->at, nullptr);
        forget(of);
        of->parent = nullptr;
        loose_.push_back(of);
    }

    void create(fuzz::input &in)
    {
        const std::string tag = tag_of(in);
        const char *name = tag.c_str();
        node *made = nullptr;
        switch (in.below(7)) {
        case 0:
            made = new_node(clparse_create_null_node(name), tag, CLPARSE_TYPE_NULL);
            break;
        case 1: {
            const std::string text = in.text(in.below(12)).c_str();
            made = new_node(clparse_create_string_node(name, text.c_str()), tag, CLPARSE_TYPE_STRING);
            made->text = text;
            made->has_text = true;
            break;
        }
        case 2: {
            const uint64_t number = in.number(in.below(9));
            made = new_node(clparse_create_number_node(name, number), tag, CLPARSE_TYPE_NUMBER);
            made->number = number;
            break;
        }
        case 3: {
            const int value = static_cast<int>(in.number(2));
            made = new_node(clparse_create_boolean_node(name, value), tag, CLPARSE_TYPE_BOOLEAN);
            made->number = value & 0xff;
            break;
        }
        case 4:
            made = new_node(clparse_create_struct_node(name), tag, CLPARSE_TYPE_STRUCT);
            break;
        case 5:
            made = new_node(clparse_create_array_node(name), tag, CLPARSE_TYPE_ARRAY);
            break;
        default:
            made = new_node(clparse_create_function_node(name, no_expansion, nullptr, nullptr, this), tag,
                            CLPARSE_TYPE_FUNCTION);
            made->priv = this;
            made->number = 1; // its first word is not zero
            break;
        }
        loose_.push_back(made);
    }

    void append(node *parent, fuzz::input &in)
    {
        node *child = take_loose(in, parent);
        if (child == nullptr)
            return;
        errno = 0;
        const int result = clparse_append_child(parent->at, child->at);
        require(result == (parent->is_container() ? 0 : -1), "clparse_append_child's result");
        if (result != 0) {
            require(errno == ENOTDIR, "errno of a parent that is no container");
            loose_.push_back(child);
            return;
        }
        child->parent = parent;
        parent->children.push_back(child);
    }

    void take_out(node *of)
    {
        if (of == root_)
            return;
        require(clparse_remove_child(of->at) == 0, "clparse_remove_child's result");
        if (!is_loose(of))
            loosen(of);
    }

    void take_first(node *of)
    {
        clparse_node *taken = clparse_get_child(of->at);
        require(taken == (of->children.empty() ? nullptr : of->children.front()->at), "the first child");
        if (taken != nullptr)
            loosen(of->children.front());
    }

    void put_in_place(node *made, node *old)
    {
        made->parent = old->parent;
        std::replace(old->parent->children.begin(), old->parent->children.end(), old, made);
    }

    void replace(node *old, fuzz::input &in)
    {
        if (old == root_ || is_loose(old))
            return;
        node *made = take_loose(in, old);
        if (made == nullptr)
            return;
        require(clparse_add_child_after(made->at, old->at) == 0, "clparse_add_child_after's result");
        put_in_place(made, old);
    }

    void make_in_place(node *old, fuzz::input &in)
    {
        if (old == root_ || is_loose(old))
            return;
        const auto place =
            static_cast<size_t>(std::find(old->parent->children.begin(), old->parent->children.end(), old) -
                                old->parent->children.begin());
        const node replaced = *old;
        const std::string tag = tag_of(in);
        node *made = &nodes_.emplace_back();
        made->tag = tag;
        switch (in.below(3)) {
        case 0:
            made->at = make_struct_node(old->at, tag.c_str());
            require(made->at != nullptr, "make_struct_node's result");
            made->type = CLPARSE_TYPE_STRUCT;
            break;
        case 1:
            made->text = in.text(5).c_str();
            require(make_string_node(old->at, tag.c_str(), made->text.c_str()) == 0,
                    "make_string_node's result");
            made->type = CLPARSE_TYPE_STRING;
            made->has_text = true;
            break;
        default:
            made->tag = replaced.tag;
            require(make_function_node(old->at, no_expansion, nullptr, nullptr, head_) ==
                        (replaced.is_tagged ? 0 : -1),
                    "make_function_node's result");
            if (!replaced.is_tagged)
                return;
            made->type = CLPARSE_TYPE_FUNCTION;
            made->priv = head_;
            made->number = 1;
            break;
        }
        if (made->at == nullptr) { // it stands where the old one stood
            made->at = replaced.parent->at->value.children->next;
            for (size_t i = 0; i < place; i++)
                made->at = made->at->next;
        }
        put_in_place(made, old);
    }

    void remove(node *of)
    {
        if (of == root_)
            return;
        require(clparse_delete_node(of->at) == 0, "clparse_delete_node's result");
        if (is_loose(of))
            loose_.erase(std::find(loose_.begin(), loose_.end(), of));
        else
            forget(of);
    }

    static void set_tag(node *of, fuzz::input &in)
    {
        const bool tagged = in.below(8) != 0;
        of->tag = tagged ? tag_of(in) : "";
        of->is_tagged = tagged;
        require(clparse_set_node_tag(of->at, tagged ? of->tag.c_str() : nullptr) == 0, "the tag's setter");
    }

    static void set_value(node *of, fuzz::input &in)
    {
        const auto number = static_cast<int32_t>(in.number(4));
        const std::string text = in.text(in.below(12)).c_str();
        const bool has_text = !text.empty();
        require(clparse_set_node_value_s(of->at, has_text ? text.c_str() : nullptr) ==
                    (of->type == CLPARSE_TYPE_STRING ? 0 : -1),
                "a string's setter");
        require(clparse_set_node_value_n(of->at, number) == (of->type == CLPARSE_TYPE_NUMBER ? 0 : -1),
                "a number's setter");
        require(clparse_set_node_value_b(of->at, number) == (of->type == CLPARSE_TYPE_BOOLEAN ? 0 : -1),
                "a boolean's setter");
        if (of->type == CLPARSE_TYPE_STRING) {
            of->text = text;
            of->has_text = has_text;
        }
        if (of->type == CLPARSE_TYPE_NUMBER)
            of->number = static_cast<uint64_t>(int64_t{number});
        if (of->type == CLPARSE_TYPE_BOOLEAN)
            of->number = number & 0xff;
    }

    void append_new(node *parent, fuzz::input &in)
    {
        const std::string tag = tag_of(in);
        const unsigned kind = in.below(4);
        const uint64_t number = in.number(2);
        const std::string text = std::to_string(number);
        clparse_node *got = nullptr;
        static constexpr int types[] = {CLPARSE_TYPE_STRUCT, CLPARSE_TYPE_ARRAY, CLPARSE_TYPE_NUMBER,
                                        CLPARSE_TYPE_STRING};
        if (kind == 0)
            got = clparse_append_new_struct(tag.c_str(), parent->at);
        else if (kind == 1)
            got = clparse_append_new_array(head_, tag.c_str(), parent->at);
        else if (kind == 2)
            got = clparse_append_new_number_child(number, tag.c_str(), parent->at);
        else
            got = clparse_append_new_string_child(text.c_str(), tag.c_str(), parent->at);
        if (!parent->is_container())
            return require(got == nullptr, "a child of a node that is no container");
        for (const node *child : parent->children)
            if (child->is_tagged && child->tag == tag)
                return require(got == child->at, "the child that is there already");
        node *made = new_node(got, tag, types[kind]);
        if (kind == 2)
            made->number = number;
        if (kind == 3) {
            made->text = text;
            made->has_text = true;
        }
        made->parent = parent;
        parent->children.push_back(made);
    }

    void drop(node *of)
    {
        if (of == root_)
            return;
        require(clparse_drop(head_, of->at) == 0, "clparse_drop's result");
        for (node *up = of; up != nullptr;) {
            node *parent = up->parent;
            if (up->is_empty()) {
                lost_ += up->is_container();
                if (parent)
                    forget(up);
                else
                    loose_.erase(std::find(loose_.begin(), loose_.end(), up));
            }
            up = parent && parent->parent ? parent : nullptr;
        }
    }

    void refuse(node *of)
    {
        errno = 0;
        require(clparse_append_child(nullptr, of->at) == -1 && errno == EINVAL, "no parent");
        errno = 0;
        require(clparse_append_child(of->at, nullptr) == -1 && errno == EINVAL, "no child");
        require(clparse_add_child_after(nullptr, of->at) == -1, "nothing to put in place");
        require(clparse_add_child_after(of->at, nullptr) == -1, "no place");
        require(clparse_drop(head_, nullptr) == -1 && clparse_delete_node(nullptr) == -1, "no node");
        require(clparse_append_new_struct(nullptr, of->at) == nullptr, "no tag");
        require(make_struct_node(of->at, nullptr) == nullptr, "no tag for a struct");
        require(make_string_node(of->at, "a", nullptr) == -1, "no value for a string");
    }

    // Into an empty tree all is copied, unless members have one name: the later one then overwrites.
    void copy_members()
    {
        std::set<std::string> tags;
        for (const node *child : root_->children)
            if (!tags.insert(child->tag).second)
                return;
        clparse_head *copy = nullptr;
        require(clparse_init_head(&copy) == 0, "no head");
        require(clparse_insert(copy, head_) == 0 || has_functions(root_), "clparse_insert's result");
        clparse_stop(copy);
    }

    static bool has_functions(const node *of)
    {
        return of->type == CLPARSE_TYPE_FUNCTION ||
               std::any_of(of->children.begin(), of->children.end(), has_functions);
    }

    clparse_head *head_ = nullptr;
    std::deque<node> nodes_;
    node *root_;
    std::vector<node *> loose_;
    size_t lost_ = 0, steps_ = 0;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    failing_alloc::live_blocks account;
    world both;
    while (!in.is_empty())
        both.step(in);
    const size_t lost = both.end();
    require(account.count() == lost, "other blocks than the sentinels of dropped containers are left");
    return 0;
}
