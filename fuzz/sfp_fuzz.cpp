// Identification blocks of transceivers: the report is read back, with the vendor's texts as they stand in
// the block.
//
//   scripts/fuzz 60 sfp

#include <qvlib/corelink.h>
#include <qvlib/memcheck.h>
#include <qvlib/sfp.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "failing_alloc.h"
#include "fuzz_input.h"

namespace
{

using fuzz::require;

struct field {
    const char *path;
    size_t offset, length;
};

constexpr field vendor_texts[] = {
    {"sfp_data.0.Value", 20, 16},
    {"sfp_data.1.Value", 40, 16},
    {"sfp_data.2.Value", 68, 16},
    {"sfp_data.3.Value", 56, 4},
};

std::string text_of(const std::vector<unsigned char> &block, const field &of)
{
    const auto *text = reinterpret_cast<const char *>(block.data() + of.offset);
    return {text, strnlen(text, of.length)};
}

bool has_plain_texts(const std::vector<unsigned char> &block)
{
    return std::all_of(std::begin(vendor_texts), std::end(vendor_texts), [&](const field &of) {
        return text_of(block, of).find_first_of("\"\\") == std::string::npos;
    });
}

void read_report(const char *report, const std::vector<unsigned char> &block)
{
    clparse_head *head = clparse_start(report);
    require(head != nullptr || !has_plain_texts(block), "a report can't be read");
    if (head == nullptr)
        return;
    if (has_plain_texts(block)) {
        for (const field &of : vendor_texts) {
            char *value = nullptr;
            require(clparse_get_string(head, &value, "%s", of.path) == 0, "a value is missing");
            require(value == text_of(block, of), "a value is another");
            qv_memcheck_free(qv_free, value, "sfp_fuzz");
        }
        require(clparse_get_type(head, "sfp_data.14.Value") == CLPARSE_TYPE_STRING, "a struct is missing");
        require(clparse_get_type(head, "sfp_data.15") == -1, "there is a sixteenth struct");
    }
    clparse_stop(head);
}

void decode_codes(unsigned char code, unsigned char other)
{
    for (const auto decode : {sfp_id, sfp_connector, sfp_fc_rscc, sfp_fc_gecc, sfp_fc_link_len, sfp_fc_trans,
                              sfp_fc_speed, sfp_encoding})
        require(decode(code) != nullptr, "a code has no text");
    require(sfp_fc_sonet(code, other) != nullptr && sfp_fc_tx(code, other) != nullptr, "a code has no text");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::vector<unsigned char> block(SFP_BLOCK_SIZE);
    std::copy_n(data, std::min(size, block.size()), block.begin());
    decode_codes(block[0], block[1]);
    failing_alloc::live_blocks account; // of a report that can't be read, some stay
    char *report = nullptr;
    require(sfp_to_corelink(block.data(), &report) == 0, "no report");
    read_report(report, block);
    if (has_plain_texts(block)) {
        qv_memcheck_free(qv_free, report, "sfp_fuzz");
        require(account.count() == 0, "blocks are left");
    }
    if (size > block.size()) {
        const failing_alloc::after failure(data[block.size()]);
        sfp_to_corelink(block.data(), &report);
    }
    return 0;
}
