// Transceiver decoding: each decoder over all 256 codes, and the report byte by byte.
#include <qvlib/corelink.h>
#include <qvlib/memcheck.h>
#include <qvlib/sfp.h>
#include <qvlib/strings.h>

#include "guarded_bytes.h"
#include "tracked_session.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

// realloc and calloc that fail once on demand: the test links the static library with --wrap for both.
namespace
{
int reallocs_left = -1, callocs_left = -1; // calls that still succeed before the failure; negative for none
void *block_not_resized = nullptr;
} // namespace

extern "C" {
void *__real_realloc(void *block, size_t size);
void *__real_calloc(size_t count, size_t size);

void *__wrap_realloc(void *block, size_t size)
{
    if (reallocs_left-- != 0)
        return __real_realloc(block, size);
    block_not_resized = block;
    return nullptr;
}

void *__wrap_calloc(size_t count, size_t size)
{
    return callocs_left-- != 0 ? __real_calloc(count, size) : nullptr;
}
}

namespace
{

using texts = std::map<unsigned int, std::string_view>;

void expect_texts(const char *(*decode)(unsigned char), const texts &known, std::string_view unlisted,
                  std::string_view unlisted_with_bit_7)
{
    for (unsigned int code = 0; code < 256; code++) {
        const auto text = known.find(code);
        const std::string_view otherwise = code & 0x80 ? unlisted_with_bit_7 : unlisted;
        EXPECT_EQ(decode(static_cast<unsigned char>(code)), text == known.end() ? otherwise : text->second)
            << code;
    }
}

std::string options_of(uint16_t options, const char *before = "")
{
    char *text = nullptr;
    EXPECT_GE(qv_asprintf(&text, "%s", before), 0);
    EXPECT_EQ(sfp_option(options, &text), text);
    const std::string result = text;
    qv_memcheck_free(qv_free, text, "sfp_test");
    return result;
}

// A short-wave SFP.
std::vector<unsigned char> make_block()
{
    std::vector<unsigned char> block(SFP_BLOCK_SIZE);
    const unsigned char codes[] = {3, 4, 7, 0, 0, 0, 0, 0x40, 0x40, 0x0c, 0x15, 1};
    memcpy(block.data(), codes, sizeof(codes));
    memcpy(block.data() + 20, "EXAMPLE OPTICS  ", 16);
    memcpy(block.data() + 40, "EX-4G-SW        ", 16);
    memcpy(block.data() + 56, "A1  ", 4);
    block[65] = 0x1a;
    memcpy(block.data() + 68, "SN0123456789    ", 16);
    return block;
}

// The report, read with a block that ends where the last byte of it does.
std::string report_of(const std::vector<unsigned char> &block)
{
    guarded_bytes bytes(block.size());
    memcpy(bytes.data(), block.data(), block.size());
    char *text = nullptr;
    EXPECT_EQ(sfp_to_corelink(bytes.data(), &text), 0);
    const std::string result = text != nullptr ? text : "";
    qv_memcheck_free(qv_free, text, "sfp_test");
    return result;
}

} // namespace

TEST(SfpId, NamesTheIdentifiers)
{
    expect_texts(sfp_id,
                 {{0, "Unknown or unspecified"},
                  {1, "GBIC"},
                  {2, "Module/connector soldered to motherboard"},
                  {3, "SFP transceiver"}},
                 "Reserved", "Vendor specific");
}

TEST(SfpConnector, NamesTheConnectors)
{
    expect_texts(sfp_connector,
                 {{0, "Unknown or unspecified"},
                  {1, "SC"},
                  {2, "Fibre Channel Style 1 copper connector"},
                  {3, "Fibre Channel Style 2 copper connector"},
                  {4, "BNC/TNC"},
                  {5, "Fibre Channel coaxial headers"},
                  {6, "FiberJack"},
                  {7, "LC"},
                  {8, "MT-RJ"},
                  {9, "MU"},
                  {10, "SG"},
                  {11, "Optical pigtail"},
                  {32, "HSSDC II"},
                  {33, "Copper Pigtail"}},
                 "Reserved", "Vendor specific");
}

TEST(SfpFcRscc, IsReservedWhateverTheByte)
{
    expect_texts(sfp_fc_rscc, {}, "Reserved", "Reserved");
}

TEST(SfpFcSonet, GoesByByteFourWhenItIsKnown)
{
    for (unsigned int byte5 = 0; byte5 < 256; byte5++) {
        const auto any = static_cast<unsigned char>(byte5);
        EXPECT_STREQ(sfp_fc_sonet(1, any), "OC 48 short reach");
        EXPECT_STREQ(sfp_fc_sonet(2, any), "OC 48, intermediate reach");
        EXPECT_STREQ(sfp_fc_sonet(4, any), "OC 48, long reach");
    }
}

TEST(SfpFcSonet, GoesByByteFiveOtherwise)
{
    const texts known = {{1, "OC 3, multi-mode short reach"},     {2, "OC 3, single mode intermediate reach"},
                         {4, "OC 3, single mode long reach"},     {16, "OC 12 multi-mode short reach"},
                         {32, "OC 12, single mode inter. reach"}, {64, "OC 12, single mode long reach"}};
    for (unsigned int byte4 = 0; byte4 < 256; byte4++) {
        if (byte4 == 1 || byte4 == 2 || byte4 == 4)
            continue;
        for (unsigned int byte5 = 0; byte5 < 256; byte5++) {
            const auto text = known.find(byte5);
            ASSERT_EQ(sfp_fc_sonet(static_cast<unsigned char>(byte4), static_cast<unsigned char>(byte5)),
                      text == known.end() ? "Reserved" : text->second);
        }
    }
}

TEST(SfpFcGecc, NamesTheEthernetCodes)
{
    expect_texts(sfp_fc_gecc, {{1, "1000BASE-SX"}, {2, "1000BASE-LX"}, {4, "1000BASE-CX"}, {8, "1000BASE-T"}},
                 "Reserved", "Reserved");
}

TEST(SfpFcLinkLen, GoesByTheUpperFiveBits)
{
    const texts known = {{0x10, "long distance (L)"},
                         {0x20, "intermediate distance (I)"},
                         {0x40, "short distance (S)"},
                         {0x80, "very long distance (V)"}};
    for (unsigned int code = 0; code < 256; code++) {
        const auto text = known.find(code & 0xf8);
        EXPECT_EQ(sfp_fc_link_len(static_cast<unsigned char>(code)),
                  text == known.end() ? "Reserved" : text->second);
    }
}

TEST(SfpFcLinkLen, ReservesSeveralBits)
{
    EXPECT_STREQ(sfp_fc_link_len(0x30), "Reserved");
}

TEST(SfpFcTx, GoesByTheLowerBitsOfByteSevenWhenTheyAreKnown)
{
    for (unsigned int byte8 = 0; byte8 < 256; byte8++) {
        const auto any = static_cast<unsigned char>(byte8);
        EXPECT_STREQ(sfp_fc_tx(0x01, any), "Electrical inter-enclosure (EL)");
        EXPECT_STREQ(sfp_fc_tx(0xf9, any), "Electrical inter-enclosure (EL)");
        EXPECT_STREQ(sfp_fc_tx(0x02, any), "Longwave laser (LC)");
        EXPECT_STREQ(sfp_fc_tx(0x4a, any), "Longwave laser (LC)");
    }
}

TEST(SfpFcTx, GoesByByteEightOtherwise)
{
    const texts known = {{0x10, "Longwave laser (LL)"},
                         {0x20, "Shortwave laser w/ OFC (SL)"},
                         {0x40, "Shortwave laser w/o OFC (SN)"},
                         {0x80, "Electrical intra-enclosure (EL)"}};
    for (const uint8_t byte7 : std::initializer_list<uint8_t>{0x00, 0x03, 0x04, 0x07, 0x40, 0xfc}) {
        for (unsigned int byte8 = 0; byte8 < 256; byte8++) {
            const auto text = known.find(byte8);
            EXPECT_EQ(sfp_fc_tx(byte7, static_cast<unsigned char>(byte8)),
                      text == known.end() ? "Reserved" : text->second);
        }
    }
}

TEST(SfpFcTrans, NamesTheMedia)
{
    expect_texts(sfp_fc_trans,
                 {{1, "Single Mode (SM)"},
                  {4, "Multi-mode, 50 m (M5)"},
                  {8, "Multi-mode, 62.5m (M6)"},
                  {12, "Multi-mode, 50m & 62.5m (M5 & M6)"},
                  {16, "Video Coax (TV)"},
                  {32, "Miniature Coax (MI)"},
                  {64, "Shielded Twisted Pair (TP)"},
                  {128, "Twin Axial Pair (TW)"}},
                 "Reserved", "Reserved");
}

TEST(SfpFcSpeed, NamesTheSpeeds)
{
    expect_texts(sfp_fc_speed,
                 {{1, "1 Gbit/Sec"},
                  {4, "2 Gbit/Sec"},
                  {5, "1/2 Gbit/Sec"},
                  {16, "4 Gbit/Sec"},
                  {20, "2/4 Gbit/Sec"},
                  {21, "1/2/4 Gbit/Sec"}},
                 "Reserved", "Reserved");
}

TEST(SfpEncoding, NamesTheEncodings)
{
    expect_texts(sfp_encoding,
                 {{0, "Unspecified"},
                  {1, "8B10B"},
                  {2, "4B5B"},
                  {3, "NRZ"},
                  {4, "Manchester"},
                  {5, "SONET Scrambled"},
                  {6, "64B66B"}},
                 "Reserved", "Reserved");
}

// ---- Options

TEST(SfpOption, ListsTheOptionsFromTheHighestBitDown)
{
    EXPECT_EQ(options_of(0x001a), "TX_DISABLE, TX_FAULT, Rx_LOS");
    EXPECT_EQ(options_of(0x8001), "Unallocated bit 15, Unallocated bit 0");
}

TEST(SfpOption, NamesEveryBit)
{
    const std::map<unsigned int, std::string> named = {
        {10, "Cooled Transceiver"}, {9, "Power Level"}, {8, "Linear Receiver Output"}, {5, "RATE_SELECT"},
        {4, "TX_DISABLE"},          {3, "TX_FAULT"},    {2, "Signal Detect"},          {1, "Rx_LOS"}};
    for (unsigned int bit = 0; bit < 16; bit++) {
        const auto name = named.find(bit);
        EXPECT_EQ(options_of(static_cast<uint16_t>(1u << bit)),
                  name == named.end() ? "Unallocated bit " + std::to_string(bit) : name->second);
    }
}

TEST(SfpOption, LeavesTheTextAsItIsWithoutAnOption)
{
    EXPECT_EQ(options_of(0), "");
    EXPECT_EQ(options_of(0, "a, b, "), "a, b, ");
}

TEST(SfpOption, AppendsToTheText)
{
    EXPECT_EQ(options_of(0x0002, "a, b: "), "a, b: Rx_LOS");
}

TEST(SfpOption, IsNullWithoutAText)
{
    char *text = nullptr;
    EXPECT_EQ(sfp_option(2, nullptr), nullptr);
    EXPECT_EQ(sfp_option(2, &text), nullptr);
}

TEST(SfpOption, IsNullWhenAnAppendFails)
{
    for (int successes = 0; successes < 3; successes++) {
        char *text = nullptr;
        ASSERT_GE(qv_asprintf(&text, "%s", ""), 0);
        reallocs_left = successes;
        EXPECT_EQ(sfp_option(0x001a, &text), nullptr);
        EXPECT_EQ(text, nullptr);
        free(block_not_resized);
    }
}

// ---- The report

TEST(SfpToCorelink, WritesTheRecordsInTheirOrder)
{
    EXPECT_EQ(report_of(make_block()),
              "sfp_data=["
              "{Id=\"sfp_vendor_name\",Name=\"Vendor name\",Value=\"EXAMPLE OPTICS  \"},"
              "{Id=\"sfp_vendor_pn\",Name=\"Part number\",Value=\"EX-4G-SW        \"},"
              "{Id=\"sfp_vendor_sn\",Name=\"Serial number\",Value=\"SN0123456789    \"},"
              "{Id=\"sfp_vendor_rev\",Name=\"Revision\",Value=\"A1  \"},"
              "{Id=\"sfp_id\",Name=\"Identifier\",Value=\"SFP transceiver\"},"
              "{Id=\"sfp_connector\",Name=\"Connector\",Value=\"LC\"},"
              "{Id=\"sfp_fc_rscc\",Name=\"RSCC\",Value=\"Reserved\"},"
              "{Id=\"sfp_fc_sonet\",Name=\"SONET\",Value=\"Reserved\"},"
              "{Id=\"sfp_fc_gecc\",Name=\"GECC\",Value=\"Reserved\"},"
              "{Id=\"sfp_fc_link_len\",Name=\"Link length\",Value=\"short distance (S)\"},"
              "{Id=\"sfp_fc_tx\",Name=\"Transmitter\",Value=\"Shortwave laser w/o OFC (SN)\"},"
              "{Id=\"sfp_encoding\",Name=\"Encoding\",Value=\"8B10B\"},"
              "{Id=\"sfp_option\",Name=\"Option\",Value=\"TX_DISABLE, TX_FAULT, Rx_LOS\"},"
              "{Id=\"sfp_fc_trans\",Name=\"Transmission media\",Value=\"Multi-mode, 50m & 62.5m (M5 & M6)\"},"
              "{Id=\"sfp_fc_speed\",Name=\"Supported speeds\",Value=\"1/2/4 Gbit/Sec\"}]");
}

TEST(SfpToCorelink, TakesEachCodeFromItsByte)
{
    std::vector<unsigned char> block(SFP_BLOCK_SIZE);
    block[0] = 1;
    block[2] = 11;
    block[4] = 0;
    block[5] = 0x20;
    block[6] = 8;
    block[7] = 0x12;
    block[8] = 0x80;
    block[9] = 0x10;
    block[10] = 16;
    block[11] = 4;
    block[64] = 0x02;
    const std::string report = report_of(block);
    for (const char *value : {"\"GBIC\"", "\"Optical pigtail\"", "\"OC 12, single mode inter. reach\"",
                              "\"1000BASE-T\"", "\"long distance (L)\"", "\"Longwave laser (LC)\"",
                              "\"Video Coax (TV)\"", "\"4 Gbit/Sec\"", "\"Manchester\"", "\"Power Level\""})
        EXPECT_NE(report.find(value), std::string::npos) << value;
}

TEST(SfpToCorelink, IsReadBackByTheGrammar)
{
    const std::string report = report_of(make_block());
    clparse_head *head = clparse_start(report.c_str());
    ASSERT_NE(head, nullptr);
    char *name = nullptr, *speeds = nullptr;
    EXPECT_EQ(clparse_get_string(head, &name, "sfp_data.0.Value"), 0);
    EXPECT_STREQ(name, "EXAMPLE OPTICS  ");
    EXPECT_EQ(clparse_get_string(head, &speeds, "sfp_data.14.Id"), 0);
    EXPECT_STREQ(speeds, "sfp_fc_speed");
    qv_memcheck_free(qv_free, name, "sfp_test");
    qv_memcheck_free(qv_free, speeds, "sfp_test");
    clparse_stop(head);
}

TEST(SfpToCorelink, CutsVendorTextsAtTheirFields)
{
    std::vector<unsigned char> block(SFP_BLOCK_SIZE, 'x');
    const std::string report = report_of(block);
    for (const char *record : {"{Id=\"sfp_vendor_name\",Name=\"Vendor name\",Value=\"xxxxxxxxxxxxxxxx\"}",
                               "{Id=\"sfp_vendor_pn\",Name=\"Part number\",Value=\"xxxxxxxxxxxxxxxx\"}",
                               "{Id=\"sfp_vendor_sn\",Name=\"Serial number\",Value=\"xxxxxxxxxxxxxxxx\"}",
                               "{Id=\"sfp_vendor_rev\",Name=\"Revision\",Value=\"xxxx\"}"})
        EXPECT_NE(report.find(record), std::string::npos) << record;
}

TEST(SfpToCorelink, EndsVendorTextsAtAZeroByte)
{
    std::vector<unsigned char> block = make_block();
    block[23] = 0;
    block[56] = 0;
    const std::string report = report_of(block);
    EXPECT_NE(report.find("Name=\"Vendor name\",Value=\"EXA\"}"), std::string::npos);
    EXPECT_NE(report.find("Name=\"Revision\",Value=\"\"}"), std::string::npos);
}

TEST(SfpToCorelink, EscapesNothing)
{
    std::vector<unsigned char> block = make_block();
    memcpy(block.data() + 20, "\"]}\\\xff", 5);
    EXPECT_NE(report_of(block).find("Value=\"\"]}\\\xffLE OPTICS  \"}"), std::string::npos);
}

TEST(SfpToCorelink, WritesAnEmptyTextForNoOptions)
{
    std::vector<unsigned char> block = make_block();
    block[65] = 0;
    EXPECT_NE(report_of(block).find("Name=\"Option\",Value=\"\"}"), std::string::npos);
}

TEST(SfpToCorelink, TakesByte64AsTheUpperByteOfTheOptions)
{
    std::vector<unsigned char> block = make_block();
    block[64] = 0x80;
    block[65] = 0x01;
    EXPECT_NE(report_of(block).find("Value=\"Unallocated bit 15, Unallocated bit 0\"}"), std::string::npos);
}

TEST(SfpToCorelink, RefusesNull)
{
    const std::vector<unsigned char> block = make_block();
    char *text = nullptr;
    EXPECT_LT(sfp_to_corelink(nullptr, &text), 0);
    EXPECT_EQ(text, nullptr);
    EXPECT_LT(sfp_to_corelink(block.data(), nullptr), 0);
}

TEST(SfpToCorelink, FailsWithoutItsScratchText)
{
    char *text = nullptr;
    callocs_left = 0;
    EXPECT_EQ(sfp_to_corelink(make_block().data(), &text), -1);
    EXPECT_EQ(text, nullptr);
}

TEST(SfpToCorelink, WritesTheTextOfANullStringWhenTheOptionsCannotGrow)
{
    // Three options are appended before the first record is.
    for (int successes = 0; successes < 3; successes++) {
        char *text = nullptr;
        reallocs_left = successes;
        EXPECT_EQ(sfp_to_corelink(make_block().data(), &text), 0);
        reallocs_left = -1;
        ASSERT_NE(text, nullptr);
        EXPECT_NE(strstr(text, "Name=\"Option\",Value=\"(null)\"}"), nullptr);
        qv_memcheck_free(qv_free, text, "sfp_test");
    }
}

TEST(SfpToCorelink, FailsWhenTheReportCannotGrow)
{
    int failures = 0;
    for (int successes = 3;; successes++) {
        char *text = nullptr;
        block_not_resized = nullptr;
        reallocs_left = successes;
        const int result = sfp_to_corelink(make_block().data(), &text);
        reallocs_left = -1;
        if (block_not_resized == nullptr) {
            EXPECT_EQ(result, 0);
            qv_memcheck_free(qv_free, text, "sfp_test");
            break;
        }
        EXPECT_LT(result, 0) << successes;
        EXPECT_EQ(text, nullptr);
        free(block_not_resized);
        failures++;
    }
    EXPECT_GE(failures, 15);
}

// The scratch text of the options is a plain block, unknown to the memory debugger.
TEST(SfpToCorelink, HasNoOptionsWhileTheMemoryDebuggerRuns)
{
    const tracked_session session;
    char *text = nullptr;
    EXPECT_EQ(sfp_to_corelink(make_block().data(), &text), 0);
    ASSERT_NE(text, nullptr);
    EXPECT_NE(strstr(text, "Name=\"Option\",Value=\"(null)\"}"), nullptr);
    EXPECT_EQ(tracked_session::faults, 1);
    qv_memcheck_free(qv_free, text, "sfp_test");
    EXPECT_TRUE(session.counts().empty());
}

TEST(SfpToCorelink, TracksNothingButItsReport)
{
    const tracked_session session;
    std::vector<unsigned char> block = make_block();
    block[65] = 0;
    char *text = nullptr;
    EXPECT_EQ(sfp_to_corelink(block.data(), &text), 0);
    EXPECT_EQ(tracked_session::faults, 0);
    EXPECT_EQ(session.counts(), (std::map<std::string, int>{{"qv_vaasprintf", 1}}));
    qv_memcheck_free(qv_free, text, "sfp_test");
}
