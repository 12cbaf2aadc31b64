// The loads that stay within the process: texts, XML documents, containers.

#include "soak.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <vector>

#include <qvlib/corelink.h>
#include <qvlib/memcheck.h>
#include <qvlib/queue.h>
#include <qvlib/sax.h>
#include <qvlib/tree.h>

#include "models/document_model.h"

namespace soak
{

namespace
{

using document_model::value;

// ---- Texts

std::string taken(char *text)
{
    const std::string copy = text ? text : "(null)";
    if (text)
        qv_memcheck_free(qv_free, text, "soak");
    return copy;
}

std::string corelink_of(clparse_head *head)
{
    char *text = nullptr;
    return clparse_get_corelink(head, &text, 0) == 0 ? taken(text) : "(failed)";
}

// Tags are unique within a container, and elements have values, so that every text reads back and every path
// means one node.
void make_unambiguous(value &node)
{
    if (node.type == CLPARSE_TYPE_ARRAY)
        node.children.remove_if([](const value &child) { return child.type == CLPARSE_TYPE_NULL; });
    int count = 0;
    for (value &child : node.children) {
        if (child.tag)
            *child.tag += "_" + std::to_string(count++);
        make_unambiguous(child);
    }
}

bool is_equal(const clparse_node *node, const value &expected)
{
    if (node->type != expected.type || (node->tag != nullptr) != expected.tag.has_value() ||
        (node->tag && *expected.tag != node->tag))
        return false;
    if (node->type == CLPARSE_TYPE_STRING)
        return expected.text == node->value.str;
    if (node->type == CLPARSE_TYPE_NUMBER)
        return expected.number == node->value.num;
    if (node->type == CLPARSE_TYPE_BOOLEAN)
        return expected.boolean == (node->value.boolean != 0);
    if (!expected.is_container())
        return true;
    const clparse_node *child = node->value.children->next;
    for (const value &next : expected.children) {
        if (child == node->value.children || !is_equal(child, next))
            return false;
        child = child->next;
    }
    return child == node->value.children;
}

// The first number that a path leads to, and the path.
value *find_number(value &node, std::string &path)
{
    for (value &child : node.children) {
        const std::string here = path.empty() ? *child.tag : path + "." + *child.tag;
        if (child.type == CLPARSE_TYPE_NUMBER) {
            path = here;
            return &child;
        }
        std::string below_here = here;
        value *found = child.type == CLPARSE_TYPE_STRUCT ? find_number(child, below_here) : nullptr;
        if (found) {
            path = below_here;
            return found;
        }
    }
    return nullptr;
}

void check_change(clparse_head *head, value &expected, uint64_t number)
{
    std::string path;
    value *leaf = find_number(expected, path);
    if (!leaf)
        return;
    leaf->number = number;
    clparse_head *change = clparse_start((path + " = " + std::to_string(number)).c_str());
    texts.add(change && clparse_update(head, change) == 0, "update", path);
    clparse_stop(change);
    uint64_t seen = 0;
    texts.add(clparse_get_number(head, &seen, "%s", path.c_str()) == 0 && seen == number, "query", path);
    texts.add(corelink_of(head) == text_of(expected, false), "text after an update", path);
}

void check_text(random_source &random)
{
    document_model::generator documents_of(static_cast<unsigned>(random()));
    value expected = documents_of.tree(4, true);
    make_unambiguous(expected);
    if (expected.children.empty())
        return;
    const std::string text = text_of(expected, false);
    clparse_head *head = clparse_start(text.c_str());
    texts.add(head && is_equal(clparse_get_head(head), expected), "tree", text);
    if (!head)
        return;
    texts.add(corelink_of(head) == text, "corelink text", text);
    texts.add(taken(clparse_get_json(head)) == text_of(expected, true), "JSON", text);
    check_change(head, expected, random() % 100000);
    clparse_stop(head);
}

// ---- XML

std::string word(random_source &random)
{
    std::string text;
    for (unsigned more = 1 + below(random, 12); more > 0; more--)
        text += static_cast<char>('a' + below(random, 26));
    return text;
}

// An element, and what the reader tells of it.
void append_element(random_source &random, int depth, std::string &xml, std::string &events)
{
    const std::string name = word(random);
    xml += "<" + name;
    std::string attributes;
    for (unsigned more = below(random, 3); more > 0; more--) {
        const std::string attribute = word(random), contents = word(random);
        xml.append(" ").append(attribute).append("=\"").append(contents).append("\"");
        attributes = " " + attribute + "=" + contents + attributes; // they come last first
    }
    xml += ">";
    events += "(" + name + attributes;
    for (unsigned more = depth > 0 ? below(random, 4) : 0; more > 0; more--)
        append_element(random, depth - 1, xml, events);
    const std::string text = word(random);
    xml.append(text).append("</").append(name).append(">");
    events += "'" + text + ")" + name;
}

std::string &heard(void *cookie)
{
    return *static_cast<std::string *>(cookie);
}

void hear_start(void *context, const sax_attribute *attributes, void *cookie)
{
    heard(cookie).append("(").append(static_cast<const char *>(context));
    for (; attributes; attributes = attributes->next)
        heard(cookie).append(" ").append(attributes->name).append("=").append(attributes->value);
}

void hear_end(void *context, void *cookie)
{
    heard(cookie).append(")").append(static_cast<const char *>(context));
}

void hear_text(const char *text, size_t length, void *cookie)
{
    heard(cookie).append("'").append(text, length);
}

void hear_error(const char *message, void *cookie)
{
    heard(cookie).append("!").append(message);
}

void check_document(random_source &random)
{
    std::string xml, expected, events;
    append_element(random, 4, xml, expected);
    sax_callbacks callbacks = {};
    callbacks.start = hear_start;
    callbacks.end = hear_end;
    callbacks.characters = hear_text;
    callbacks.error = hear_error;
    FILE *stream = fmemopen(xml.data(), xml.size(), "r");
    const int result = stream ? sax_parse_file(stream, &callbacks, &events) : -1;
    if (stream)
        fclose(stream);
    documents.add(result == 0 && events == expected, "events", xml);
}

// ---- Containers

using item_map = std::map<uint64_t, void *>;

bool has_the_items(tree_node *head, const item_map &expected)
{
    if (count_nodes(head) != static_cast<int>(expected.size()))
        return false;
    for (const auto &[key, item] : expected)
        if (search_tree(head, key) != item)
            return false;
    return true;
}

using insert_fn = tree_node *(*)(tree_node *, uint64_t, void *);
using delete_fn = tree_node *(*)(tree_node *, uint64_t);

void check_tree(random_source &random, insert_fn insert, delete_fn remove, const char *name)
{
    static int items[64];
    tree_node *head = nullptr;
    item_map expected;
    for (int steps = 0; steps < 300; steps++) {
        const uint64_t key = random() % 97 * 0x100000001;
        if (below(random, 3) != 0) {
            int *item = &items[below(random, 64)];
            head = insert(head, key, item);
            expected.emplace(key, item);
        } else if (expected.erase(key) > 0) {
            head = remove(head, key);
        }
    }
    containers.add(has_the_items(head, expected), name);
    for (const auto &[key, item] : expected)
        head = remove(head, key);
    containers.add(head == nullptr, "empty tree", name);
}

struct numbered {
    unsigned int key;
};

int has_key(void *item, unsigned int key, unsigned int, ...)
{
    return static_cast<numbered *>(item)->key == key;
}

int always_remove(void *, void *)
{
    return Q_DELETE_REMOVE;
}

// Removes the items with the key that the argument points to.
int is_meant(void *item, void *arg)
{
    return static_cast<numbered *>(item)->key == *static_cast<unsigned int *>(arg);
}

void check_queue(random_source &random)
{
    constexpr unsigned int slots = 8, keys = 32;
    std::vector<numbered> items(keys);
    for (unsigned int key = 0; key < keys; key++)
        items[key].key = key;
    q_queue *q = q_init(slots, 1, has_key, always_remove, nullptr, nullptr);
    std::vector<numbered *> slot(slots);
    std::vector<numbered *> list;
    bool right = q != nullptr;
    for (int steps = 0; right && steps < 200; steps++) {
        numbered *item = &items[below(random, keys)];
        if (item->key < slots && !slot[item->key]) {
            slot[item->key] = item;
            right = q_add_queue(q, item, item->key, nullptr) != nullptr;
        } else if (below(random, 2) == 0) {
            list.push_back(item);
            right = q_add_list(q, item, 0, nullptr) != nullptr;
        } else if (const auto at = std::find(list.begin(), list.end(), item); at != list.end()) {
            list.erase(at);
            q_delete_list(q, 0, is_meant, &item->key, nullptr);
        }
        const bool is_there =
            (item->key < slots && slot[item->key]) || std::find(list.begin(), list.end(), item) != list.end();
        right = right && (q_refer(q, item->key, 0) == item) == is_there &&
                q_listcount(q, 0) == static_cast<unsigned int>(list.size());
    }
    containers.add(right, "queue");
    if (q)
        q_exit(q, nullptr);
}

} // namespace

void run_texts(gate &gate, uint64_t seed)
{
    random_source random(seed);
    while (gate.pass())
        check_text(random);
}

void run_documents(gate &gate, uint64_t seed)
{
    random_source random(seed);
    while (gate.pass())
        check_document(random);
}

void run_containers(gate &gate, uint64_t seed)
{
    random_source random(seed);
    while (gate.pass()) {
        check_tree(random, avl_create_node, avl_delete_node, "AVL tree");
        check_tree(random, rb_create_node, rb_delete_node, "red-black tree");
        check_queue(random);
    }
}

} // namespace soak
