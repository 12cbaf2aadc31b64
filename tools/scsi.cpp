// Sense data after SPC-4: fixed format (response codes 70h, 71h) and descriptor format (72h, 73h). Fields
// behind the end that the additional length gives are not there, whatever bytes follow.
#include "scsi.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <span>
#include <qvlib/scsi.h>
#include "failure.h"

namespace qvl
{

namespace
{

using bytes = std::span<const unsigned char>;

constexpr std::size_t shown_descriptors = 16; // what fits one screen

std::string hex(std::uint64_t value, int digits)
{
    char text[32];
    snprintf(text, sizeof(text), "%0*llXh", digits, static_cast<unsigned long long>(value));
    return text;
}

std::string hex_bytes(bytes data)
{
    std::string text;
    for (const unsigned char byte : data) {
        char pair[4];
        snprintf(pair, sizeof(pair), "%s%02X", text.empty() ? "" : " ", byte);
        text += pair;
    }
    return text;
}

std::uint64_t big_endian(bytes data)
{
    std::uint64_t value = 0;
    for (const unsigned char byte : data)
        value = value << 8 | byte;
    return value;
}

std::string line(std::string label, const std::string &value)
{
    label.resize(std::max<std::size_t>(label.size() + 1, 20), ' ');
    return label + value + "\n";
}

// T10's rows for a range of qualifiers, which the library's lookup answers with another row's text.
std::string additional_text(unsigned char asc, unsigned char ascq)
{
    if (asc == 0x40 && ascq >= 0x80)
        return "DIAGNOSTIC FAILURE ON COMPONENT " + hex(ascq, 2);
    if (asc == 0x40)
        return ascq == 0 ? "RAM FAILURE (SHOULD USE 40 NN)" : "Unknown ASC/ASCQ";
    if (asc == 0x4d)
        return "TAGGED OVERLAPPED COMMANDS (TASK TAG " + hex(ascq, 2) + ")";
    if (asc == 0x70)
        return "DECOMPRESSION EXCEPTION SHORT ALGORITHM ID OF " + hex(ascq, 2);
    return get_ascascq_info(asc, ascq);
}

std::string describe_code(unsigned char asc, unsigned char ascq)
{
    return line("Additional code", hex(asc, 2) + "/" + hex(ascq, 2) + "  " + additional_text(asc, ascq));
}

std::string describe_key(unsigned int key)
{
    static const char *const severities[] = {"no error", "error", "serious"};
    const int severity = get_condition_severity(key);
    return line("Sense key",
                hex(key, 1) + "  " + get_condition_info(key) + " (" + severities[severity] + ")");
}

// The three bytes of sense key specific information; their meaning depends on the key.
std::string describe_key_specific(unsigned int key, bytes data)
{
    if ((data[0] & 0x80) == 0)
        return "";
    const std::string number = std::to_string(big_endian(data.subspan(1, 2)));
    switch (key) {
    case 0x5: {
        const std::string bit = data[0] & 0x08 ? ", bit " + std::to_string(data[0] & 7) : "";
        return line("Field in error",
                    std::string(data[0] & 0x40 ? "CDB" : "parameter data") + " byte " + number + bit);
    }
    case 0x1:
    case 0x3:
    case 0x4:
        return line("Retries", number);
    case 0x0:
    case 0x2: {
        char percent[16];
        snprintf(percent, sizeof(percent), "%.1f %%",
                 static_cast<double>(big_endian(data.subspan(1, 2))) * 100 / 65536);
        return line("Progress", percent);
    }
    case 0x6:
        return line("Unit attention", data[0] & 1 ? "its queue overflowed" : "its queue did not overflow");
    case 0xa:
        return line("Segment in error",
                    std::string(data[0] & 0x20 ? "segment" : "parameter list") + ", byte " + number);
    default:
        return line("Key specific", hex_bytes(data));
    }
}

std::string describe_flags(unsigned char byte)
{
    std::string flags;
    const struct {
        unsigned char bit;
        const char *text;
    } names[] = {{0x80, "filemark"},
                 {0x40, "end of medium"},
                 {0x20, "incorrect length"},
                 {0x10, "sense data overflow"}};
    for (const auto &[bit, text] : names) {
        if (byte & bit)
            flags += (flags.empty() ? "" : ", ") + std::string(text);
    }
    return flags.empty() ? "" : line("Flags", flags);
}

std::string describe_head(const char *format, unsigned char response, std::size_t size)
{
    return line("Format", std::string(format) + ", " + (response & 1 ? "deferred error" : "current error") +
                              " (" + hex(response, 2) + "), " + std::to_string(size) + " bytes");
}

// The fields that the data says it has. Data that ends before is told at the end.
bytes valid_part(const std::vector<unsigned char> &data)
{
    return bytes(data).first(std::min<std::size_t>(data.size(), std::size_t{8} + data[7]));
}

std::string describe_cut(const std::vector<unsigned char> &data)
{
    const std::size_t whole = std::size_t{8} + data[7];
    return whole <= data.size() ? ""
                                : line("Note", "cut off: " + std::to_string(data.size()) + " of " +
                                                   std::to_string(whole) + " bytes");
}

std::string explain_fixed(const std::vector<unsigned char> &data)
{
    const bytes valid = valid_part(data);
    const unsigned int key = data[2] & 0x0f;
    std::string text = describe_head("fixed", data[0] & 0x7f, data.size()) + describe_key(key);
    if (valid.size() >= 14)
        text += describe_code(valid[12], valid[13]);
    text += describe_flags(data[2] & 0xf0);
    if (data[0] & 0x80)
        text += line("Information", hex(big_endian(valid.subspan(3, 4)), 8));
    if (valid.size() >= 12 && big_endian(valid.subspan(8, 4)) != 0)
        text += line("Command specific", hex(big_endian(valid.subspan(8, 4)), 8));
    if (valid.size() >= 15 && valid[14] != 0)
        text += line("Replaceable unit", hex(valid[14], 2));
    if (valid.size() >= 18)
        text += describe_key_specific(key, valid.subspan(15, 3));
    if (valid.size() > 18)
        text +=
            line("More bytes", hex_bytes(valid.subspan(18, std::min<std::size_t>(valid.size() - 18, 16))) +
                                   (valid.size() > 34 ? " ..." : ""));
    return text + describe_cut(data);
}

// One descriptor, its type and length included.
std::string explain_descriptor(unsigned int key, bytes item)
{
    const unsigned char type = item[0];
    if ((type == 0x00 || type == 0x01) && item.size() >= 12) {
        const std::string value = hex(big_endian(item.subspan(4, 8)), 16);
        if (type == 0x01)
            return line("Command specific", value);
        return line("Information", value + (item[2] & 0x80 ? "" : " (not valid)"));
    }
    if (type == 0x02 && item.size() >= 7)
        return describe_key_specific(key, item.subspan(4, 3));
    if (type == 0x03 && item.size() >= 4)
        return line("Replaceable unit", hex(item[3], 2));
    if (type == 0x04 && item.size() >= 4)
        return describe_flags(item[3] & 0xe0);
    if (type == 0x05 && item.size() >= 4)
        return describe_flags(item[3] & 0x20);
    const std::string label = type >= 0x80 ? "Vendor descriptor" : "Descriptor";
    return line(label, hex(type, 2) + "  " +
                           hex_bytes(item.subspan(2, std::min<std::size_t>(item.size() - 2, 16))) +
                           (item.size() > 18 ? " ..." : ""));
}

std::string explain_descriptors(const std::vector<unsigned char> &data)
{
    const unsigned int key = data[1] & 0x0f;
    std::string text = describe_head("descriptor", data[0] & 0x7f, data.size()) + describe_key(key) +
                       describe_code(data[2], data[3]);
    if (data[4] & 0x80)
        text += line("Flags", "sense data overflow");
    bytes rest = valid_part(data).subspan(8);
    std::size_t count = 0;
    while (rest.size() >= 2 && rest.size() - 2 >= rest[1]) {
        const std::size_t length = std::size_t{2} + rest[1];
        if (count++ < shown_descriptors)
            text += explain_descriptor(key, rest.first(length));
        rest = rest.subspan(length);
    }
    if (count > shown_descriptors)
        text += line("More descriptors", std::to_string(count - shown_descriptors));
    const std::string cut = describe_cut(data);
    if (cut.empty() && !rest.empty())
        text += line("Note", "the last descriptor ends behind the sense data");
    return text + cut;
}

} // namespace

std::string describe_sense(unsigned int key, unsigned char asc, unsigned char ascq)
{
    return describe_key(key) + describe_code(asc, ascq);
}

std::string explain_sense_data(const std::string &name, const std::vector<unsigned char> &data)
{
    if (data.size() < 8)
        throw plain_failure(name + ": " + std::to_string(data.size()) + " bytes; sense data has at least 8");
    switch (data[0] & 0x7f) {
    case 0x70:
    case 0x71:
        return explain_fixed(data);
    case 0x72:
    case 0x73:
        return explain_descriptors(data);
    default:
        throw plain_failure(name + ": response code " + hex(data[0] & 0x7f, 2) +
                            " is neither fixed (70h, 71h) nor descriptor format (72h, 73h)");
    }
}

} // namespace qvl
