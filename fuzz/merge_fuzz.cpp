// The merges beside their model, plain loops over plain values:
//
//   scripts/fuzz 60 merge
//
// An input is two texts, the target and the source, each up to a NUL. Every merge is tried.

#include <qvlib/corelink.h>
#include <qvlib/memcheck.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "failing_alloc.h"
#include "fuzz_input.h"
#include "tree_model.h"

namespace
{

using fuzz::require;
using tree_model::node;

enum class merge { update, select, insert, insert_sort, select_snmp };

// ---- The model

bool begins_with_digit(const node &of)
{
    return of.is_tagged && of.tag[0] >= '0' && of.tag[0] <= '9';
}

long number_in_tag(const node &of)
{
    if (!of.is_tagged || of.tag.empty())
        return 0;
    const long number = strtol(of.tag.c_str() + (begins_with_digit(of) ? 0 : 1), nullptr, 10);
    return std::clamp<long>(number, INT32_MIN, INT32_MAX);
}

long compare_for_sorting(const node &a, const node &b)
{
    return begins_with_digit(b) ? -number_in_tag(b) : number_in_tag(b) - number_in_tag(a);
}

void sort_children(std::vector<node> &list)
{
    if (list.size() < 2)
        return;
    const auto middle = list.begin() + static_cast<ptrdiff_t>(list.size() / 2);
    std::vector<node> first(list.begin(), middle), second(middle, list.end());
    sort_children(first);
    sort_children(second);
    list.clear();
    size_t a = 0, b = 0;
    while (a < first.size() && b < second.size())
        list.push_back(compare_for_sorting(first[a], second[b]) > 0 ? first[a++] : second[b++]);
    list.insert(list.end(), first.begin() + static_cast<ptrdiff_t>(a), first.end());
    list.insert(list.end(), second.begin() + static_cast<ptrdiff_t>(b), second.end());
}

// Node, tag, and a string or a sentinel with all children.
size_t blocks_of(const node &of)
{
    size_t blocks = 1 + size_t{of.is_tagged} + (of.type == CLPARSE_TYPE_STRING || of.is_container());
    for (const node &child : of.children)
        blocks += blocks_of(child);
    return blocks;
}

class model
{
  public:
    explicit model(merge kind) : kind_(kind)
    {
    }

    int search(node &target, const node &source)
    {
        int result = -1;
        for (const node &s : source.children) {
            for (node &t : target.children) {
                const bool descends = same_tags(t, s) && t.is_container() && s.is_container();
                result = descends ? search(t, s) : found(t, s);
                if (descends && result == -1)
                    return -1;
                if (result != -1)
                    break;
            }
            if (result == -1 && not_found(target, s) == -1)
                return -1;
        }
        return 0;
    }

    size_t lost_blocks = 0; // of containers that were overwritten

  private:
    static bool same_tags(const node &a, const node &b)
    {
        return a.is_tagged && b.is_tagged && a.tag == b.tag;
    }

    static bool are_marked_alike(const node &a, const node &b)
    {
        return a.is_tagged && b.is_tagged && a.tag.substr(1) == b.tag.substr(1); // read tags are not empty
    }

    int found(node &target, const node &source)
    {
        if (kind_ == merge::select_snmp && are_marked_alike(target, source))
            target.tag = source.tag;
        if (!same_tags(target, source) || source.is_container())
            return -1;
        if (target.is_container())
            lost_blocks += blocks_of(target) - 1 - target.is_tagged;
        target.children.clear();
        target.type = source.type;
        target.text = source.text;
        target.number = source.number;
        return 0;
    }

    int not_found(node &container, const node &source) const
    {
        if (kind_ == merge::update)
            return -1;
        if (kind_ == merge::select || kind_ == merge::select_snmp)
            return 0;
        container.children.push_back(source);
        if (kind_ == merge::insert_sort) {
            sort_children(container.children.back().children);
            sort_children(container.children);
        }
        return 0;
    }

    const merge kind_;
};

// ---- The library

int merged(clparse_head *target, clparse_head *source, merge kind)
{
    switch (kind) {
    case merge::update:
        return clparse_update(target, source);
    case merge::select:
        return clparse_select(target, source);
    case merge::insert:
        return clparse_insert(target, source);
    case merge::insert_sort:
        return clparse_insert_sort(target, source);
    default:
        return clparse_select_snmp(target, source);
    }
}

struct stop_tree {
    void operator()(clparse_head *head) const
    {
        clparse_stop(head);
    }
};
using tree = std::unique_ptr<clparse_head, stop_tree>;

// Nothing at all makes an empty tree.
tree read(const std::string &text)
{
    clparse_head *head = nullptr;
    if (text.empty())
        require(clparse_init_head(&head) == 0, "an empty tree could not be made");
    else
        head = clparse_start(text.c_str());
    return tree(head);
}

// Returns whether both texts are documents.
bool compare(const std::string &target_text, const std::string &source_text, merge kind)
{
    failing_alloc::live_blocks account; // of a text that is refused, some stay
    tree target = read(target_text), source = read(source_text);
    if (!target || !source)
        return false;
    node expected = tree_model::value_of(clparse_get_head(target.get()));
    const node given = tree_model::value_of(clparse_get_head(source.get()));
    model of(kind);
    const int result = of.search(expected, given);
    require(merged(target.get(), source.get(), kind) == result, "another result than the model's");
    require(tree_model::value_of(clparse_get_head(target.get())) == expected,
            "another tree than the model's");
    require(tree_model::value_of(clparse_get_head(source.get())) == given, "the source was changed");
    target.reset();
    source.reset();
    require(account.count() == of.lost_blocks, "other blocks than those of overwritten containers are left");
    return true;
}

void fail_an_allocation(const std::string &target_text, const std::string &source_text, merge kind,
                        unsigned successes)
{
    failing_alloc::live_blocks account;
    const tree target = read(target_text), source = read(source_text);
    const failing_alloc::after failure(static_cast<int>(successes));
    merged(target.get(), source.get(), kind);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    const std::string target = in.text_up_to('\0'), source = in.text_up_to('\0');
    const unsigned successes = in.byte();
    for (const merge kind :
         {merge::update, merge::select, merge::insert, merge::insert_sort, merge::select_snmp}) {
        if (!compare(target, source, kind))
            return 0;
        if (successes > 0)
            fail_an_allocation(target, source, kind, successes - 1);
    }
    return 0;
}
