// A corelink document of a file or of standard input: its tree, or a fault that says where the text goes
// wrong.
#ifndef QVL_DOCUMENT_H
#define QVL_DOCUMENT_H

#include <memory>
#include <string>
#include <qvlib/corelink.h>

namespace qvl
{

struct stop_tree {
    void operator()(clparse_head *head) const
    {
        clparse_stop(head);
    }
};

struct document {
    std::string name; // as messages call it
    std::unique_ptr<clparse_head, stop_tree> head;

    clparse_node *root() const
    {
        return clparse_get_head(head.get());
    }
};

// Reads and parses `path`, "-" for standard input. Throws failure.
document read_document(const std::string &path);

} // namespace qvl

#endif
