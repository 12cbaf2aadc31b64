// The merges against a slow model: plain nested loops over trees of its own, which sorts after each
// insertion. The model is written from the rules of merging alone and shares nothing with the library but the
// tree's types.

#include <qvlib/corelink.h>
#include <qvlib/memcheck.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "corelink/tree.h"
#include "failing_alloc.h"
#include "machine.h"

namespace
{

using text_list = std::vector<std::string>;

// ---- The model's trees
// -------------------------------------------------------------------------------------

struct fn_spec;

struct mnode {
    bool tagged = true;
    std::string tag;
    int type = CLPARSE_TYPE_NULL;
    std::string str;
    uint64_t num = 0;
    unsigned char boolean = 0;
    std::vector<mnode *> kids;
    fn_spec *fn = nullptr;
};

enum class effect_kind { none, rename, set_number, append, remove_first_scalar };

// What a callback does to the target's root.
struct effect {
    effect_kind kind = effect_kind::none;
    size_t position = 0;
    std::string tag;
    uint64_t number = 0;
};

// A function node: which callbacks it has, what they give and what they do, for both sides.
struct fn_spec {
    int id = 0;
    bool expand = false, apply = false, release = false;
    bool fresh = false;      // a new expansion at each call, which release deletes
    int expand_fails_at = 0; // the call that gives NULL, from 1; 0 for never
    int release_fails_at = 0;
    effect on_expand, on_apply, on_release;
    mnode *pattern = nullptr; // what an expansion looks like

    struct side {
        int expansions = 0, releases = 0;
    } model, library;
    mnode *model_kept = nullptr;
    clparse_node *library_kept = nullptr;
    std::vector<clparse_node *> library_fresh;
};

bool is_container(const mnode *node)
{
    return node->type == CLPARSE_TYPE_STRUCT || node->type == CLPARSE_TYPE_ARRAY;
}

bool is_scalar(int type)
{
    return type <= CLPARSE_TYPE_BOOLEAN;
}

// ---- Both kinds of tree as text
// ----------------------------------------------------------------------------

std::string render_head(bool tagged, const std::string &tag, int type)
{
    return (tagged ? "'" + tag + "'" : std::string("-")) + ":" + std::to_string(type) + ":";
}

std::string render(const mnode *node)
{
    std::string text = render_head(node->tagged, node->tag, node->type);
    if (node->type == CLPARSE_TYPE_STRING)
        text += node->str;
    else if (node->type == CLPARSE_TYPE_NUMBER)
        text += std::to_string(node->num);
    else if (node->type == CLPARSE_TYPE_BOOLEAN)
        text += std::to_string(node->boolean);
    else if (node->type == CLPARSE_TYPE_FUNCTION)
        text += node->fn ? "F" + std::to_string(node->fn->id) : "F-";
    if (!is_container(node))
        return text;
    text += "{";
    for (const mnode *kid : node->kids)
        text += render(kid) + " ";
    return text + "}";
}

// Also holds the links against each other.
std::string render(const clparse_node *node)
{
    std::string text = render_head(node->tag, node->tag ? node->tag : "", node->type);
    if (node->type == CLPARSE_TYPE_STRING)
        text += node->value.str ? node->value.str : "(null)";
    else if (node->type == CLPARSE_TYPE_NUMBER)
        text += std::to_string(node->value.num);
    else if (node->type == CLPARSE_TYPE_BOOLEAN)
        text += std::to_string(node->value.boolean);
    else if (node->type == CLPARSE_TYPE_FUNCTION)
        text += node->value.func.priv
                    ? "F" + std::to_string(static_cast<fn_spec *>(node->value.func.priv)->id)
                    : (node->value.func.expand || node->value.func.apply || node->value.func.release ? "F?"
                                                                                                     : "F-");
    if (!qv::is_container(node))
        return text;
    text += "{";
    const clparse_node *end = node->value.children;
    for (const clparse_node *kid = end->next; kid != end; kid = kid->next) {
        if (kid->parent != node)
            text += "(wrong parent)";
        if (kid->prev->next != kid || kid->next->prev != kid)
            text += "(broken links)";
        text += render(kid) + " ";
    }
    return text + "}";
}

// Blocks that the library needs for a tree.
size_t count_blocks(const mnode *node)
{
    size_t blocks = 1 + node->tagged;
    if (node->type == CLPARSE_TYPE_STRING || is_container(node))
        blocks++;
    if (is_container(node))
        for (const mnode *kid : node->kids)
            blocks += count_blocks(kid);
    return blocks;
}

// ---- A pair of trees, on both sides
// ------------------------------------------------------------------------

class world
{
  public:
    world()
    {
        clparse_init_head(&target);
        clparse_init_head(&source);
        model_target = make(CLPARSE_TYPE_STRUCT, "head");
        model_source = make(CLPARSE_TYPE_STRUCT, "head");
    }
    ~world()
    {
        if (source != target)
            clparse_stop(source);
        clparse_stop(target);
        for (fn_spec &fn : functions)
            clparse_delete_node(fn.library_kept);
    }
    world(const world &) = delete;
    world &operator=(const world &) = delete;

    mnode *make(int type, std::string tag)
    {
        mnode &node = nodes.emplace_back();
        node.type = type;
        node.tag = std::move(tag);
        return &node;
    }

    mnode *copy(const mnode *node, bool with_functions)
    {
        mnode *made = &nodes.emplace_back(*node);
        if (!with_functions)
            made->fn = nullptr;
        for (mnode *&kid : made->kids)
            kid = copy(kid, with_functions);
        return made;
    }

    clparse_node *build(const mnode *spec);
    void fill(clparse_node *container, const mnode *spec)
    {
        for (const mnode *kid : spec->kids)
            clparse_append_child(container, build(kid));
    }

    void build_library_trees()
    {
        fill(&target->root, model_target);
        fill(&source->root, model_source);
    }

    std::string render_model() const
    {
        return render(model_target) + " <- " + render(model_source);
    }
    std::string render_library() const
    {
        return render(&target->root) + " <- " + render(&source->root);
    }

    void apply_effect_to_model(const effect &what);
    void apply_effect_to_library(const effect &what);

    std::deque<mnode> nodes;
    std::deque<fn_spec> functions;
    mnode *model_target, *model_source;
    clparse_head *target = nullptr, *source = nullptr;
    size_t lost_blocks = 0; // of containers that took a scalar
    text_list model_log, library_log;
};

world *current; // for callbacks without an argument of ours

void world::apply_effect_to_model(const effect &what)
{
    std::vector<mnode *> &kids = model_target->kids;
    switch (what.kind) {
    case effect_kind::none:
        break;
    case effect_kind::rename:
        if (!kids.empty())
            kids[what.position % kids.size()]->tag = what.tag;
        if (!kids.empty())
            kids[what.position % kids.size()]->tagged = true;
        break;
    case effect_kind::set_number:
        if (!kids.empty() && kids[what.position % kids.size()]->type == CLPARSE_TYPE_NUMBER)
            kids[what.position % kids.size()]->num = what.number;
        break;
    case effect_kind::append: {
        mnode *made = make(CLPARSE_TYPE_NUMBER, what.tag);
        made->num = what.number;
        kids.push_back(made);
        break;
    }
    case effect_kind::remove_first_scalar: {
        auto found = std::find_if(kids.begin(), kids.end(), [](mnode *kid) { return is_scalar(kid->type); });
        if (found != kids.end())
            kids.erase(found);
        break;
    }
    }
}

void world::apply_effect_to_library(const effect &what)
{
    const clparse_node *end = target->root.value.children;
    std::vector<clparse_node *> kids;
    for (clparse_node *kid = end->next; kid != end; kid = kid->next)
        kids.push_back(kid);
    switch (what.kind) {
    case effect_kind::none:
        break;
    case effect_kind::rename:
        if (!kids.empty())
            clparse_set_node_tag(kids[what.position % kids.size()], what.tag.c_str());
        break;
    case effect_kind::set_number:
        if (!kids.empty() && kids[what.position % kids.size()]->type == CLPARSE_TYPE_NUMBER)
            kids[what.position % kids.size()]->value.num = what.number;
        break;
    case effect_kind::append:
        clparse_append_child(&target->root, clparse_create_number_node(what.tag.c_str(), what.number));
        break;
    case effect_kind::remove_first_scalar: {
        auto found =
            std::find_if(kids.begin(), kids.end(), [](clparse_node *kid) { return is_scalar(kid->type); });
        if (found != kids.end())
            clparse_delete_node(*found);
        break;
    }
    }
}

// ---- Callbacks of function nodes: what they see is logged
// --------------------------------------------------

std::string name(const char *what, const fn_spec *fn)
{
    return std::string(what) + " F" + std::to_string(fn->id) + " ";
}

clparse_node *expand_library(clparse_node *node, void *priv)
{
    auto *fn = static_cast<fn_spec *>(priv);
    EXPECT_EQ(node->value.func.priv, priv);
    current->library_log.push_back(name("expand", fn) + current->render_library());
    current->apply_effect_to_library(fn->on_expand);
    if (++fn->library.expansions == fn->expand_fails_at)
        return nullptr;
    if (fn->fresh)
        return fn->library_fresh.emplace_back(current->build(fn->pattern));
    if (!fn->library_kept)
        fn->library_kept = current->build(fn->pattern);
    return fn->library_kept;
}

int apply_library(clparse_node *node, clparse_node *source, void *priv)
{
    auto *fn = static_cast<fn_spec *>(priv);
    EXPECT_EQ(node->value.func.priv, priv);
    current->library_log.push_back(name("apply", fn) + render(source) + " " + current->render_library());
    current->apply_effect_to_library(fn->on_apply);
    return -1; // counts for nothing
}

int release_library(clparse_node *node, void *priv)
{
    auto *fn = static_cast<fn_spec *>(priv);
    EXPECT_EQ(node->value.func.priv, priv);
    std::string expansion = fn->fresh ? render(fn->library_fresh.back()) : render(fn->library_kept);
    current->library_log.push_back(name("release", fn) + expansion + " " + current->render_library());
    current->apply_effect_to_library(fn->on_release);
    if (fn->fresh) {
        clparse_delete_node(fn->library_fresh.back());
        fn->library_fresh.pop_back();
    }
    return ++fn->library.releases == fn->release_fails_at ? 7 : 0;
}

clparse_node *world::build(const mnode *spec)
{
    const char *tag = spec->tag.c_str();
    clparse_node *node = nullptr;
    switch (spec->type) {
    case CLPARSE_TYPE_NULL:
        node = clparse_create_null_node(tag);
        break;
    case CLPARSE_TYPE_STRING:
        node = clparse_create_string_node(tag, spec->str.c_str());
        break;
    case CLPARSE_TYPE_NUMBER:
        node = clparse_create_number_node(tag, spec->num);
        break;
    case CLPARSE_TYPE_BOOLEAN:
        node = clparse_create_boolean_node(tag, spec->boolean);
        break;
    case CLPARSE_TYPE_STRUCT:
        node = clparse_create_struct_node(tag);
        break;
    case CLPARSE_TYPE_ARRAY:
        node = clparse_create_array_node(tag);
        break;
    default:
        node = spec->fn
                   ? clparse_create_function_node(tag, spec->fn->expand ? expand_library : nullptr,
                                                  spec->fn->apply ? apply_library : nullptr,
                                                  spec->fn->release ? release_library : nullptr, spec->fn)
                   : clparse_create_function_node(tag, nullptr, nullptr, nullptr, nullptr);
    }
    if (!spec->tagged)
        clparse_set_node_tag(node, nullptr);
    if (is_container(spec))
        fill(node, spec);
    return node;
}

// ---- The model of merging
// ----------------------------------------------------------------------------------

using model_found = std::function<int(mnode *target, mnode *source)>;
using model_not_found = std::function<int(mnode *container, mnode *source)>;

bool same_tags(const mnode *a, const mnode *b)
{
    return a->tagged && b->tagged && a->tag == b->tag;
}

class model
{
  public:
    model(world &of, model_found found, model_not_found not_found)
        : world_(of), found_(std::move(found)), not_found_(std::move(not_found))
    {
    }

    int search(mnode *target, mnode *source)
    {
        int result = -1;
        const std::vector<mnode *> sources = source->kids;
        for (mnode *s : sources) {
            mnode *source_function = nullptr;
            if (s->type == CLPARSE_TYPE_FUNCTION) {
                if (!s->fn || !s->fn->expand)
                    continue;
                source_function = s;
                s = expand(s->fn);
                if (!s)
                    return -1;
            }
            for (size_t i = 0; i < target->kids.size(); i++) {
                mnode *t = target->kids[i];
                mnode *target_function = nullptr;
                if (t->type == CLPARSE_TYPE_FUNCTION) {
                    if (t->fn && t->fn->apply) {
                        apply(t->fn, s);
                        result = 1;
                        break;
                    }
                    if (!t->fn || !t->fn->release || !t->fn->expand)
                        continue;
                    target_function = t;
                    t = expand(t->fn);
                    if (!t)
                        return -1;
                }
                if (same_tags(t, s) && is_container(t) && is_container(s)) {
                    result = search(t, s);
                    if (result == -1)
                        return -1;
                } else {
                    result = found_(t, s);
                }
                if (target_function && release(target_function->fn, t) != 0)
                    return -1;
                if (result != -1)
                    break;
            }
            if (source_function && source_function->fn->release && release(source_function->fn, s) != 0)
                return -1;
            if (not_found_ && result == -1 && not_found_(target, s) == -1)
                return -1;
        }
        return 0;
    }

  private:
    mnode *expand(fn_spec *fn)
    {
        world_.model_log.push_back(name("expand", fn) + world_.render_model());
        world_.apply_effect_to_model(fn->on_expand);
        if (++fn->model.expansions == fn->expand_fails_at)
            return nullptr;
        if (fn->fresh)
            return world_.copy(fn->pattern, true);
        if (!fn->model_kept)
            fn->model_kept = world_.copy(fn->pattern, true);
        return fn->model_kept;
    }
    void apply(fn_spec *fn, const mnode *source)
    {
        world_.model_log.push_back(name("apply", fn) + render(source) + " " + world_.render_model());
        world_.apply_effect_to_model(fn->on_apply);
    }
    int release(fn_spec *fn, const mnode *expansion)
    {
        world_.model_log.push_back(name("release", fn) + render(expansion) + " " + world_.render_model());
        world_.apply_effect_to_model(fn->on_release);
        return ++fn->model.releases == fn->release_fails_at ? 7 : 0;
    }

    world &world_;
    model_found found_;
    model_not_found not_found_;
};

int take_value(world &of, mnode *target, const mnode *source)
{
    if (!same_tags(target, source) || is_container(source))
        return -1;
    if (is_container(target) && target != source)
        of.lost_blocks += count_blocks(target) - 1 - target->tagged;
    target->type = source->type;
    if (source->type == CLPARSE_TYPE_NUMBER)
        target->num = source->num;
    if (source->type == CLPARSE_TYPE_BOOLEAN)
        target->boolean = source->boolean;
    if (source->type == CLPARSE_TYPE_STRING)
        target->str = source->str;
    return 0;
}

// The recursive merge sort: first half, second half, and the first half's element only when it compares
// greater.
void sort_list(std::vector<mnode *> &list, int (*compare)(const mnode *, const mnode *))
{
    if (list.size() < 2)
        return;
    const auto middle = list.begin() + static_cast<ptrdiff_t>(list.size() / 2);
    std::vector<mnode *> first(list.begin(), middle), second(middle, list.end());
    sort_list(first, compare);
    sort_list(second, compare);
    list.clear();
    size_t a = 0, b = 0;
    while (a < first.size() && b < second.size())
        list.push_back(compare(first[a], second[b]) > 0 ? first[a++] : second[b++]);
    list.insert(list.end(), first.begin() + static_cast<ptrdiff_t>(a), first.end());
    list.insert(list.end(), second.begin() + static_cast<ptrdiff_t>(b), second.end());
}

bool begins_with_digit(const mnode *node)
{
    return node->tagged && !node->tag.empty() && strchr("0123456789", node->tag[0]);
}

int number_of(const mnode *node)
{
    if (!node->tagged || node->tag.size() < 2)
        return begins_with_digit(node) ? atoi(node->tag.c_str()) : 0;
    return atoi(begins_with_digit(node) ? node->tag.c_str() : node->tag.c_str() + 1);
}

int compare_for_sorting(const mnode *a, const mnode *b)
{
    return begins_with_digit(b) ? -number_of(b) : number_of(b) - number_of(a);
}

enum class merge_kind { update, select, insert, insert_sort };

const merge_kind all_merges[] = {merge_kind::update, merge_kind::select, merge_kind::insert,
                                 merge_kind::insert_sort};

int merge_model(world &of, merge_kind kind)
{
    model_not_found not_found;
    if (kind == merge_kind::update)
        not_found = [](mnode *, mnode *) { return -1; };
    if (kind == merge_kind::insert || kind == merge_kind::insert_sort)
        not_found = [&of, kind](mnode *container, mnode *source) {
            mnode *copy = of.copy(source, false);
            container->kids.push_back(copy);
            if (kind == merge_kind::insert)
                return 0;
            sort_list(container->kids, compare_for_sorting);
            if (is_container(copy))
                sort_list(copy->kids, compare_for_sorting);
            return 0;
        };
    auto found = [&of](mnode *target, mnode *source) { return take_value(of, target, source); };
    return model(of, found, not_found).search(of.model_target, of.model_source);
}

int merge_library(clparse_head *target, clparse_head *source, merge_kind kind)
{
    switch (kind) {
    case merge_kind::update:
        return clparse_update(target, source);
    case merge_kind::select:
        return clparse_select(target, source);
    case merge_kind::insert:
        return clparse_insert(target, source);
    default:
        return clparse_insert_sort(target, source);
    }
}

// ---- Random trees
// ------------------------------------------------------------------------------------------

struct shape {
    size_t most_children = 6; // of the root
    int depth = 3;
    int functions = 0; // in a hundred nodes
    bool effects = false;
    bool failures = false;
    bool kept_expansions = false; // a caller's not-found action comes after the release
    bool in_order = false;        // the source has what the target has, with some differences
};

enum class tag_style { few_letters, numbered, digits, mixed, any };

class generator
{
  public:
    generator(world &of, unsigned seed, shape wanted) : world_(of), random_(seed), shape_(wanted)
    {
        style_ = static_cast<tag_style>(below(5));
    }

    size_t below(size_t bound)
    {
        return random_() % bound;
    }

    void fill_trees()
    {
        tag_count_ = 1 + below(2 * shape_.most_children);
        on_target_ = true;
        fill(world_.model_target, shape_.most_children, shape_.depth, false);
        on_target_ = false;
        if (shape_.in_order) {
            world_.model_source->kids = world_.copy(world_.model_target, true)->kids;
            change_some(world_.model_source, shape_.depth);
            return;
        }
        switch (below(4)) {
        case 0: // the same tree, or the same in reverse order
            world_.model_source->kids = world_.copy(world_.model_target, false)->kids;
            if (below(2))
                std::reverse(world_.model_source->kids.begin(), world_.model_source->kids.end());
            break;
        default:
            fill(world_.model_source, shape_.most_children, shape_.depth, false);
        }
    }

    std::string tag()
    {
        tag_style style = style_;
        if (style == tag_style::any)
            style = static_cast<tag_style>(below(4));
        const std::string number = std::to_string(below(tag_count_));
        if (shape_.in_order && style == tag_style::numbered)
            return below(20) ? "counter_" + number : "counters_of_" + number;
        switch (style) {
        case tag_style::few_letters:
            return std::string(1, static_cast<char>('a' + below(6)));
        case tag_style::numbered:
            return "p" + number;
        case tag_style::digits:
            return number;
        default:
            break;
        }
        const char *const odd[] = {"", "-", "-5", "p-3", "x", "7up", "q007", "p", "0"};
        switch (below(4)) {
        case 0:
            return odd[below(std::size(odd))];
        case 1:
            return number;
        default:
            return std::string(1, static_cast<char>('p' + below(3))) + number;
        }
    }

  private:
    void fill(mnode *container, size_t most, int depth, bool in_array)
    {
        const size_t count = below(most + 1);
        const bool distinct = below(2) == 0; // as far as the style allows
        for (size_t i = 0; i < count; i++) {
            mnode *kid = make(depth, below(16) == 0 ? 0 : shape_.functions);
            if (in_array && below(4) != 0)
                kid->tagged = false;
            auto same = [kid](const mnode *other) { return same_tags(kid, other); };
            if (distinct && std::any_of(container->kids.begin(), container->kids.end(), same))
                continue;
            container->kids.push_back(kid);
        }
        if (below(4) == 0)
            std::sort(container->kids.begin(), container->kids.end(),
                      [](mnode *a, mnode *b) { return number_of(a) < number_of(b); });
    }

    // Removes, adds and exchanges some children on all levels.
    void change_some(mnode *container, int depth)
    {
        auto &kids = container->kids;
        for (mnode *kid : kids)
            if (is_container(kid))
                change_some(kid, depth - 1);
        for (size_t left = below(4); left > 0; left--) {
            const auto at = kids.begin() + static_cast<std::ptrdiff_t>(below(kids.size() + 1));
            if (below(2))
                kids.insert(at, make(depth, shape_.functions));
            else if (at != kids.end() && below(2))
                kids.erase(at);
            else if (at != kids.end())
                std::swap(*at, kids[below(kids.size())]);
        }
    }

    mnode *make(int depth, int functions)
    {
        mnode *node = world_.make(CLPARSE_TYPE_NULL, tag());
        if (static_cast<int>(below(100)) < functions) {
            node->type = CLPARSE_TYPE_FUNCTION;
            node->fn = make_function(node, depth);
            return node;
        }
        node->type = static_cast<int>(below(depth > 1 ? 6 : 4));
        node->num = below(3) ? below(10) : UINT64_C(0xfedcba9876543210);
        node->boolean = static_cast<unsigned char>(below(3));
        node->str = std::string(below(5), 'z');
        if (is_container(node))
            fill(node, std::min<size_t>(shape_.most_children, 8), depth - 1,
                 node->type == CLPARSE_TYPE_ARRAY);
        return node;
    }

    fn_spec *make_function(const mnode *node, int depth)
    {
        fn_spec &fn = world_.functions.emplace_back();
        fn.id = static_cast<int>(world_.functions.size());
        fn.expand = below(8) != 0;
        fn.apply = below(8) == 0;
        fn.release = below(4) != 0;
        fn.fresh = !fn.release || (!shape_.kept_expansions && below(2));
        if (shape_.failures && below(6) == 0)
            fn.expand_fails_at = 1 + static_cast<int>(below(3));
        if (shape_.failures && below(6) == 0)
            fn.release_fails_at = 1 + static_cast<int>(below(3));
        if (shape_.effects) {
            fn.on_expand = make_effect(!on_target_);
            fn.on_apply = make_effect(true);
            fn.on_release = make_effect(!on_target_);
        }
        fn.pattern = make(depth - 1, 0);
        if (below(20) == 0)
            fn.pattern->type = CLPARSE_TYPE_FUNCTION;
        if (below(2))
            fn.pattern->tag = node->tag;
        return &fn;
    }

    // While the target's children are walked, only those that are there may be changed.
    effect make_effect(bool may_move)
    {
        effect made;
        if (below(3) != 0)
            return made;
        made.kind = static_cast<effect_kind>(1 + below(may_move ? 4 : 2));
        made.position = below(1000);
        made.tag = tag();
        made.number = below(1000);
        return made;
    }

    world &world_;
    std::mt19937 random_;
    shape shape_;
    tag_style style_;
    size_t tag_count_ = 1;
    bool on_target_ = true;
};

// Large trees are shown from a little before the first difference on.
void expect_same_text(const std::string &library, const std::string &of_model)
{
    if (library == of_model)
        return;
    const auto differ = std::mismatch(library.begin(), library.end(), of_model.begin(), of_model.end());
    const auto at = static_cast<size_t>(differ.first - library.begin());
    const size_t from = at > 100 ? at - 100 : 0;
    ADD_FAILURE() << "library: " << library.substr(from, 300) << "\nmodel:   " << of_model.substr(from, 300);
}

void expect_same_logs(const world &of)
{
    EXPECT_EQ(of.library_log.size(), of.model_log.size());
    for (size_t i = 0; i < std::min(of.library_log.size(), of.model_log.size()); i++) {
        SCOPED_TRACE("call " + std::to_string(i));
        expect_same_text(of.library_log[i], of.model_log[i]);
        if (testing::Test::HasFailure())
            return;
    }
}

void compare_merge(unsigned seed, merge_kind kind, shape wanted)
{
    SCOPED_TRACE("seed " + std::to_string(seed) + " merge " + std::to_string(static_cast<int>(kind)));
    failing_alloc::live_blocks blocks;
    size_t lost = 0;
    {
        world both;
        current = &both;
        generator(both, seed, wanted).fill_trees();
        both.build_library_trees();
        expect_same_text(both.render_library(), both.render_model());
        const int expected = merge_model(both, kind);
        const int result = merge_library(both.target, both.source, kind);
        EXPECT_EQ(result, expected);
        expect_same_text(both.render_library(), both.render_model());
        expect_same_logs(both);
        lost = both.lost_blocks;
        // What a failing callback keeps from being released is not counted.
        if (wanted.failures && expected == -1)
            return;
        for (const fn_spec &fn : both.functions)
            if (fn.fresh && !fn.library_fresh.empty() && expected == -1)
                return;
    }
    EXPECT_EQ(blocks.count(), lost);
}

void compare_merges(unsigned first_seed, unsigned count, shape wanted)
{
    for (unsigned seed = first_seed; seed < first_seed + scaled(count) && !testing::Test::HasFailure();
         seed++)
        for (merge_kind kind : all_merges)
            compare_merge(seed, kind, wanted);
}

TEST(Merges, EqualTheModelOnSmallTrees)
{
    compare_merges(1, 6000, {.most_children = 6, .depth = 3});
}

TEST(Merges, EqualTheModelOnWideTrees)
{
    compare_merges(100000, 400, {.most_children = 120, .depth = 2});
}

TEST(Merges, EqualTheModelOnTreesInNearlyTheSameOrder)
{
    compare_merges(700000, 1500, {.most_children = 8, .depth = 3, .in_order = true});
    compare_merges(710000, 500, {.most_children = 60, .depth = 2, .in_order = true});
    compare_merges(720000, 100, {.most_children = 400, .depth = 2, .in_order = true});
}

TEST(Merges, EqualTheModelOnTreesInNearlyTheSameOrderWithFunctionNodes)
{
    compare_merges(730000, 1500,
                   {.most_children = 20, .depth = 2, .functions = 3, .failures = true, .in_order = true});
    compare_merges(740000, 1500,
                   {.most_children = 20, .depth = 2, .functions = 3, .effects = true, .in_order = true});
}

TEST(Merges, EqualTheModelWithFunctionNodes)
{
    compare_merges(200000, 4000, {.most_children = 6, .depth = 3, .functions = 25});
}

TEST(Merges, EqualTheModelWithFunctionNodesThatFail)
{
    compare_merges(300000, 3000, {.most_children = 6, .depth = 3, .functions = 25, .failures = true});
}

TEST(Merges, EqualTheModelWithCallbacksThatChangeTheTarget)
{
    compare_merges(400000, 4000, {.most_children = 6, .depth = 3, .functions = 25, .effects = true});
}

TEST(Merges, EqualTheModelOnWideTreesWithFewCallbacksThatChangeTheTarget)
{
    compare_merges(500000, 120, {.most_children = 120, .depth = 2, .functions = 2, .effects = true});
}

TEST(Merges, EqualTheModelOnWideTreesWithCallbacksThatFail)
{
    compare_merges(600000, 60,
                   {.most_children = 120, .depth = 2, .functions = 3, .effects = true, .failures = true});
}

// ---- clparse_search_tree with a caller's actions
// -----------------------------------------------------------

enum class found_kind { by_default, logged_default, never, any_equal_tag, values_only };
enum class not_found_kind { none, logged, aborting, appending, renaming };

struct own_actions {
    found_kind found = found_kind::by_default;
    not_found_kind not_found = not_found_kind::none;
    int aborts_at = 3, calls = 0; // of the library's side
    int model_calls = 0;
} actions;

int found_in_library(clparse_node *target, clparse_node *source)
{
    current->library_log.push_back("found " + render(target) + " <- " + render(source));
    switch (actions.found) {
    case found_kind::never:
        return -1;
    case found_kind::any_equal_tag:
        return target->tag && source->tag && strcmp(target->tag, source->tag) == 0 ? 5 : -1;
    case found_kind::values_only:
        return source->type == CLPARSE_TYPE_NUMBER ? clparse_dfl_found_action(target, source) : -1;
    default:
        return clparse_dfl_found_action(target, source);
    }
}

int found_in_model(world &of, mnode *target, mnode *source)
{
    if (actions.found == found_kind::by_default)
        return take_value(of, target, source);
    of.model_log.push_back("found " + render(target) + " <- " + render(source));
    switch (actions.found) {
    case found_kind::never:
        return -1;
    case found_kind::any_equal_tag:
        return same_tags(target, source) ? 5 : -1;
    case found_kind::values_only:
        return source->type == CLPARSE_TYPE_NUMBER ? take_value(of, target, source) : -1;
    default:
        return take_value(of, target, source);
    }
}

int not_found_in_library(clparse_node *container, clparse_node *source)
{
    current->library_log.push_back("not found " + render(source) + " in " + render(container) + " " +
                                   current->render_library());
    actions.calls++;
    if (actions.not_found == not_found_kind::aborting && actions.calls == actions.aborts_at)
        return -1;
    if (actions.not_found == not_found_kind::appending && source->tag)
        clparse_append_child(container, clparse_create_number_node(source->tag, 77));
    if (actions.not_found == not_found_kind::renaming && source->tag)
        current->apply_effect_to_library(
            {effect_kind::rename, static_cast<size_t>(actions.calls), source->tag, 0});
    return actions.calls;
}

int not_found_in_model(world &of, mnode *container, mnode *source)
{
    of.model_log.push_back("not found " + render(source) + " in " + render(container) + " " +
                           of.render_model());
    actions.model_calls++;
    if (actions.not_found == not_found_kind::aborting && actions.model_calls == actions.aborts_at)
        return -1;
    if (actions.not_found == not_found_kind::appending && source->tagged) {
        container->kids.push_back(of.make(CLPARSE_TYPE_NUMBER, source->tag));
        container->kids.back()->num = 77;
    }
    if (actions.not_found == not_found_kind::renaming && source->tagged)
        of.apply_effect_to_model(
            {effect_kind::rename, static_cast<size_t>(actions.model_calls), source->tag, 0});
    return 0;
}

void compare_search(unsigned seed, found_kind found, not_found_kind not_found, shape wanted)
{
    SCOPED_TRACE("seed " + std::to_string(seed) + " found " + std::to_string(static_cast<int>(found)) +
                 " not found " + std::to_string(static_cast<int>(not_found)));
    failing_alloc::live_blocks blocks;
    world both;
    current = &both;
    actions = {};
    actions.found = found;
    actions.not_found = not_found;
    generator random(both, seed, wanted);
    actions.aborts_at = 1 + static_cast<int>(random.below(4));
    random.fill_trees();
    both.build_library_trees();
    model_not_found missing;
    if (not_found != not_found_kind::none)
        missing = [&both](mnode *container, mnode *source) {
            return not_found_in_model(both, container, source);
        };
    const int expected =
        model(
            both, [&both](mnode *t, mnode *s) { return found_in_model(both, t, s); }, missing)
            .search(both.model_target, both.model_source);
    const int result =
        clparse_search_tree(&both.target->root, &both.source->root,
                            found == found_kind::by_default ? clparse_dfl_found_action : found_in_library,
                            not_found == not_found_kind::none ? nullptr : not_found_in_library);
    EXPECT_EQ(result, expected);
    expect_same_text(both.render_library(), both.render_model());
    expect_same_logs(both);
}

void compare_searches(unsigned first_seed, unsigned count, shape wanted)
{
    for (unsigned seed = first_seed; seed < first_seed + scaled(count) && !testing::Test::HasFailure();
         seed++)
        for (int found = 0; found <= static_cast<int>(found_kind::values_only); found++)
            for (int not_found = 0; not_found <= static_cast<int>(not_found_kind::renaming); not_found++)
                compare_search(seed, static_cast<found_kind>(found), static_cast<not_found_kind>(not_found),
                               wanted);
}

TEST(SearchTree, CallsOwnActionsAsTheModelDoes)
{
    compare_searches(1, 500, {.most_children = 5, .depth = 3});
}

TEST(SearchTree, CallsOwnActionsAsTheModelDoesWithFunctionNodes)
{
    compare_searches(
        10000, 500,
        {.most_children = 5, .depth = 3, .functions = 20, .failures = true, .kept_expansions = true});
}

TEST(SearchTree, LetsTheNotFoundActionChangeWideTargets)
{
    for (unsigned seed = 20000; seed < 20000 + scaled(60u) && !HasFailure(); seed++)
        for (auto not_found : {not_found_kind::appending, not_found_kind::renaming, not_found_kind::aborting})
            compare_search(seed, found_kind::by_default, not_found, {.most_children = 100, .depth = 2});
}

// ---- A tree merged with itself
// -----------------------------------------------------------------------------

void merge_with_itself(unsigned seed, merge_kind kind, shape wanted)
{
    SCOPED_TRACE("seed " + std::to_string(seed) + " merge " + std::to_string(static_cast<int>(kind)));
    failing_alloc::live_blocks blocks;
    world both;
    current = &both;
    generator(both, seed, wanted).fill_trees();
    std::function<void(mnode *)> give_tags = [&](mnode *node) {
        node->tagged = true;
        for (mnode *kid : node->kids)
            give_tags(kid);
    };
    give_tags(both.model_target);
    clparse_stop(both.source);
    both.source = both.target;
    both.model_source = both.model_target;
    both.fill(&both.target->root, both.model_target);
    EXPECT_EQ(merge_library(both.target, both.source, kind), merge_model(both, kind));
    expect_same_text(both.render_library(), both.render_model());
}

TEST(Merges, OfATreeWithItselfEqualTheModel)
{
    for (unsigned seed = 1; seed < 1 + scaled(1500u) && !HasFailure(); seed++)
        for (merge_kind kind : all_merges)
            merge_with_itself(seed, kind, {.most_children = 6, .depth = 3});
    for (unsigned seed = 5000; seed < 5000 + scaled(100u) && !HasFailure(); seed++)
        for (merge_kind kind : all_merges)
            merge_with_itself(seed, kind, {.most_children = 150, .depth = 2});
}

// Each appended copy of an untagged element would be met again: only what was there at first is merged.
TEST(Merges, OfATreeWithItselfEndWhenElementsHaveNoTags)
{
    for (unsigned count : {1u, 2u, 3u, 7u, 8u, 100u, 1001u}) {
        for (merge_kind kind : {merge_kind::insert, merge_kind::insert_sort}) {
            SCOPED_TRACE(count);
            clparse_head *head = nullptr;
            ASSERT_EQ(clparse_init_head(&head), 0);
            clparse_node *list = clparse_append_new_array(head, "list", &head->root);
            for (unsigned i = 0; i < count; i++) {
                clparse_node *element = clparse_create_number_node("x", i);
                clparse_set_node_tag(element, nullptr);
                clparse_append_child(list, element);
            }
            EXPECT_EQ(merge_library(head, head, kind), 0);
            unsigned after = 0;
            while (clparse_node *element = clparse_get_child(list)) {
                clparse_delete_node(element);
                after++;
            }
            EXPECT_EQ(after, 2 * count);
            clparse_stop(head);
        }
    }
}

// ---- Failing allocations
// -----------------------------------------------------------------------------------

// All states that the target goes through when a merge may stop after any change.
text_list states_of_merge(world &both, merge_kind kind)
{
    text_list states{both.render_model()};
    auto changed = [&](int result) {
        states.push_back(both.render_model());
        return result;
    };
    model_not_found not_found = [&](mnode *container, mnode *source) {
        if (kind == merge_kind::update)
            return -1;
        mnode *copy = both.copy(source, false);
        container->kids.push_back(copy);
        if (kind == merge_kind::insert_sort)
            sort_list(container->kids, compare_for_sorting);
        if (kind == merge_kind::insert_sort && is_container(copy))
            sort_list(copy->kids, compare_for_sorting);
        return changed(0);
    };
    auto found = [&](mnode *target, mnode *source) { return changed(take_value(both, target, source)); };
    model(both, found, kind == merge_kind::select ? nullptr : not_found)
        .search(both.model_target, both.model_source);
    return states;
}

void without_strings(mnode *node)
{
    if (node->type == CLPARSE_TYPE_STRING)
        node->type = CLPARSE_TYPE_NULL;
    for (mnode *kid : node->kids)
        without_strings(kid);
}

// Whether the merge of this seed came to an end before the allocation after `successes` others.
bool merge_with_failure(unsigned seed, merge_kind kind, shape wanted, int successes)
{
    SCOPED_TRACE("allocation " + std::to_string(successes));
    failing_alloc::live_blocks blocks; // children in copies that failed stay allocated
    world both;
    current = &both;
    generator(both, seed, wanted).fill_trees();
    without_strings(both.model_target);
    without_strings(both.model_source);
    both.build_library_trees();
    const text_list states = states_of_merge(both, kind);
    bool failed;
    int result;
    {
        failing_alloc::after failure(successes);
        result = merge_library(both.target, both.source, kind);
        failed = failing_alloc::failed;
    }
    const std::string state = both.render_library();
    if (result == 0)
        expect_same_text(state, states.back());
    else
        EXPECT_NE(std::find(states.begin(), states.end(), state), states.end()) << state;
    return !failed;
}

void fail_each_allocation(unsigned seed, merge_kind kind, shape wanted)
{
    SCOPED_TRACE("seed " + std::to_string(seed) + " merge " + std::to_string(static_cast<int>(kind)));
    for (int successes = 0; !testing::Test::HasFailure(); successes++)
        if (merge_with_failure(seed, kind, wanted, successes))
            return;
}

TEST(Merges, KeepWhatWasChangedBeforeAnAllocationFailed)
{
    for (unsigned seed = 1; seed < 1 + scaled(100u) && !HasFailure(); seed++)
        for (merge_kind kind : all_merges)
            fail_each_allocation(seed, kind, {.most_children = 6, .depth = 3});
}

TEST(Merges, KeepWhatWasChangedBeforeAnAllocationFailedInWideTrees)
{
    for (unsigned seed = 1000; seed < 1003 && !HasFailure(); seed++)
        for (merge_kind kind : all_merges)
            fail_each_allocation(seed, kind,
                                 {.most_children = scaled(100) < 100 ? size_t{15} : size_t{45}, .depth = 1});
}

// ---- Directed
// ----------------------------------------------------------------------------------------------

// "p7"
std::string numbered(const char *prefix, size_t number)
{
    return std::string(prefix).append(std::to_string(number));
}

class two_trees : public testing::Test
{
  protected:
    two_trees()
    {
        clparse_init_head(&target);
        clparse_init_head(&source);
    }
    ~two_trees() override
    {
        clparse_stop(target);
        clparse_stop(source);
    }
    clparse_node *add(clparse_head *head, clparse_node *node)
    {
        clparse_append_child(&head->root, node);
        return node;
    }
    std::string text(clparse_head *head)
    {
        char *json = clparse_get_json(head);
        const std::string copy = json ? json : "(null)";
        qv_free(json);
        return copy;
    }
    std::string tags()
    {
        std::string all;
        for (clparse_node *n = target->root.value.children->next; n != target->root.value.children;
             n = n->next)
            all += (n->tag ? std::string(n->tag) : "-") + " ";
        return all;
    }

    clparse_head *target = nullptr, *source = nullptr;
};

class Merging : public two_trees
{
};

TEST_F(Merging, ByUpdateStopsAtTheFirstUnknownTagAndKeepsWhatCameBefore)
{
    add(target, clparse_create_number_node("a", 1));
    add(target, clparse_create_number_node("b", 2));
    add(source, clparse_create_number_node("a", 10));
    add(source, clparse_create_number_node("x", 30));
    add(source, clparse_create_number_node("b", 20));
    EXPECT_EQ(clparse_update(target, source), -1);
    EXPECT_EQ(text(target), "\"a\":10,\"b\":2");
}

TEST_F(Merging, BySelectWithAnEmptyTargetChangesNothing)
{
    add(source, clparse_create_number_node("a", 10));
    EXPECT_EQ(clparse_select(target, source), 0);
    EXPECT_EQ(tags(), "");
}

TEST_F(Merging, ByInsertAppendsAFullCopyOfAMissingStruct)
{
    add(target, clparse_create_number_node("a", 1));
    clparse_node *s = add(source, clparse_create_struct_node("s"));
    clparse_append_new_string_child("v", "t", s);
    clparse_append_new_number_child(UINT64_MAX, "n", clparse_append_new_array(nullptr, "l", s));
    EXPECT_EQ(clparse_insert(target, source), 0);
    EXPECT_EQ(text(target), "\"a\":1,\"s\":{\"t\":\"v\",\"l\":[18446744073709551615]}");
    EXPECT_NE(target->root.value.children->prev, s);
    EXPECT_EQ(target->root.value.children->prev->parent, &target->root);
}

TEST_F(Merging, ByInsertSortOrdersByTheNumberAfterTheLetter)
{
    for (const char *tag : {"p12", "p1", "p3"})
        add(source, clparse_create_number_node(tag, 0));
    EXPECT_EQ(clparse_insert_sort(target, source), 0);
    EXPECT_EQ(tags(), "p1 p3 p12 ");
}

TEST_F(Merging, ByInsertSortSortsTheChildrenOfACopyOneLevelDeep)
{
    clparse_node *s = add(source, clparse_create_struct_node("s1"));
    for (const char *tag : {"p2", "p1"}) {
        clparse_node *inner = clparse_append_new_struct(tag, s);
        clparse_append_new_number_child(0, "q2", inner);
        clparse_append_new_number_child(0, "q1", inner);
    }
    EXPECT_EQ(clparse_insert_sort(target, source), 0);
    EXPECT_EQ(text(target), "\"s1\":{\"p1\":{\"q2\":0,\"q1\":0},\"p2\":{\"q2\":0,\"q1\":0}}");
}

TEST_F(Merging, ByInsertSortReversesTagsThatBeginWithDigits)
{
    for (const char *tag : {"1", "2", "3"})
        add(source, clparse_create_number_node(tag, 0));
    EXPECT_EQ(clparse_insert_sort(target, source), 0);
    EXPECT_EQ(tags(), "3 1 2 "); // each insertion turns what was there round
}

TEST_F(Merging, ByInsertSortTakesHugeNumbersAndShortTags)
{
    for (const char *tag :
         {"p99999999999999999999", "", "x", "p-99999999999999999999", "99999999999999999999"})
        add(source, clparse_create_number_node(tag, 0));
    clparse_node *untagged = add(source, clparse_create_number_node("u", 0));
    clparse_set_node_tag(untagged, nullptr);
    EXPECT_EQ(clparse_insert_sort(target, source), 0);
    const std::string all = tags();
    EXPECT_EQ(std::count(all.begin(), all.end(), ' '), 6);
}

TEST_F(Merging, WithANullHeadFails)
{
    for (merge_kind kind : all_merges) {
        EXPECT_EQ(merge_library(nullptr, source, kind), -1);
        EXPECT_EQ(merge_library(target, nullptr, kind), -1);
        EXPECT_EQ(merge_library(nullptr, nullptr, kind), -1);
    }
}

TEST_F(Merging, ByInsertAppendsUntaggedElementsEachTime)
{
    for (clparse_head *head : {target, source})
        clparse_set_node_tag(add(head, clparse_create_number_node("x", 1)), nullptr);
    EXPECT_EQ(clparse_update(target, source), -1);
    EXPECT_EQ(clparse_select(target, source), 0);
    EXPECT_EQ(tags(), "- ");
    EXPECT_EQ(clparse_insert(target, source), 0);
    EXPECT_EQ(tags(), "- - ");
}

class SearchingATree : public two_trees
{
};

int never_found(clparse_node *, clparse_node *)
{
    return -1;
}

TEST_F(SearchingATree, FailsWithoutFoundActionOrChildrenList)
{
    clparse_node *number = add(target, clparse_create_number_node("n", 1));
    clparse_node hand_made = {};
    hand_made.type = CLPARSE_TYPE_STRUCT;
    EXPECT_EQ(clparse_search_tree(&target->root, &source->root, nullptr, nullptr), -1);
    EXPECT_EQ(clparse_search_tree(number, &source->root, never_found, nullptr), -1);
    EXPECT_EQ(clparse_search_tree(&hand_made, &source->root, never_found, nullptr), -1);
    EXPECT_EQ(clparse_search_tree(nullptr, &source->root, never_found, nullptr), -1);
    EXPECT_EQ(clparse_search_tree(&target->root, nullptr, never_found, nullptr), -1);
    EXPECT_EQ(clparse_search_tree(&target->root, number, never_found, nullptr), -1);
}

TEST_F(SearchingATree, SetsEfaultForABrokenTargetList)
{
    add(target, clparse_create_number_node("a", 1));
    clparse_node *b = add(target, clparse_create_number_node("b", 2));
    add(source, clparse_create_number_node("a", 5));
    add(source, clparse_create_number_node("x", 5));
    clparse_node *end = b->next;
    b->next = nullptr;
    errno = 0;
    EXPECT_EQ(clparse_select(target, source), -1);
    EXPECT_EQ(errno, EFAULT);
    b->next = end;
    EXPECT_EQ(text(target), "\"a\":5,\"b\":2");
}

TEST_F(SearchingATree, SetsEfaultForABrokenSourceList)
{
    add(target, clparse_create_number_node("a", 1));
    add(target, clparse_create_number_node("b", 2));
    clparse_node *a = add(source, clparse_create_number_node("a", 5));
    add(source, clparse_create_number_node("b", 5));
    clparse_node *after = a->next;
    a->next = nullptr;
    errno = 0;
    EXPECT_EQ(clparse_select(target, source), -1);
    EXPECT_EQ(errno, EFAULT);
    a->next = after;
    EXPECT_EQ(text(target), "\"a\":5,\"b\":2");
}

// What a function node of the source expands to, and a node of the target that goes when it is released.
struct removal {
    clparse_node *expansion, *victim;
};

clparse_node *give_expansion(clparse_node *, void *priv)
{
    return static_cast<removal *>(priv)->expansion;
}

int remove_victim(clparse_node *, void *priv)
{
    return clparse_remove_child(static_cast<removal *>(priv)->victim);
}

TEST_F(SearchingATree, FindsNoChildThatAReleasedFunctionRemoved)
{
    std::vector<clparse_node *> children;
    for (size_t i = 0; i < 200; i++)
        children.push_back(add(target, clparse_create_number_node(numbered("p", i).c_str(), 1)));
    removal what = {clparse_create_number_node("x", 2), children[150]};
    add(source, clparse_create_function_node("x", give_expansion, nullptr, remove_victim, &what));
    add(source, clparse_create_number_node("p150", 5));
    EXPECT_EQ(clparse_insert(target, source), 0);
    EXPECT_EQ(what.victim->value.num, 1u);
    const clparse_node *last = target->root.value.children->prev;
    EXPECT_STREQ(last->tag, "p150");
    EXPECT_EQ(last->value.num, 5u);
    EXPECT_STREQ(last->prev->tag, "x");
    clparse_delete_node(what.expansion);
    clparse_delete_node(what.victim);
}

TEST_F(SearchingATree, SetsEfaultForABrokenWideTargetList)
{
    for (int i = 0; i < 200; i++)
        add(target, clparse_create_number_node(numbered("p", static_cast<size_t>(i)).c_str(), 1));
    for (int i = 0; i < 4; i++)
        add(source, clparse_create_number_node(numbered("p", static_cast<size_t>(60 + i)).c_str(), 5));
    add(source, clparse_create_number_node("p170", 5));
    clparse_node *last = target->root.value.children->prev->prev;
    clparse_node *after_last = last->next;
    last->next = nullptr;
    errno = 0;
    EXPECT_EQ(clparse_select(target, source), 0); // nothing walks so far
    add(source, clparse_create_number_node("p199", 5));
    EXPECT_EQ(clparse_select(target, source), -1);
    EXPECT_EQ(errno, EFAULT);
    last->next = after_last;
}

std::vector<std::pair<clparse_node *, clparse_node *>> pairs;

int note_pair(clparse_node *target, clparse_node *source)
{
    pairs.emplace_back(target, source);
    return -1;
}

int note_missing(clparse_node *container, clparse_node *source)
{
    pairs.emplace_back(container, source);
    return 0;
}

TEST_F(SearchingATree, GivesTheActionsTheNodesThemselves)
{
    clparse_node *a = add(target, clparse_create_number_node("a", 1));
    clparse_node *s = add(target, clparse_create_struct_node("s"));
    clparse_node *inner = clparse_append_new_number_child(1, "i", s);
    clparse_node *x = add(source, clparse_create_number_node("x", 1));
    clparse_node *s2 = add(source, clparse_create_array_node("s"));
    clparse_node *j = clparse_append_new_number_child(1, "j", s2);
    pairs.clear();
    EXPECT_EQ(clparse_search_tree(&target->root, &source->root, note_pair, note_missing), 0);
    const decltype(pairs) expected = {{a, x}, {s, x}, {&target->root, x}, {a, s2}, {inner, j}, {s, j}};
    EXPECT_EQ(pairs, expected);
}

int unlink_own_node(clparse_node *node, clparse_node *, void *)
{
    return clparse_remove_child(node);
}

// The result of the last comparison is kept when a later source node meets an empty list.
TEST_F(SearchingATree, InheritsTheResultWhenTheTargetHasBecomeEmpty)
{
    clparse_node *function =
        add(target, clparse_create_function_node("f", nullptr, unlink_own_node, nullptr, nullptr));
    add(source, clparse_create_number_node("a", 1));
    add(source, clparse_create_number_node("b", 1));
    EXPECT_EQ(clparse_insert(target, source), 0);
    EXPECT_EQ(tags(), "");
    clparse_delete_node(function);
}

int move_to_target(clparse_node *container, clparse_node *source)
{
    clparse_remove_child(source);
    return clparse_append_child(container, source);
}

TEST_F(SearchingATree, LetsTheNotFoundActionMoveTheSourceNode)
{
    add(target, clparse_create_number_node("a", 1));
    for (const char *tag : {"b", "a", "c"})
        add(source, clparse_create_number_node(tag, 7));
    EXPECT_EQ(clparse_search_tree(&target->root, &source->root, clparse_dfl_found_action, move_to_target), 0);
    EXPECT_EQ(text(target), "\"a\":7,\"b\":7,\"c\":7");
    EXPECT_EQ(text(source), "\"a\":7");
}

int delete_first(clparse_node *container, clparse_node *)
{
    clparse_delete_node(clparse_get_child(container));
    return 0;
}

TEST_F(SearchingATree, LetsTheNotFoundActionDeleteChildrenOfAWideTarget)
{
    for (int i = 0; i < 200; i++)
        add(target, clparse_create_number_node(numbered("p", static_cast<size_t>(i)).c_str(), 1));
    for (int i = 199; i >= 0; i--) {
        add(source, clparse_create_number_node(numbered("x", static_cast<size_t>(i)).c_str(), 5));
        add(source, clparse_create_number_node(numbered("p", static_cast<size_t>(i)).c_str(), 5));
    }
    EXPECT_EQ(clparse_search_tree(&target->root, &source->root, clparse_dfl_found_action, delete_first), 0);
    EXPECT_EQ(tags(), "");
}

class DefaultFoundAction : public two_trees
{
};

TEST_F(DefaultFoundAction, LeavesContainersAndOtherTagsAlone)
{
    clparse_node *a = add(target, clparse_create_number_node("a", 1));
    EXPECT_EQ(clparse_dfl_found_action(a, add(source, clparse_create_number_node("b", 2))), -1);
    EXPECT_EQ(clparse_dfl_found_action(a, add(source, clparse_create_struct_node("a"))), -1);
    EXPECT_EQ(clparse_dfl_found_action(a, add(source, clparse_create_array_node("a"))), -1);
    EXPECT_EQ(clparse_dfl_found_action(a, nullptr), -1);
    EXPECT_EQ(clparse_dfl_found_action(nullptr, a), -1);
    EXPECT_EQ(clparse_get_node_value_n(a), 1u);
}

TEST_F(DefaultFoundAction, GivesTheTargetTypeAndValueOfTheSource)
{
    clparse_node *const values[] = {
        add(source, clparse_create_number_node("a", UINT64_C(0x123456789abcdef0))),
        add(source, clparse_create_boolean_node("a", 0xfe)),
        add(source, clparse_create_string_node("a", "text")),
        add(source, clparse_create_null_node("a")),
        add(source, clparse_create_string_node("a", "other")),
        add(source, clparse_create_number_node("a", 3))};
    clparse_node *a = add(target, clparse_create_string_node("a", "old"));
    for (clparse_node *value : values) {
        EXPECT_EQ(clparse_dfl_found_action(a, value), 0);
        EXPECT_EQ(render(a), render(value));
    }
    EXPECT_NE(values[2]->value.str, nullptr);
}

TEST_F(DefaultFoundAction, CopiesAStringOfItsOwn)
{
    clparse_node *a = add(target, clparse_create_string_node("a", "old"));
    clparse_node *b = add(source, clparse_create_string_node("a", "new"));
    EXPECT_EQ(clparse_dfl_found_action(a, b), 0);
    EXPECT_STREQ(a->value.str, "new");
    EXPECT_NE(a->value.str, b->value.str);
    EXPECT_EQ(clparse_dfl_found_action(a, a), 0);
    EXPECT_STREQ(a->value.str, "new");
}

TEST_F(DefaultFoundAction, GivesAStringWithoutTextWhenTheCopyFails)
{
    clparse_node *a = add(target, clparse_create_string_node("a", "old"));
    clparse_node *b = add(source, clparse_create_string_node("a", "new"));
    failing_alloc::after failure(0);
    EXPECT_EQ(clparse_dfl_found_action(a, b), 0);
    EXPECT_EQ(a->type, CLPARSE_TYPE_STRING);
    EXPECT_EQ(a->value.str, nullptr);
}

clparse_node *expand_nothing(clparse_node *, void *)
{
    return nullptr;
}

TEST_F(DefaultFoundAction, MakesAFunctionNodeWithoutCallbacks)
{
    clparse_node *a = add(target, clparse_create_number_node("a", 5));
    clparse_node *f = add(source, clparse_create_function_node("a", expand_nothing, nullptr, nullptr, &a));
    EXPECT_EQ(clparse_dfl_found_action(a, f), 0);
    EXPECT_EQ(a->type, CLPARSE_TYPE_FUNCTION);
    EXPECT_EQ(a->value.func.expand, nullptr);
    EXPECT_EQ(a->value.func.apply, nullptr);
    EXPECT_EQ(a->value.func.release, nullptr);
    EXPECT_EQ(a->value.func.priv, nullptr);
}

TEST_F(DefaultFoundAction, KeepsTheCallbacksOfATargetThatIsAFunctionNode)
{
    clparse_node *a = add(target, clparse_create_function_node("a", expand_nothing, nullptr, nullptr, this));
    clparse_node *f = add(source, clparse_create_function_node("a", nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(clparse_dfl_found_action(a, f), 0);
    EXPECT_EQ(a->value.func.expand, expand_nothing);
    EXPECT_EQ(a->value.func.priv, this);
}

// As under the memory debugger, whose blocks begin four bytes behind the allocator's.
using MergesOfTags = two_trees;

TEST_F(MergesOfTags, FindThemWhereverTheyBegin)
{
    constexpr size_t members = 30;
    std::deque<std::string> moved;
    std::vector<char *> owned;
    for (clparse_head *head : {target, source})
        for (size_t i = 0; i < members; i++) {
            const std::string tag = numbered("a_tag_of_words_", head == target ? i : members - 1 - i);
            clparse_node *node = add(head, clparse_create_number_node(tag.c_str(), head == target ? 0 : i));
            owned.push_back(std::exchange(node->tag, moved.emplace_back("." + tag).data() + 1));
        }
    EXPECT_EQ(clparse_update(target, source), 0);
    const auto *next = owned.data();
    for (clparse_head *head : {target, source}) {
        size_t i = 0;
        for (clparse_node *n = head->root.value.children->next; n != head->root.value.children;
             n = n->next, i++) {
            EXPECT_EQ(clparse_get_node_value_n(n), head == target ? members - 1 - i : i);
            n->tag = *next++;
        }
        EXPECT_EQ(i, members);
    }
}

class SortedInsertions : public two_trees
{
  protected:
    // Merges more members than are sorted on the stack, with a failure after so many allocations. Returns the
    // target's text, or nothing when the merge failed.
    std::string merged(int successes)
    {
        for (size_t i = 0; i < 100; i++)
            add(i % 2 ? target : source, clparse_create_number_node(numbered("p", i * 37 % 100).c_str(), i));
        int result;
        {
            failing_alloc::after failure(successes);
            result = clparse_insert_sort(target, source);
        }
        return result == 0 ? text(target) : "";
    }
};

TEST_F(SortedInsertions, NeedNoMemoryForTheSort)
{
    const std::string sorted = merged(-1);
    failing_alloc::live_blocks blocks; // what merges leave that failed
    int without_memory = 0;
    for (int successes = 0;; successes++) {
        clparse_head *const owned[] = {target, source};
        clparse_init_head(&target);
        clparse_init_head(&source);
        const std::string text = merged(successes);
        clparse_stop(target);
        clparse_stop(source);
        target = owned[0];
        source = owned[1];
        EXPECT_EQ(text.empty() ? sorted : text, sorted);
        if (!failing_alloc::failed)
            break;
        without_memory += !text.empty();
    }
    EXPECT_GT(without_memory, 0);
}

class LargeMerges : public two_trees
{
  protected:
    static constexpr unsigned members = 100000;

    void fill(const char *prefix, unsigned from)
    {
        for (unsigned i = 0; i < members; i++) {
            const std::string tag = numbered(prefix, i);
            add(target, clparse_create_number_node(tag.c_str(), i));
        }
        for (unsigned i = members; i-- > 0;) {
            const std::string tag = numbered(prefix, from + i);
            add(source, clparse_create_number_node(tag.c_str(), i + 5));
        }
    }
    size_t count()
    {
        size_t children = 0;
        for (clparse_node *n = target->root.value.children->next; n != target->root.value.children;
             n = n->next)
            children++;
        return children;
    }
};

TEST_F(LargeMerges, ByUpdateAreQuick)
{
    fill("p", 0);
    EXPECT_EQ(clparse_update(target, source), 0);
    EXPECT_EQ(clparse_get_node_value_n(target->root.value.children->prev), members + 4);
}

TEST_F(LargeMerges, BySelectAreQuick)
{
    fill("p", members);
    EXPECT_EQ(clparse_select(target, source), 0);
    EXPECT_EQ(count(), members);
}

TEST_F(LargeMerges, ByInsertAreQuick)
{
    fill("p", members);
    EXPECT_EQ(clparse_insert(target, source), 0);
    EXPECT_EQ(count(), 2 * members);
}

TEST_F(LargeMerges, ByInsertSortAreQuick)
{
    fill("p", members);
    EXPECT_EQ(clparse_insert_sort(target, source), 0);
    unsigned at = 0;
    for (clparse_node *n = target->root.value.children->next; n != target->root.value.children;
         n = n->next, at++)
        ASSERT_EQ(n->tag, numbered("p", at));
    EXPECT_EQ(at, 2 * members);
}

TEST_F(LargeMerges, ByInsertSortAreQuickWhenATagOccursTwice)
{
    add(target, clparse_create_number_node("d", 1));
    add(target, clparse_create_struct_node("d"));
    fill("p", members);
    add(source, clparse_create_number_node("d", 2));
    EXPECT_EQ(clparse_insert_sort(target, source), 0);
    EXPECT_EQ(count(), 2 * members + 2);
}

TEST_F(LargeMerges, ByInsertSortOfTagsThatBeginWithDigitsAreQuick)
{
    fill("", members);
    EXPECT_EQ(clparse_insert_sort(target, source), 0);
    EXPECT_EQ(count(), 2 * members);
}

} // namespace
