// Text helpers beside their models: lists in brackets, escaping, trimming, searching.
//
//   scripts/fuzz 60 text
//
// An input is a size, a text up to its first NUL, and elements and needles, each up to a NUL.

#include <qvlib/corelink.h>
#include <qvlib/memcheck.h>
#include <qvlib/strings.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <strings.h>
#include <vector>

#include "fuzz_input.h"
#include "tree_model.h"

namespace
{

using fuzz::require;

// A tracked copy of the exact size.
char *copy(const std::string &text)
{
    char *made = nullptr;
    require(qv_asprintf(&made, "%s", text.c_str()) == static_cast<int>(text.size()), "no copy");
    return made;
}

void take(char *text, const std::string &expected, const char *what)
{
    require(text != nullptr && text == expected, what);
    qv_memcheck_free(qv_free, text, "text_fuzz");
}

void escape(const std::string &text)
{
    char *escaped = copy(text);
    std::string expected = tree_model::with_escaped_quotes(text);
    require(replace_quotes(&escaped) == static_cast<int>(expected.size()), "replace_quotes' result");
    take(escaped, expected, "escaped quotes");
    for (const bool keeps_apostrophe : {false, true}) {
        escaped = copy(text);
        expected = tree_model::with_entities(text, !keeps_apostrophe);
        require(replace_xml_entities(&escaped, keeps_apostrophe) == static_cast<int>(expected.size()),
                "replace_xml_entities' result");
        take(escaped, expected, "XML entities");
    }
}

// ---- A list in brackets

// Returns whether the list can take an element; removes or replaces its "]" then.
bool opened(std::string &list)
{
    if (list.empty() || list.back() != ']')
        return false;
    list.pop_back();
    if (list.empty() || list.back() != '[')
        list += ',';
    return true;
}

void grow_list(std::string list, const std::vector<std::string> &elements)
{
    char *text = copy(list);
    for (const std::string &element : elements) {
        const bool opens = opened(list);
        if (opens)
            list += element + "]";
        require(cl_cat_array_element(&text, 0, "%s", element.c_str()) == (opens ? 0 : -1),
                "the result of adding an element");
    }
    take(text, list, "a list that grows");
}

void fill_list(std::string list, const std::vector<std::string> &elements, size_t size)
{
    if (list.size() >= size)
        return;
    std::vector<char> buffer(size);
    memcpy(buffer.data(), list.data(), list.size());
    for (const std::string &element : elements) {
        if (strnlen(buffer.data(), size) == size)
            return; // full to its last byte: no text any more
        const bool opens = opened(list), fits = list.size() + element.size() + 2 <= size;
        if (opens && fits)
            list += element + "]";
        char *text = buffer.data();
        const int result = cl_cat_array_element(&text, size, "%s", element.c_str());
        require(text == buffer.data() && result == (opens && fits ? 0 : -1), "the result in a fixed buffer");
        // What is left of a list that was too long is opened, and its "]" may still stand there.
        if (opens && !fits)
            return require(memcmp(text, list.data(), list.size()) == 0 || list.back() == '[',
                           "an opened list");
        require(std::string(text, strnlen(text, size)) == list, "a list in a fixed buffer");
    }
}

// ---- Trimming and searching

void trim(const std::string &text)
{
    const auto is_plain = [](char c) { return (c & 0x80) == 0 && isalnum(static_cast<unsigned char>(c)); };
    size_t first = 0, last = text.size();
    while (first < last && !is_plain(text[first]))
        first++;
    while (last > first && !is_plain(text[last - 1]))
        last--;
    std::vector<char> buffer(text.c_str(), text.c_str() + text.size() + 1);
    require(trim_alnum(buffer.data()) == text.substr(first, last - first), "a trimmed text");
}

void search(const std::string &bytes, const std::string &needle)
{
    const std::unique_ptr<char[]> buffer(new char[bytes.size()]); // of the exact size, and never NULL
    std::copy(bytes.begin(), bytes.end(), buffer.get());
    errno = 0;
    const ssize_t found = qv_memstr(buffer.get(), bytes.size(), needle.c_str());
    const size_t expected = bytes.find(needle);
    require(found == (expected == bytes.npos ? -1 : static_cast<ssize_t>(expected)), "a match");
    require(found != -1 || errno == ENOENT, "errno without a match");
}

bool means_true(const std::string &text)
{
    return text == "1" || strcasecmp(text.c_str(), "true") == 0 || strcasecmp(text.c_str(), "yes") == 0 ||
           strcasecmp(text.c_str(), "y") == 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::input in(data, size);
    const std::string all(reinterpret_cast<const char *>(data), size);
    const size_t room = in.byte();
    const std::string text = in.text_up_to('\0');
    std::vector<std::string> elements;
    while (!in.is_empty() && elements.size() < 20)
        elements.push_back(in.text_up_to('\0'));
    escape(text);
    grow_list(text, elements);
    fill_list(text, elements, room);
    trim(text);
    require(str2bool(text.c_str()) == means_true(text), "a truth value");
    search(all, text);
    for (const std::string &needle : elements)
        search(text, needle);
    return 0;
}
