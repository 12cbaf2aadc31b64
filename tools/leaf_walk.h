// The leaves that an SNMP agent's get-next visits, with their paths.
#ifndef QVL_LEAF_WALK_H
#define QVL_LEAF_WALK_H

#include <string>
#include "document.h"

namespace qvl
{

// One PATH=VALUE a line, without "=" for a null, from `from` to the end of the member of the document that it
// is in; through the whole document when `from` is its root. Linear in the nodes and in the text that is
// returned. Throws failure at a leaf that another member hides: no path leads to it.
std::string list_leaves(const document &read, const clparse_node *from);

} // namespace qvl

#endif
