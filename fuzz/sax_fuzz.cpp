// The XML reader beside its model, over documents that libFuzzer makes:
//
//   scripts/fuzz 60 sax
//
// An input is a document. Its bytes' sum decides how it arrives, which callbacks there are, and which
// allocation fails.

#include <qvlib/sax.h>

#include "failing_alloc.h"
#include "fuzz_input.h"
#include "models/xml_model.h"
#include "xml_stream.h"

#include <cstdint>
#include <numeric>
#include <string_view>

namespace
{

using fuzz::require;
using xml_model::outcome;
using xml_model::wanted;
using xml_stream::manner;

void compare(std::string_view document, wanted callbacks, manner how)
{
    failing_alloc::live_blocks account;
    const outcome expected = xml_model::read(document, callbacks);
    const outcome got = xml_stream::read(document, callbacks, how);
    require(got.events == expected.events, "other events than the model's");
    require(got.result == expected.result, "another result than the model's");
    require(got.read == expected.read, "the stream stands elsewhere than the model's");
    require(account.count() == expected.unfinished_attributes,
            "other blocks than those of an unfinished tag");
}

// Everything but the failure must have been as in the model.
void fail_an_allocation(std::string_view document, unsigned successes)
{
    const outcome expected = xml_model::read(document);
    failing_alloc::live_blocks account;
    const xml_stream::memory_stream bytes(document);
    const failing_alloc::after failure(static_cast<int>(successes));
    outcome got = xml_stream::read(bytes.stream);
    if (!failing_alloc::failed) {
        require(got.events == expected.events, "other events than the model's, without a failure");
        return;
    }
    require(got.result == -1 && !got.events.empty(), "a failed allocation did not fail the reader");
    require(got.events.back().starts_with("error Cannot allocate memory @"),
            "the failure was not the last event");
    got.events.pop_back();
    require(got.events.size() <= expected.events.size() &&
                std::equal(got.events.begin(), got.events.end(), expected.events.begin()),
            "other events than the model's before the failure");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string_view document(reinterpret_cast<const char *>(data), size);
    const unsigned sum = std::accumulate(data, data + size, static_cast<unsigned>(size));
    const bool all = sum % 4 != 0;
    compare(document,
            {all || (sum & 16) != 0, all || (sum & 32) != 0, all || (sum & 64) != 0, all || (sum & 128) != 0},
            {sum % 11 == 0 ? 1 + sum % 300 : 4096, sum % 5 == 0 ? sum % 64 : 4096});
    if (sum % 8 == 1)
        fail_an_allocation(document, sum / 8 % 8);
    return 0;
}
