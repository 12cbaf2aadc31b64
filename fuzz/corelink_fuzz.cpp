// The corelink reader beside its reference, and the writers beside their model:
//
//   scripts/fuzz 60 corelink
//
// An input is a text up to its first NUL. What was read is written in every form; what was written is read
// again, and is the same but for what a form is known to lose. The bytes' sum decides which allocation fails.

#include <qvlib/corelink.h>
#include <qvlib/memcheck.h>

#include <cstdint>
#include <cstring>
#include <numeric>
#include <string>

#include "failing_alloc.h"
#include "fuzz_input.h"
#include "reference/reference_reader.h"
#include "tree_model.h"

namespace
{

using fuzz::require;
using tree_model::form;

tree_model::node value_of(const reference::node &from)
{
    tree_model::node made{from.type, from.tag != nullptr, from.tag ? *from.tag : "", "", 0, {}};
    if (from.type == CLPARSE_TYPE_STRING)
        made.text = *from.text;
    if (from.type == CLPARSE_TYPE_NUMBER)
        made.number = from.number;
    if (from.type == CLPARSE_TYPE_BOOLEAN)
        made.number = from.boolean;
    for (const reference::node *child : from.children)
        made.children.push_back(value_of(*child));
    return made;
}

void require_text(char *text, const std::string &expected, const char *what)
{
    require(text != nullptr && text == expected, what);
    qv_memcheck_free(qv_free, text, "corelink_fuzz");
}

void write_all(clparse_head *head, const tree_model::node &tree)
{
    require_text(clparse_get_json(head), written(tree, form::json), "JSON text");
    char *text = nullptr;
    require(clparse_get_corelink(head, &text, 0) == 0, "corelink text could not be written");
    require_text(text, written(tree, form::corelink), "corelink text");
    require(clparse_get_corelink(head, &text, 1) == 0, "the list of paths could not be written");
    require_text(text, written(tree, form::paths), "list of paths");
    for (const int pretty : {0, 1})
        for (const char *name : {static_cast<const char *>(nullptr), "status"}) {
            require(clparse_get_xml(head, &text, pretty, name) == 0, "XML could not be written");
            require_text(text, tree_model::written_as_xml(tree, pretty, name), "XML text");
        }
}

// Reads a text as the reference does and holds the library to it. Returns whether it was a document.
bool read(const std::string &text, tree_model::node &tree)
{
    reference::document expected;
    const int result = reference::read(text.empty() ? " " : text.c_str(), expected);
    failing_alloc::live_blocks account;
    clparse_head *head = clparse_start(text.c_str());
    require((head != nullptr) == (result == 0), "another verdict than the reference's");
    if (head == nullptr) {
        // The root's tag too; of nothing at all nothing is made.
        const int kept = text.empty() ? 0 : 1 + expected.live_nodes + expected.live_texts;
        require(account.count() == static_cast<size_t>(kept), "other blocks than the reference keeps");
        return false;
    }
    tree = value_of(expected.root);
    require(tree_model::value_of(clparse_get_head(head)) == tree, "another tree than the reference's");
    write_all(head, tree);
    clparse_stop(head);
    require(account.count() == 0, "blocks are left after clparse_stop");
    return true;
}

void read_back(const tree_model::node &tree)
{
    tree_model::node again;
    const bool reads = read(written(tree, form::corelink), again);
    if (is_kept_by_corelink(tree) && depth_of(tree) < 3000)
        require(reads && again == tree, "corelink text is read back as another tree");
    const bool reads_paths = read(written(tree, form::paths), again);
    if (is_kept_by_paths(tree) && depth_of(tree) < 3000)
        require(reads_paths && again == tree, "a list of paths is read back as another tree");
}

void fail_an_allocation(const std::string &text, unsigned successes)
{
    failing_alloc::live_blocks account;
    const failing_alloc::after failure(static_cast<int>(successes));
    clparse_head *head = clparse_start(text.c_str());
    if (head == nullptr)
        return;
    char *written = clparse_get_json(head);
    if (written != nullptr)
        qv_memcheck_free(qv_free, written, "corelink_fuzz");
    for (const int paths : {0, 1})
        if (clparse_get_corelink(head, &written, paths) == 0)
            qv_memcheck_free(qv_free, written, "corelink_fuzz");
    if (clparse_get_xml(head, &written, 1, nullptr) == 0)
        qv_memcheck_free(qv_free, written, "corelink_fuzz");
    clparse_stop(head);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text = fuzz::input(data, size).text_up_to('\0');
    tree_model::node tree;
    if (read(text, tree))
        read_back(tree);
    const unsigned sum = std::accumulate(data, data + size, static_cast<unsigned>(size));
    if (sum % 4 == 0)
        fail_an_allocation(text, sum / 4 % 64);
    return 0;
}
