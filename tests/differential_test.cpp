// What the library and qvl write, before a JSON reader that knows nothing of them: jansson. Random documents
// of corelink text go through `qvl json`, random trees through clparse_get_json; each must come out as the
// tree of the model. A line at each test's end tells how many were compared.

#include <qvlib/corelink.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <jansson.h>

#include "machine.h"
#include "models/document_model.h"
#include "models/document_reader.h"
#include "models/document_tree.h"

#include <gtest/gtest.h>

namespace
{

using namespace document_model;

// jansson has signed numbers of 64 bits; a document with greater ones is read with all numbers as reals.
bool has_great_number(const value &node)
{
    if (node.type == CLPARSE_TYPE_NUMBER && node.number > INT64_MAX)
        return true;
    for (const value &child : node.children)
        if (has_great_number(child))
            return true;
    return false;
}

// Bytes that are no UTF-8, of which the random documents have one, are written as U+FFFD.
std::string as_utf8(std::string text)
{
    for (size_t at = 0; (at = text.find('\xff', at)) != std::string::npos;)
        text.replace(at, 1, "\xef\xbf\xbd");
    return text;
}

// Of members of the same name jansson keeps the last value, at the first one's place.
std::vector<const value *> members_kept(const value &node)
{
    std::vector<const value *> kept;
    for (const value &child : node.children) {
        auto same = kept.begin();
        while (same != kept.end() && (*same)->tag != child.tag)
            ++same;
        if (same == kept.end())
            kept.push_back(&child);
        else
            *same = &child;
    }
    return kept;
}

bool is_same(const json_t *json, const value &node);

bool is_same_object(const json_t *json, const value &node)
{
    auto *object = const_cast<json_t *>(json);
    void *member = json_object_iter(object);
    for (const value *expected : members_kept(node)) {
        if (!member || *expected->tag != json_object_iter_key(member) ||
            !is_same(json_object_iter_value(member), *expected))
            return false;
        member = json_object_iter_next(object, member);
    }
    return json_is_object(json) && !member;
}

bool is_same_array(const json_t *json, const value &node)
{
    size_t at = 0;
    for (const value &expected : node.children)
        if (!is_same(json_array_get(json, at++), expected))
            return false;
    return json_is_array(json) && json_array_size(json) == at;
}

bool is_same(const json_t *json, const value &node)
{
    switch (node.type) {
    case CLPARSE_TYPE_STRING:
        return json_is_string(json) && as_utf8(node.text) == json_string_value(json);
    case CLPARSE_TYPE_NUMBER:
        if (json_is_real(json))
            return json_real_value(json) == static_cast<double>(node.number);
        return json_is_integer(json) && static_cast<uint64_t>(json_integer_value(json)) == node.number;
    case CLPARSE_TYPE_BOOLEAN:
        return node.boolean ? json_is_true(json) : json_is_false(json);
    case CLPARSE_TYPE_STRUCT:
        return is_same_object(json, node);
    case CLPARSE_TYPE_ARRAY:
        return is_same_array(json, node);
    default:
        return json_is_null(json);
    }
}

size_t flags_for(const value &root)
{
    return has_great_number(root) ? JSON_DECODE_INT_AS_REAL : 0;
}

// What `qvl json` makes of a document.
std::string written_by_qvl(const std::string &text)
{
    char input[] = "/tmp/qvlib_differential_XXXXXX";
    const int fd = mkstemp(input);
    EXPECT_NE(fd, -1);
    FILE *file = fdopen(fd, "w");
    EXPECT_EQ(fwrite(text.data(), 1, text.size(), file), text.size());
    fclose(file);
    FILE *tool = popen((std::string(QVL " json <") + input).c_str(), "r");
    std::string json;
    char part[4096];
    for (size_t count; (count = fread(part, 1, sizeof part, tool)) > 0;)
        json.append(part, count);
    EXPECT_EQ(pclose(tool), 0);
    remove(input);
    return json;
}

// Documents side by side as members of one, since each run of the tool costs more than the work.
class batch
{
  public:
    void add(const std::string &members)
    {
        text_ += (text_.empty() ? "d" : ",d") + std::to_string(count_++) + "={" + members + "}";
        if (count_ == 100)
            compare();
    }

    void compare()
    {
        if (text_.empty())
            return;
        const std::optional<value> expected = model_reader(text_).read();
        ASSERT_TRUE(expected);
        json_error_t error;
        json_t *json = json_loads(written_by_qvl(text_).c_str(), flags_for(*expected), &error);
        EXPECT_NE(json, nullptr) << error.text;
        for (const value &document : expected->children) {
            compared++;
            if (!is_same(json_object_get(json, document.tag->c_str()), document)) {
                differences++;
                ADD_FAILURE() << text_of(document, false);
            }
        }
        json_decref(json);
        text_.clear();
        count_ = 0;
    }

    int compared = 0, differences = 0;

  private:
    std::string text_;
    int count_ = 0;
};

TEST(Differential, QvlJsonIsReadByJanssonAsTheSameTree)
{
    generator random(11);
    int compared = 0, differences = 0;
    batch plain, great;
    for (int i = 0; i < scaled(10000) && !HasFailure(); i++) {
        const std::string members = random.space() + random.members(3) + random.space();
        const std::optional<value> document = model_reader(members).read();
        if (document) // else a dotted member goes below a plain value
            (has_great_number(*document) ? great : plain).add(members);
    }
    for (batch *each : {&plain, &great}) {
        each->compare();
        EXPECT_GT(each->compared, scaled(1000));
        compared += each->compared;
        differences += each->differences;
    }
    printf("differential: %d corelink texts through qvl json, read by jansson: %d differences\n", compared,
           differences);
}

TEST(Differential, JsonOfTreesIsReadByJanssonAsTheSameTree)
{
    generator random(12);
    int compared = 0, differences = 0;
    for (int i = 0; i < scaled(5000) && !HasFailure(); i++) {
        const value root = random.tree(4, true);
        const std::string text = "{" + take_text(clparse_get_json(to_tree(root).get())) + "}";
        json_error_t error;
        json_t *json = json_loads(text.c_str(), flags_for(root), &error);
        EXPECT_NE(json, nullptr) << error.text;
        compared++;
        if (!is_same(json, root)) {
            differences++;
            ADD_FAILURE() << text;
        }
        json_decref(json);
    }
    printf("differential: %d trees through clparse_get_json, read by jansson: %d differences\n", compared,
           differences);
}

} // namespace
