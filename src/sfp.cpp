/*
 * SFP and GBIC identification, SFF-8472 address A0h. Tables without pointers map code bytes to texts; a
 * report takes its records in the order of `records`, which is not the order of the block.
 */
#include <qvlib/sfp.h>

#include <qvlib/corelink.h>
#include <qvlib/strings.h>

#include "code_text.h"

#include <cstdlib>
#include <cstring>
#include <iterator>

namespace
{

constexpr char reserved[] = "Reserved", vendor_specific[] = "Vendor specific";

constexpr qv::code_text<41> identifiers[] = {
    {0, "Unknown or unspecified"},
    {1, "GBIC"},
    {2, "Module/connector soldered to motherboard"},
    {3, "SFP transceiver"},
};

constexpr qv::code_text<40> connectors[] = {
    {0x00, "Unknown or unspecified"},
    {0x01, "SC"},
    {0x02, "Fibre Channel Style 1 copper connector"},
    {0x03, "Fibre Channel Style 2 copper connector"},
    {0x04, "BNC/TNC"},
    {0x05, "Fibre Channel coaxial headers"},
    {0x06, "FiberJack"},
    {0x07, "LC"},
    {0x08, "MT-RJ"},
    {0x09, "MU"},
    {0x0a, "SG"},
    {0x0b, "Optical pigtail"},
    {0x20, "HSSDC II"},
    {0x21, "Copper Pigtail"},
};

// The uneven commas of the SONET texts are part of the output.
constexpr qv::code_text<26> sonet_oc48[] = {
    {0x01, "OC 48 short reach"},
    {0x02, "OC 48, intermediate reach"},
    {0x04, "OC 48, long reach"},
};

constexpr qv::code_text<37> sonet_oc3_oc12[] = {
    {0x01, "OC 3, multi-mode short reach"},    {0x02, "OC 3, single mode intermediate reach"},
    {0x04, "OC 3, single mode long reach"},    {0x10, "OC 12 multi-mode short reach"},
    {0x20, "OC 12, single mode inter. reach"}, {0x40, "OC 12, single mode long reach"},
};

constexpr qv::code_text<12> ethernet[] = {
    {0x01, "1000BASE-SX"},
    {0x02, "1000BASE-LX"},
    {0x04, "1000BASE-CX"},
    {0x08, "1000BASE-T"},
};

constexpr unsigned char link_length_bits = 0xf8, technology_bits = 0x07;

constexpr qv::code_text<26> link_lengths[] = {
    {0x10, "long distance (L)"},
    {0x20, "intermediate distance (I)"},
    {0x40, "short distance (S)"},
    {0x80, "very long distance (V)"},
};

constexpr qv::code_text<32> technologies_byte7[] = {
    {0x01, "Electrical inter-enclosure (EL)"},
    {0x02, "Longwave laser (LC)"},
};

constexpr qv::code_text<32> technologies_byte8[] = {
    {0x10, "Longwave laser (LL)"},
    {0x20, "Shortwave laser w/ OFC (SL)"},
    {0x40, "Shortwave laser w/o OFC (SN)"},
    {0x80, "Electrical intra-enclosure (EL)"},
};

constexpr qv::code_text<36> media[] = {
    {0x01, "Single Mode (SM)"},
    {0x04, "Multi-mode, 50 m (M5)"},
    {0x08, "Multi-mode, 62.5m (M6)"},
    {0x0c, "Multi-mode, 50m & 62.5m (M5 & M6)"},
    {0x10, "Video Coax (TV)"},
    {0x20, "Miniature Coax (MI)"},
    {0x40, "Shielded Twisted Pair (TP)"},
    {0x80, "Twin Axial Pair (TW)"},
};

constexpr qv::code_text<17> speeds[] = {
    {1, "1 Gbit/Sec"},  {4, "2 Gbit/Sec"},    {5, "1/2 Gbit/Sec"},
    {16, "4 Gbit/Sec"}, {20, "2/4 Gbit/Sec"}, {21, "1/2/4 Gbit/Sec"},
};

constexpr qv::code_text<16> encodings[] = {
    {0, "Unspecified"}, {1, "8B10B"},           {2, "4B5B"},   {3, "NRZ"},
    {4, "Manchester"},  {5, "SONET Scrambled"}, {6, "64B66B"},
};

constexpr qv::code_text<23> option_texts[] = {
    {10, "Cooled Transceiver"}, {9, "Power Level"}, {8, "Linear Receiver Output"}, {5, "RATE_SELECT"},
    {4, "TX_DISABLE"},          {3, "TX_FAULT"},    {2, "Signal Detect"},          {1, "Rx_LOS"},
};

// Offsets in the block.
enum {
    identifier_at = 0,
    connector_at = 2,
    rscc_at = 3,
    sonet_at = 4, // two bytes
    ethernet_at = 6,
    link_at = 7, // link length and technology
    technology_at = 8,
    media_at = 9,
    speed_at = 10,
    encoding_at = 11,
    vendor_name_at = 20,
    vendor_part_at = 40,
    vendor_revision_at = 56,
    options_at = 64,
    vendor_serial_at = 68,
};
static_assert(vendor_serial_at + 16 == SFP_BLOCK_SIZE);

// One for each value of a report: what it is called and how many of its characters count.
struct record {
    char id[16];
    char name[20];
    signed char precision;
};
constexpr signed char unlimited = -1;

constexpr record records[] = {
    {"sfp_vendor_name", "Vendor name", 16},
    {"sfp_vendor_pn", "Part number", 16},
    {"sfp_vendor_sn", "Serial number", 16},
    {"sfp_vendor_rev", "Revision", 4},
    {"sfp_id", "Identifier", unlimited},
    {"sfp_connector", "Connector", unlimited},
    {"sfp_fc_rscc", "RSCC", unlimited},
    {"sfp_fc_sonet", "SONET", unlimited},
    {"sfp_fc_gecc", "GECC", unlimited},
    {"sfp_fc_link_len", "Link length", unlimited},
    {"sfp_fc_tx", "Transmitter", unlimited},
    {"sfp_encoding", "Encoding", unlimited},
    {"sfp_option", "Option", unlimited},
    {"sfp_fc_trans", "Transmission media", unlimited},
    {"sfp_fc_speed", "Supported speeds", unlimited},
};
constexpr size_t record_count = std::size(records);

const char *unlisted(unsigned char code)
{
    return code & 0x80 ? vendor_specific : reserved;
}

int append_option(char **text, unsigned int bit)
{
    const char *name = qv::find_text<option_texts>(bit, nullptr);
    return name != nullptr ? qv_aasprintf(text, "%s, ", name)
                           : qv_aasprintf(text, "Unallocated bit %u, ", bit);
}

// Appends the texts of the options. Returns false when an append failed: *text is NULL then and *last the
// block that it held before, which nobody released.
bool append_options(uint16_t options, char **text, char **last)
{
    *last = *text;
    for (unsigned int bit = 16; bit-- > 0;) {
        if ((options >> bit & 1) == 0)
            continue;
        if (append_option(text, bit) < 0)
            return false;
        *last = *text;
    }
    char *comma = options != 0 ? strrchr(*text, ',') : nullptr;
    if (comma != nullptr)
        *comma = '\0';
    return true;
}

const char *text_at(const unsigned char *block, size_t offset)
{
    return reinterpret_cast<const char *>(block + offset);
}

int append_records(const unsigned char *block, const char *options, char **out)
{
    const char *const values[] = {
        text_at(block, vendor_name_at),
        text_at(block, vendor_part_at),
        text_at(block, vendor_serial_at),
        text_at(block, vendor_revision_at),
        sfp_id(block[identifier_at]),
        sfp_connector(block[connector_at]),
        sfp_fc_rscc(block[rscc_at]),
        sfp_fc_sonet(block[sonet_at], block[sonet_at + 1]),
        sfp_fc_gecc(block[ethernet_at]),
        sfp_fc_link_len(block[link_at]),
        sfp_fc_tx(block[link_at], block[technology_at]),
        sfp_encoding(block[encoding_at]),
        options != nullptr ? options : "(null)", // as the C library prints a NULL string
        sfp_fc_trans(block[media_at]),
        sfp_fc_speed(block[speed_at]),
    };
    static_assert(std::size(values) == record_count);
    for (size_t i = 0; i < record_count; i++) {
        const record &of = records[i];
        const int result = cl_cat_array_element(out, 0, R"({Id="%s",Name="%s",Value="%.*s"})", of.id, of.name,
                                                of.precision, values[i]);
        if (result < 0)
            return result;
    }
    // A last record that could not be allocated is no failure of cl_cat_array_element.
    return *out != nullptr ? 0 : -1;
}

} // namespace

const char *sfp_id(unsigned char code)
{
    return qv::find_text<identifiers>(code, unlisted(code));
}

const char *sfp_connector(unsigned char code)
{
    return qv::find_text<connectors>(code, unlisted(code));
}

const char *sfp_fc_rscc(unsigned char)
{
    return reserved;
}

const char *sfp_fc_gecc(unsigned char code)
{
    return qv::find_text<ethernet>(code, reserved);
}

const char *sfp_fc_link_len(unsigned char code)
{
    return qv::find_text<link_lengths>(code & link_length_bits, reserved);
}

const char *sfp_fc_trans(unsigned char code)
{
    return qv::find_text<media>(code, reserved);
}

const char *sfp_fc_speed(unsigned char code)
{
    return qv::find_text<speeds>(code, reserved);
}

const char *sfp_encoding(unsigned char code)
{
    return qv::find_text<encodings>(code, reserved);
}

const char *sfp_fc_sonet(unsigned char byte4, unsigned char byte5)
{
    return qv::find_text<sonet_oc48>(byte4, qv::find_text<sonet_oc3_oc12>(byte5, reserved));
}

const char *sfp_fc_tx(unsigned char byte7, unsigned char byte8)
{
    return qv::find_text<technologies_byte7>(byte7 & technology_bits,
                                             qv::find_text<technologies_byte8>(byte8, reserved));
}

char *sfp_option(uint16_t options, char **text)
{
    char *last;
    if (text == nullptr || *text == nullptr || !append_options(options, text, &last))
        return nullptr;
    return *text;
}

int sfp_to_corelink(const unsigned char *block, char **out)
{
    if (block == nullptr || out == nullptr)
        return -1;
    auto *options = static_cast<char *>(calloc(1, 1));
    if (options == nullptr)
        return -1;
    int result = qv_asprintf(out, "%s", "sfp_data=[]") < 0 ? -1 : 0;
    if (result == 0) {
        const auto bits = static_cast<uint16_t>(block[options_at] << 8 | block[options_at + 1]);
        char *last;
        append_options(bits, &options, &last);
        result = append_records(block, options, out);
        options = last;
    }
    free(options);
    return result;
}
