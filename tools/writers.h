// The tool's own writers, over any node: the texts that they give are read back by every reader of their
// form. None recurses over the levels of a tree.
#ifndef QVL_WRITERS_H
#define QVL_WRITERS_H

#include <string>
#include <string_view>
#include <qvlib/corelink.h>

namespace qvl
{

enum class layout { compact, pretty };

// Strict JSON (RFC 8259) in UTF-8: a root becomes an object; numbers are unsigned; a byte that is no UTF-8
// becomes U+FFFD.
std::string to_json(const clparse_node *node, layout lines);

// A JSON string, quotes and all, of any bytes.
std::string to_json_string(std::string_view bytes);

// Corelink text: a root becomes a member list. Quotes and backslashes are escaped. A named element of an
// array, as made by "a=[1], a.x=2", follows the array in that form. Throws failure for what the language
// can't name.
std::string to_corelink(const clparse_node *node, layout lines);

// One PATH=VALUE for each leaf and each empty container, separated by commas, by line feeds when pretty.
std::string to_paths(const clparse_node *root, layout lines);

// The library's XML writer copies every byte. Throws failure when a string holds what XML can't: control
// characters, bytes that are no UTF-8.
void check_xml_strings(const clparse_node *root);

// Finds a struct member without a name, which only a merge of an array into a struct makes; NULL if there is
// none.
const clparse_node *find_unnamed_member(const clparse_node *root);

const char *type_name(const clparse_node *node);

bool is_container(const clparse_node *node);

} // namespace qvl

#endif
