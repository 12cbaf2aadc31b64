/*
 * Corelink: the tree of typed nodes, its reader, queries, merges and writers.
 *
 * A document is a tree of clparse_node records under the root of a clparse_head. It is read from text by
 * clparse_start or built from clparse_init_head and the create and append functions, and released whole by
 * clparse_stop. docs/corelink.md describes the language, docs/behaviours.md what may surprise a caller.
 *
 * head    the tree
 * node    the node
 * tag     NUL-terminated; copied
 * parent  a struct or an array
 *
 * Ownership: a node owns copies of its tag and string value, its child sentinel and all its children. Texts
 * that functions return are tracked allocations: release them with qv_memcheck_free(qv_free, text, where).
 * Errors: a NULL node where one is needed, a wrong type and a failed allocation give the ordinary failure
 * result (-1 or NULL); errno is set only where a function says so. Nothing is logged unless it says so.
 * Threads: a tree has no lock. Its caller has exclusive use of the nodes during every call; different trees
 * may be used from different threads. Callbacks of function nodes run on the calling thread.
 *
 * Depth: no function recurses over the levels of a tree; any depth is read, copied, written and freed on a
 * small stack. Only function nodes that expand into further function nodes nest calls.
 */
#ifndef QVLIB_CORELINK_H
#define QVLIB_CORELINK_H

#include <stddef.h>
#include <stdint.h>
#include <qvlib/compiler.h>

QV_BEGIN_DECLS

/* Types of nodes. */
enum {
    CLPARSE_TYPE_NULL = 0,    /* no value */
    CLPARSE_TYPE_STRING = 1,  /* a text */
    CLPARSE_TYPE_NUMBER = 2,  /* 64 bits */
    CLPARSE_TYPE_BOOLEAN = 3, /* 0 or 1 */
    CLPARSE_TYPE_STRUCT = 4,  /* a container of nodes with tags */
    CLPARSE_TYPE_ARRAY = 5,   /* a container of nodes without tags */
    CLPARSE_TYPE_FUNCTION = 6 /* stands for what its callbacks say */
};

/* A node. */
typedef struct clparse_node clparse_node;

/* A tree. */
typedef struct clparse_head clparse_head;

/*
 * The callbacks of a function node. expand returns the node that stands for the function node at that moment,
 * or NULL; apply lets the function node take an incoming node itself; release, non-zero for failure, is
 * called when the expansion is no longer used (without it the expansion is deleted). Each may be NULL.
 */
typedef clparse_node *(*clparse_expand_fn)(clparse_node *node, void *priv);
typedef int (*clparse_apply_fn)(clparse_node *node, clparse_node *source, void *priv);
typedef int (*clparse_release_fn)(clparse_node *node, void *priv);

/* A node. Its fields may be read; the functions below change them. */
struct clparse_node {
    clparse_node *next, *prev;       /* siblings, a ring with the parent's sentinel; itself when detached */
    char *tag;                       /* NULL for array elements that were read from text */
    int32_t type;                    /* CLPARSE_TYPE_* */
    union {
        char *str;                   /* string; may be NULL */
        uint64_t num;                /* number */
        unsigned char boolean;       /* boolean, 0 or 1 */
        clparse_node *children;      /* struct, array: a sentinel, of which only next and prev are used */
        struct {
            clparse_expand_fn expand;   /* gives what stands for the node; may be NULL */
            clparse_apply_fn apply;     /* takes an incoming node; may be NULL */
            clparse_release_fn release; /* ends the use of an expansion; may be NULL */
            void *priv;                 /* handed to the callbacks */
        } func;                      /* function */
    } value;                         /* by type */
    clparse_node *parent;            /* the container; NULL for a root and for a node never appended */
};

/* A tree: its root, and what reads it. */
struct clparse_head {
    void *scanner;                   /* used by clparse_start only */
    clparse_node root;               /* tag "head", a struct */
    clparse_node *cursor;            /* used while reading; NULL otherwise */
};

/* ---- Reading text ------------------------------------------------------------------------------------ */

/*
 * Reads corelink text into a tree. Linear in the length of the text.
 *
 * text  NUL-terminated, at most INT_MAX - 2 bytes; not changed and not kept. NULL and "" give NULL silently.
 *
 * Returns the head, or NULL after logging "clparse_start: parsing failed: N" at level 3 with N = 1 for a
 * syntax error and 2 when the text nests too deeply (about 9,990 arrays, 3,330 structs or 4,990 dotted
 * prefixes) or memory ran out. The position of an error is not reported; see qvlib/scanner.h.
 * Ownership: release the head with clparse_stop. A failed parse leaves what it had built so far allocated,
 * the head record apart.
 */
clparse_head *clparse_start(const char *text);

/* ---- Heads ------------------------------------------------------------------------------------------- */

/*
 * Makes an empty tree.
 *
 * head  takes the tree, NULL on failure
 *
 * Returns 0, or -1.
 * Ownership: release the head with clparse_stop.
 */
int clparse_init_head(clparse_head **head);

/*
 * Returns the root node of a head, NULL for NULL.
 * Ownership: the root is the head's.
 */
clparse_node *clparse_get_head(clparse_head *head);

/* Frees a whole tree and its head, children before parents. NULL is allowed. */
void clparse_stop(clparse_head *head);

/* ---- Creating nodes ---------------------------------------------------------------------------------- */

/*
 * Creates a detached node.
 *
 * value                   the value; a string is copied
 * expand, apply, release  the callbacks of a function node; each may be NULL
 * priv                    handed to the callbacks
 *
 * Returns the node, or NULL when the tag (or a string's value) is NULL or memory is short.
 * Ownership: the caller owns the node until it is appended; release it with clparse_delete_node.
 */
clparse_node *clparse_create_null_node(const char *tag);
clparse_node *clparse_create_string_node(const char *tag, const char *value);
clparse_node *clparse_create_number_node(const char *tag, uint64_t value);
clparse_node *clparse_create_boolean_node(const char *tag, int value); /* the low byte of value is stored */
clparse_node *clparse_create_struct_node(const char *tag);
clparse_node *clparse_create_array_node(const char *tag);
clparse_node *clparse_create_function_node(const char *tag, clparse_expand_fn expand, clparse_apply_fn apply,
                                           clparse_release_fn release, void *priv);

/*
 * Finds the first child of `parent` that carries `tag`, whatever its type and unchanged, or creates and
 * appends one. The lookup walks the children; the order of arguments differs from function to function.
 *
 * head   not used; may be NULL
 * value  of a node that is created; a string is copied
 *
 * Returns the child, or NULL after a log line at level 3 when it can't be created or appended.
 * Ownership: the child is the parent's.
 */
clparse_node *clparse_append_new_struct(const char *tag, clparse_node *parent);
clparse_node *clparse_append_new_array(clparse_head *head, const char *tag, clparse_node *parent);
clparse_node *clparse_append_new_number_child(uint64_t value, const char *tag, clparse_node *parent);
clparse_node *clparse_append_new_string_child(const char *value, const char *tag, clparse_node *parent);

/* ---- Linking nodes ----------------------------------------------------------------------------------- */

/*
 * Links a detached node as the last child of a container.
 *
 * child  the node
 *
 * Returns 0, or -1 with errno EINVAL (an argument is NULL) or ENOTDIR (parent is no struct or array).
 * Ownership: the container owns the child from then on.
 */
int clparse_append_child(clparse_node *parent, clparse_node *child);

/*
 * Unlinks a node from its siblings; its parent field stays.
 *
 * Returns 0, or -1 with errno EINVAL for NULL.
 * Ownership: the node is the caller's from then on.
 */
int clparse_remove_child(clparse_node *node);

/*
 * Replaces `old_node` by the detached node `new_node` and deletes old_node with its subtree, in spite of the
 * name.
 *
 * new_node  a detached node
 * old_node  a child of a container
 *
 * Returns 0, or -1 when either is NULL.
 * Ownership: new_node is the container's from then on.
 */
int clparse_add_child_after(clparse_node *new_node, clparse_node *old_node);

/*
 * Detaches the first child of a container.
 *
 * container  a struct or an array
 *
 * Returns the child, or NULL when there is none or no container.
 * Ownership: the child is the caller's from then on.
 */
clparse_node *clparse_get_child(clparse_node *container);

/* Returns the parent field; NULL for NULL, for a root and for a node that was never appended. */
clparse_node *clparse_get_parent(const clparse_node *node);

/* Unlinks and frees a node with all it owns. Returns 0, or -1 for NULL. */
int clparse_delete_node(clparse_node *node);

/*
 * Frees `node` if it is empty (a zero value, or a container without children), then its parent if that became
 * empty, and so on; the root stays. The sentinel of a container that is freed here stays allocated.
 *
 * head  the tree; its root is never freed. May be NULL.
 *
 * Returns 0, or -1 for a NULL node.
 */
int clparse_drop(clparse_head *head, clparse_node *node);

/* ---- Reading and changing a node --------------------------------------------------------------------- */

/* Returns the type code, -1 for NULL. */
int clparse_get_node_type(const clparse_node *node);

/*
 * Returns the node's tag, which may be NULL; for a NULL node NULL, after an assertion in the log at level 3.
 * Ownership: the tag is the node's own, good until it is changed or freed.
 */
const char *clparse_get_node_tag(const clparse_node *node);

/*
 * Stores a copy of a tag.
 *
 * tag  NUL-terminated; NULL stores NULL
 *
 * Returns 0, also when the copy failed and NULL was stored; -1 for a NULL node.
 */
int clparse_set_node_tag(clparse_node *node, const char *tag);

/*
 * Returns the node's string, which may be NULL, or NULL when it is no string node.
 * Ownership: the string is the node's own, good until it is changed or freed.
 */
const char *clparse_get_node_value_s(const clparse_node *node);

/*
 * Stores a copy of a string.
 *
 * value  NUL-terminated; NULL stores NULL
 *
 * Returns 0, also when the copy failed and NULL was stored; -1 when the node is no string node.
 */
int clparse_set_node_value_s(clparse_node *node, const char *value);

/* Returns the 64-bit value, or all bits set when the node is no number node. */
uint64_t clparse_get_node_value_n(const clparse_node *node);

/*
 * Stores a number of 32 bits; larger ones can be given at creation only.
 *
 * value  sign-extended to 64 bits
 *
 * Returns 0, or -1 when the node is no number node.
 */
int clparse_set_node_value_n(clparse_node *node, int32_t value);

/* Returns the boolean byte, or 0 when the node is no boolean node. */
unsigned char clparse_get_node_value_b(const clparse_node *node);

/*
 * Stores a boolean.
 *
 * value  its low byte is stored
 *
 * Returns 0, or -1 when the node is no boolean node.
 */
int clparse_set_node_value_b(clparse_node *node, int value);

/*
 * Returns a function node's priv; for a NULL node NULL, after an assertion in the log at level 3.
 *
 * node  a function node; the type is not checked
 *
 * Ownership: as the host that made the node has it.
 */
void *clparse_get_func_priv(const clparse_node *node);

/* ---- Path queries ------------------------------------------------------------------------------------ */

/*
 * A path is a list of segments separated by "."; a segment that begins with a digit selects a child by its
 * zero-based position, in structs too, any other one by its tag. The first child that matches a middle
 * segment decides. A middle function node is expanded; an expansion in which the rest was found is not
 * released.
 *
 * path  NUL-terminated
 * cmp   compares a segment with a child's tag, 0 for a match; not called for children without a tag
 *
 * Ownership: nodes and tags that are found stay the tree's.
 */

/*
 * Finds a node below a container.
 *
 * container  where the path begins
 * type       CLPARSE_TYPE_* that the node must have, or -1 for any; nodes of other types with the last
 *            segment's tag are passed over
 *
 * Returns the node, or NULL.
 */
clparse_node *clparse_get_tagtype(clparse_node *container, const char *path, int type,
                                  int (*cmp)(const char *segment, const char *tag));

/*
 * Finds a node of any type below the root of a head.
 *
 * Returns the node, or NULL.
 */
clparse_node *__clparse_get_node(clparse_head *head, const char *path,
                                 int (*cmp)(const char *segment, const char *tag));
#define clparse_get_node(head, path) __clparse_get_node((head), (path), verify_tag)

/*
 * The comparison of tags: strcmp(segment, tag).
 *
 * segment, tag  NUL-terminated
 *
 * Returns 0 when they are equal, else a number whose sign is the order's; -1 when one is NULL.
 */
int verify_tag(const char *segment, const char *tag);

/*
 * Reads a value, or a tag, by a path that is given as a printf format.
 *
 * out  takes the value; untouched on failure, but clparse_get_string sets it to NULL then. With a NULL out
 *      clparse_get_string tells whether the string is there, and the others fail.
 * fmt  printf format of the path, "port.%u.speed"
 * ...  what the format asks for
 *
 * Returns 0, or -1 when there is no such node of that type or memory is short.
 * Ownership: the string is a copy that the caller releases with qv_memcheck_free; the tag is the node's own.
 */
int clparse_get_bool(clparse_head *head, unsigned char *out, const char *fmt, ...) QV_PRINTF(3, 4);
int clparse_get_string(clparse_head *head, char **out, const char *fmt, ...) QV_PRINTF(3, 4);
int clparse_get_number(clparse_head *head, uint64_t *out, const char *fmt, ...) QV_PRINTF(3, 4);
int clparse_get_tag(clparse_head *head, const char **out, const char *fmt, ...) QV_PRINTF(3, 4);

/*
 * Returns the type code of the node at a formatted path, or -1.
 *
 * fmt  printf format of the path, "port.%u.speed"
 * ...  what the format asks for
 */
int clparse_get_type(clparse_head *head, const char *fmt, ...) QV_PRINTF(2, 3);

/* ---- Merging trees ----------------------------------------------------------------------------------- */

/*
 * target  a node of the tree that is changed, or the tree
 * source  a node of the tree that is merged in, or the tree; unchanged but for expansions
 *
 * Ownership: copies are made; the source stays the caller's.
 */

/*
 * A found action returns -1 when it did not take the source node; a not-found action -1 to abort the merge.
 */
typedef int (*clparse_found_fn)(clparse_node *target, clparse_node *source);
typedef int (*clparse_not_found_fn)(clparse_node *target_container, clparse_node *source);

/*
 * Merges the children of a source container into a target container, in the source's order.
 *
 * found      called for each target child until it takes the source node, whatever the tags; pairs of
 *            containers with equal tags are merged in the same way instead
 * not_found  called when no target child took the source node; may be NULL
 *
 * Returns 0, or -1 when the target has no children list, found is NULL, an expansion or its release failed or
 * not_found said -1; errno is EFAULT for a broken list. Changes made before a failure stay.
 * Cost: with clparse_dfl_found_action and without a not-found action, linear in the number of children; with
 * other actions, each source child may walk the target's children.
 */
int clparse_search_tree(clparse_node *target, clparse_node *source, clparse_found_fn found,
                        clparse_not_found_fn not_found);

/*
 * The found action of the merges: when the tags are equal and the source is no container, the target takes
 * the source's type and a copy of its value. A container that is overwritten so loses its children, which
 * stay allocated.
 *
 * Returns 0 when the target took it, else -1.
 */
int clparse_dfl_found_action(clparse_node *target, clparse_node *source);

/*
 * Merges a whole tree into another. The four differ in what becomes of a source node that the target lacks:
 * update stops with -1, select ignores it, insert appends a deep copy, insert_sort also sorts the children of
 * the container, and those of a copied container, by the numbers in their tags.
 *
 * Returns 0, or -1 for a NULL head and as clparse_search_tree. Changes made before a failure stay.
 */
int clparse_update(clparse_head *target, clparse_head *source);
int clparse_select(clparse_head *target, clparse_head *source);
int clparse_insert(clparse_head *target, clparse_head *source);
int clparse_insert_sort(clparse_head *target, clparse_head *source);

/* ---- Writing trees ----------------------------------------------------------------------------------- */

/*
 * The writers expand function nodes and write the expansion under the function node's tag, except for XML,
 * which writes them as null. Numbers are written unsigned. Each is linear in the length of the text.
 *
 * out  takes the text, NULL on failure
 */

/*
 * Writes a tree as JSON members without the outer braces: "a":1,"b":{"c":"x"}. Quotes are escaped,
 * backslashes and control characters are not.
 *
 * Returns the text, or NULL: head is NULL, or memory is short.
 */
char *clparse_get_json(clparse_head *head);

/*
 * Writes a tree as corelink text or as one path and value per leaf.
 *
 * paths  0 for corelink text, a=1,b={c="x"}; else paths, a=1,b.c="x"
 *
 * Returns 0, or -1: an argument is NULL, or memory is short.
 */
int clparse_get_corelink(clparse_head *head, char **out, int paths);

/*
 * Writes a tree as XML.
 *
 * pretty     non-zero indents by tabs, one element a line
 * root_name  name of the root element; NULL gives "corelink" and the XML prolog
 *
 * Returns 0, or -1: head or out is NULL, or memory is short.
 */
int clparse_get_xml(clparse_head *head, char **out, int pretty, const char *root_name);

/*
 * Writes the dotted path of a node: tags, and positions in arrays, from the root's child down.
 *
 * Returns the path as a new text, or NULL when memory is short or the first node of the path has no tag.
 */
char *clparse_build_path(const clparse_node *node);

/*
 * Lists "PATH.TAG" for each child of the container at `path`, separated by commas, or the tag of any other
 * node.
 *
 * path  as for clparse_get_tagtype
 *
 * Prints the path to the memory debugger's console.
 *
 * Returns a new text, empty when there is no such node, or NULL when memory is short.
 */
char *clparse_get_path(clparse_head *head, const char *path);

/*
 * Appends one formatted element to a text that ends with a bracketed list: "[5]" becomes "[5,6]".
 *
 * buf   the text; grown in place when size is 0 (a tracked allocation then)
 * size  0, or the bytes of a fixed buffer that is zero beyond its text
 * fmt   printf format of the element
 * ...   what the format asks for
 *
 * Returns 0, or -1: the text does not end with "]" (unchanged), or the fixed buffer is too small (the list is
 * left open: its "]" is already gone). With size 0 a failure to grow is not reported, and *buf is NULL.
 * Ownership: the text stays the caller's.
 */
int cl_cat_array_element(char **buf, size_t size, const char *fmt, ...) QV_PRINTF(3, 4);

/* ---- SNMP editing ------------------------------------------------------------------------------------ */

/*
 * For an SNMP agent that keeps its managed objects in a tree. The first character of a tag is the agent's own
 * mark; check_tag_snmp, clparse_select_snmp and build_path_next_leaf do not compare it. All need exclusive
 * use of the tree.
 *
 * expand, apply, release  the callbacks of a function node; each may be NULL
 * priv                    handed to the callbacks
 * value                   NUL-terminated; copied
 */

/*
 * Puts an empty struct in the place of a node, which is destroyed with its subtree; on failure it is
 * untouched. O(1) and the size of what is destroyed.
 *
 * Returns the new node, or NULL.
 * Errors: failures are logged at level 3: tag is NULL or memory is short ("failed to create ..."), or node is
 * NULL ("failed to change ...").
 */
clparse_node *make_struct_node(clparse_node *node, const char *tag);

/*
 * Puts a string in the place of a node, as make_struct_node.
 *
 * Returns 0, or -1 after a log line as make_struct_node; for a NULL value too.
 */
int make_string_node(clparse_node *node, const char *tag, const char *value);

/*
 * Puts a function node in the place of a node, as make_struct_node.
 *
 * node  its tag, which it must have, is the new node's
 *
 * Returns 0, or -1 after a log line as make_struct_node.
 */
int make_function_node(clparse_node *node, clparse_expand_fn expand, clparse_apply_fn apply,
                       clparse_release_fn release, void *priv);

/*
 * Sets a node's parent without linking it. An expand callback calls it on the node that it hands out, with
 * the parent of the function node, so that build_path_next_leaf and clparse_build_path can climb from it.
 * O(1).
 *
 * node    NULL does nothing
 * parent  stored as it is
 */
void clparse_snmp_edit_fn_node(clparse_node *node, clparse_node *parent);

/*
 * Returns strcmp of two tags behind their first characters.
 *
 * a, b  NUL-terminated; a NULL or empty tag counts as one of one character
 */
int check_tag_snmp(const char *a, const char *b);

/*
 * Merges a source tree into the values that a target tree names: as clparse_select, but leaves match without
 * regard to the first character of their tags, and take the source's tag. Containers match by whole tags.
 *
 * target  its leaves name what is wanted
 * source  where the values come from; unchanged but for expansions
 *
 * Returns 0, or -1 for a NULL head and as clparse_search_tree.
 */
int clparse_select_snmp(clparse_head *target, clparse_head *source);

/*
 * Steps to the next leaf in document order. Function nodes on the way are expanded, and the expansion is not
 * released: it belongs to the function node's owner, as what clparse_get_tagtype finds in it. An expansion
 * must have its parent set (see clparse_snmp_edit_fn_node) and, to be left again, the function node's tag.
 *
 * node  a leaf, or a container or function node to begin with the first leaf in it
 *
 * The walk ends where it would climb to the root: children of the root are not visited, nor is a subtree of
 * the root left for the next one. Children of one container must differ in their tags behind the first
 * character: those that do not are passed over together when one of them is left. Elements without a tag are
 * told apart.
 *
 * Cost: the number of nodes passed over: for each container that is left, up to the number of its siblings.
 *
 * Returns the leaf's path, as clparse_build_path, or NULL at the end, for a node whose parent is the root or
 * NULL, when an expansion fails and when memory is short.
 */
char *build_path_next_leaf(clparse_node *node);

QV_END_DECLS

#endif
