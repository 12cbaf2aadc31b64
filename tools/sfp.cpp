// The library writes a report with the vendor's texts as they stand in the block. Here it is made of a block
// without them and read into a tree; the texts are set there, so that a quote in one of them can't break the
// report.
#include "sfp.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <new>
#include <qvlib/corelink.h>
#include <qvlib/memcheck.h>
#include <qvlib/sfp.h>
#include "document.h"
#include "failure.h"
#include "writers.h"

namespace qvl
{

namespace
{

struct vendor_text {
    const char *path; // of its value in the report
    std::size_t offset, length;
};

constexpr vendor_text vendor_texts[] = {
    {"sfp_data.0.Value", 20, 16},
    {"sfp_data.1.Value", 40, 16},
    {"sfp_data.2.Value", 68, 16},
    {"sfp_data.3.Value", 56, 4},
};

using report_tree = std::unique_ptr<clparse_head, stop_tree>;

report_tree make_report(const std::vector<unsigned char> &block)
{
    std::vector<unsigned char> codes(block.begin(), block.begin() + SFP_BLOCK_SIZE);
    for (const vendor_text &field : vendor_texts)
        std::fill_n(codes.begin() + static_cast<std::ptrdiff_t>(field.offset), field.length, '\0');
    char *text = nullptr;
    if (sfp_to_corelink(codes.data(), &text) != 0)
        throw std::bad_alloc();
    report_tree tree(clparse_start(text));
    qv_memcheck_free(qv_free, text, "qvl");
    if (tree == nullptr)
        throw std::bad_alloc();
    for (const vendor_text &field : vendor_texts) {
        const auto *bytes = reinterpret_cast<const char *>(block.data() + field.offset);
        const std::string value(bytes, strnlen(bytes, field.length));
        clparse_node *node = clparse_get_node(tree.get(), field.path);
        if (node == nullptr || clparse_set_node_value_s(node, value.c_str()) != 0 ||
            node->value.str == nullptr)
            throw std::bad_alloc();
    }
    return tree;
}

std::string string_at(clparse_head *tree, const std::string &path)
{
    const clparse_node *node = clparse_get_node(tree, path.c_str());
    const char *value = node != nullptr ? clparse_get_node_value_s(node) : nullptr;
    return value != nullptr ? value : "";
}

// One value a line, without the spaces that fill the vendor's fields.
std::string to_table(clparse_head *tree)
{
    std::string table;
    for (int i = 0;; i++) {
        const std::string record = "sfp_data." + std::to_string(i);
        std::string name = string_at(tree, record + ".Name");
        if (name.empty())
            return table;
        std::string value = string_at(tree, record + ".Value");
        value.erase(value.find_last_not_of(' ') + 1);
        name.resize(20, ' ');
        // The vendor's texts may hold anything; the library's own fit a terminal.
        const bool foreign = i < static_cast<int>(std::size(vendor_texts));
        table += name + (value.empty() ? "-" : foreign ? shown(value) : value) + "\n";
    }
}

// An empty cage pulls its two wires up; a driver may hand out zeros.
bool is_empty_cage(const std::vector<unsigned char> &block)
{
    const unsigned char first = block[0];
    return (first == 0xff || first == 0) && std::all_of(block.begin(), block.begin() + SFP_BLOCK_SIZE,
                                                        [&](unsigned char c) { return c == first; });
}

} // namespace

std::string describe_sfp(const std::string &name, const std::vector<unsigned char> &block, sfp_form form)
{
    if (block.size() < SFP_BLOCK_SIZE)
        throw plain_failure(name + ": " + std::to_string(block.size()) +
                            " bytes; an identification block has at least " + std::to_string(SFP_BLOCK_SIZE));
    if (form == sfp_form::table && is_empty_cage(block))
        return "No transceiver: every byte is " + std::string(block[0] == 0 ? "00h" : "FFh") + "\n";
    const report_tree tree = make_report(block);
    switch (form) {
    case sfp_form::json:
        return to_json(clparse_get_head(tree.get()), layout::compact) + "\n";
    case sfp_form::table:
        return to_table(tree.get());
    default:
        return to_corelink(clparse_get_head(tree.get()), layout::compact) + "\n";
    }
}

} // namespace qvl
