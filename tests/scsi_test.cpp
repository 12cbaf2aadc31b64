// SCSI codes: every row of the tables through the lookups, and the rows themselves against their published
// lists.
#include <qvlib/digest.h>
#include <qvlib/encoding.h>
#include <qvlib/scsi.h>

#include "first_use.h"
#include "text_compression.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <atomic>
#include <map>
#include <numeric>
#include <random>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace
{

// With views: a table of a thousand strings would take long to compile.
struct row {
    unsigned int code;
    std::string_view text;
};

const std::vector<row> asc_rows = {
#include "scsi_asc.inc"
};

const std::vector<row> opcode_rows = {
#include "scsi_opcodes.inc"
};

const std::vector<row> standard_rows = {
#include "scsi_standards.inc"
};

bool ascends(const std::vector<row> &rows)
{
    return std::adjacent_find(rows.begin(), rows.end(),
                              [](const row &a, const row &b) { return a.code >= b.code; }) == rows.end();
}

// SHA-256 of the rows as lines: the code's bytes (or the code) in hex and the text, separated by tabs.
std::string digest_of(const std::vector<row> &rows, const char *format)
{
    std::string lines;
    for (const row &row : rows) {
        char code[20];
        snprintf(code, sizeof(code), format, row.code >> 8, row.code & 0xff);
        lines.append(code).append(row.text).append("\n");
    }
    uint8_t digest[SHA256_DIGEST_SIZE];
    sha256_single(lines.data(), lines.size(), digest);
    char hex[2 * SHA256_DIGEST_SIZE + 1];
    hex_encode(digest, sizeof(digest), hex);
    return hex;
}

// A text compressed and unpacked again, and how many bytes it takes meanwhile.
template <size_t Size> std::string compressed_and_back(const std::array<char, Size> &bytes, size_t &size)
{
    static qv::compressed_text<Size> compressed;
    compressed = qv::compress(bytes);
    size = compressed.size;
    std::string unpacked(Size, '?');
    qv::unpack(compressed.bytes.data(), unpacked.data(), Size);
    return unpacked;
}

template <size_t Size> std::string_view text_of(const std::array<char, Size> &bytes)
{
    return {bytes.data(), Size};
}

std::map<std::string, int> count_texts(const std::vector<row> &rows)
{
    std::map<std::string, int> counts;
    for (const row &row : rows)
        counts[std::string(row.text)]++;
    return counts;
}

} // namespace

// ---- ASC/ASCQ

TEST(AscTable, Has646RowsInAscendingOrder)
{
    EXPECT_EQ(asc_rows.size(), 646u);
    EXPECT_TRUE(ascends(asc_rows));
    EXPECT_EQ(asc_rows.front().code, 0x0000u);
    EXPECT_EQ(asc_rows[1].text, "FILEMARK DETECTED");
    EXPECT_EQ(asc_rows.back().code, 0x7479u);
    EXPECT_EQ(asc_rows.back().text, "SECURITY CONFLICT IN TRANSLATED DEVICE");
}

TEST(AscTable, HoldsT10sListOfMid2011)
{
    EXPECT_EQ(digest_of(asc_rows, "%02X\t%02X\t"),
              "adb86b633126cea6f6814497cc164d2147a7a92a574f395609effc1323a04bbd");
}

TEST(GetAscascqInfo, FindsEveryRowButThoseOfWildcards)
{
    int found = 0;
    for (const row &row : asc_rows) {
        const auto asc = static_cast<unsigned char>(row.code >> 8),
                   ascq = static_cast<unsigned char>(row.code);
        if (asc == 0x40 || asc == 0x4d || asc == 0x70)
            continue;
        EXPECT_EQ(get_ascascq_info(asc, ascq), row.text) << row.code;
        found++;
    }
    EXPECT_EQ(found, 645);
}

TEST(GetAscascqInfo, GivesTextsOfT10)
{
    EXPECT_STREQ(get_ascascq_info(0x04, 0x01), "LOGICAL UNIT IS IN PROCESS OF BECOMING READY");
    EXPECT_STREQ(get_ascascq_info(0x00, 0x00), "NO ADDITIONAL SENSE INFORMATION");
    EXPECT_STREQ(get_ascascq_info(0x29, 0x00), "POWER ON, RESET, OR BUS DEVICE RESET OCCURRED");
    EXPECT_STREQ(get_ascascq_info(0x41, 0x00), "DATA PATH FAILURE (SHOULD USE 40 NN)");
    EXPECT_STREQ(get_ascascq_info(0x5d, 0x00), "FAILURE PREDICTION THRESHOLD EXCEEDED");
}

TEST(GetAscascqInfo, GivesAWildcardTheTextOfTheExactRowAtItsPlace)
{
    for (int ascq = 0; ascq < 256; ascq++) {
        const auto any = static_cast<unsigned char>(ascq);
        EXPECT_STREQ(get_ascascq_info(0x40, any), "NO ADDITIONAL SENSE INFORMATION");
        EXPECT_STREQ(get_ascascq_info(0x4d, any), "FILEMARK DETECTED");
        EXPECT_STREQ(get_ascascq_info(0x70, any), "END-OF-PARTITION/MEDIUM DETECTED");
    }
}

TEST(GetAscascqInfo, KnowsNoPairBesideItsRows)
{
    EXPECT_STREQ(get_ascascq_info(0x7f, 0x7f), "Unknown ASC/ASCQ");
    EXPECT_STREQ(get_ascascq_info(0xff, 0xff), "Unknown ASC/ASCQ");
    int known = 0;
    for (unsigned int code = 0; code <= 0xffff; code++)
        known +=
            strcmp(get_ascascq_info(static_cast<unsigned char>(code >> 8), static_cast<unsigned char>(code)),
                   "Unknown ASC/ASCQ") != 0;
    EXPECT_EQ(known, 645 + 3 * 256);
}

// ---- Sense keys

TEST(GetConditionInfo, NamesTheSixteenSenseKeys)
{
    const char *texts[] = {"NO SENSE",       "RECOVERED ERROR", "NOT_READY",      "MEDIUM ERROR",
                           "HARDWARE ERROR", "ILLEGAL REQUEST", "UNIT ATTENTION", "DATA PROTECT",
                           "BLANK CHECK",    "VENDOR SPECIFIC", "COPY ABORTED",   "ABORTED COMMAND",
                           "EQUAL",          "VOLUME OVERFLOW", "MISCOMPARE",     "SENSE RESERVED"};
    for (unsigned int key = 0; key < 16; key++)
        EXPECT_STREQ(get_condition_info(key), texts[key]);
}

TEST(GetConditionInfo, IsNullAbove15)
{
    EXPECT_EQ(get_condition_info(16), nullptr);
    EXPECT_EQ(get_condition_info(255), nullptr);
    EXPECT_EQ(get_condition_info(~0u), nullptr);
}

TEST(GetConditionSeverity, IsSeriousForVolumeOverflowAlone)
{
    for (unsigned int key = 0; key < 16; key++)
        EXPECT_EQ(get_condition_severity(key), key < 2 ? 0 : key == 13 ? 2 : 1) << key;
}

TEST(GetConditionSeverity, IsMinusOneAbove15)
{
    EXPECT_EQ(get_condition_severity(16), -1);
    EXPECT_EQ(get_condition_severity(~0u), -1);
}

// ---- Operation codes

TEST(OpcodeTable, HasARowForEachOf256Codes)
{
    ASSERT_EQ(opcode_rows.size(), 256u);
    for (unsigned int code = 0; code < 256; code++)
        EXPECT_EQ(opcode_rows[code].code, code);
}

TEST(OpcodeTable, HoldsT10sListOfEarly2008)
{
    EXPECT_EQ(digest_of(opcode_rows, "%.0s%02X\t"),
              "e20d3e34bc24c77a22ccc9acddeea6ba1d74877bf3808265a5c94315290e8713");
}

TEST(OpcodeTable, CountsTheUnassignedCodes)
{
    const std::map<std::string, int> counts = count_texts(opcode_rows);
    EXPECT_EQ(counts.at("RESERVED"), 31);
    EXPECT_EQ(counts.at("VENDOR SPECIFIC"), 74);
    EXPECT_EQ(counts.at("UNKNOWN"), 12);
    EXPECT_EQ(counts.at("[usage proposed by SCSI Socket Services project]"), 4);
}

TEST(GetCommandInfo, GivesTheTextOfEveryCode)
{
    for (const row &row : opcode_rows)
        EXPECT_EQ(get_command_info(static_cast<unsigned char>(row.code)), row.text);
}

TEST(GetCommandInfo, KeepsJoinedNamesAndSpellings)
{
    EXPECT_STREQ(get_command_info(0x00), "TEST UNIT READY");
    EXPECT_STREQ(get_command_info(0x01), "REWIND / REZERO UNIT");
    EXPECT_STREQ(get_command_info(0x04), "FORMAT / FORMAT UNIT / FORMAT MEDIUM");
    EXPECT_STREQ(get_command_info(0x08), "READ(6) / RECIEVE / GET MESSAGE(6)");
    EXPECT_STREQ(get_command_info(0x7f), "variable length CDB (more than 16 bytes)");
    EXPECT_STREQ(get_command_info(0xe7), "VENDOR SPECIFIC / INITIALISE E1 WR");
}

// ---- Status, device types, versions

TEST(GetStatusInfo, NamesTheAssignedBytesAndReservesTheOthers)
{
    const std::map<unsigned int, const char *> texts = {
        {0x00, "GOOD"},
        {0x02, "CHECK CONDITION"},
        {0x04, "CONDITION MET"},
        {0x08, "BUSY"},
        {0x10, "INTERMEDIATE"},
        {0x14, "INTERMEDIATE-CONDITION MET"},
        {0x18, "RESERVATION CONFLICT"},
        {0x22, "COMMAND TERMINATED"},
        {0x28, "TASK SET FULL"},
        {0x30, "ACA ACTIVE"},
        {0x40, "TASK ABORTED"},
    };
    for (unsigned int status = 0; status < 256; status++) {
        const auto text = texts.find(status);
        EXPECT_STREQ(get_status_info(static_cast<unsigned char>(status)),
                     text == texts.end() ? "Reserved" : text->second);
    }
}

TEST(GetDeviceType, NamesTheAssignedTypesAndReservesTheOthers)
{
    const std::map<unsigned int, const char *> texts = {
        {0, "Direct access block device"},
        {1, "Sequential-access device"},
        {2, "Printer device"},
        {3, "Processor device"},
        {4, "Write-once device"},
        {5, "CDROM/DVD device"},
        {6, "Scanner device"},
        {7, "Optical memory device"},
        {8, "Media changer device"},
        {9, "Communications device"},
        {12, "Storage array controller device"},
        {13, "Enclosure services device"},
        {14, "Simplified direct-access device"},
        {15, "Optical card reader/writer device"},
        {16, "Bridge controller commands"},
        {17, "Object-based storage device"},
        {18, "Automation/Drive interface device"},
        {19, "Security Manager Device"},
        {30, "Well known logical unit"},
        {31, "Unknown"},
    };
    for (unsigned int type = 0; type < 300; type++) {
        const auto text = texts.find(type);
        EXPECT_STREQ(get_device_type(type), text == texts.end() ? "Reserved" : text->second) << type;
    }
    EXPECT_STREQ(get_device_type(~0u), "Reserved");
}

TEST(GetScsiRevision, NamesTheVersionsUpToSpc4)
{
    const char *texts[] = {"None", "SCSI-1", "SCSI-2", "SPC", "SPC-2", "SPC-3", "SPC-4"};
    for (unsigned int version = 0; version < 7; version++)
        EXPECT_STREQ(get_scsi_revision(version), texts[version]);
    EXPECT_STREQ(get_scsi_revision(7), "Unknown");
    EXPECT_STREQ(get_scsi_revision(256), "Unknown");
}

// ---- Version descriptors

TEST(StandardsList, Has118RowsInAscendingOrder)
{
    EXPECT_EQ(std::size(standards_list), 118u);
    ASSERT_EQ(standard_rows.size(), 118u);
    EXPECT_TRUE(ascends(standard_rows));
    for (size_t i = 0; i < 118; i++) {
        EXPECT_EQ(standards_list[i].code, standard_rows[i].code);
        EXPECT_EQ(standards_list[i].text, standard_rows[i].text);
    }
}

TEST(StandardsList, HoldsTheTableOfSpc4)
{
    EXPECT_EQ(digest_of(standard_rows, "%02X%02X\t"),
              "79a9188a130fc253c394500d53a6cbd8f00ccd2b11655572804fa00fc0446668");
}

TEST(StandardsList, IsARecordOfACodeAndAPointer)
{
    EXPECT_EQ(sizeof(scsi_standard), 2 * sizeof(void *));
    EXPECT_EQ(offsetof(scsi_standard, code), 0u);
    EXPECT_EQ(offsetof(scsi_standard, text), sizeof(void *));
}

TEST(GetScsiStandard, FindsEveryRow)
{
    for (const row &row : standard_rows)
        EXPECT_EQ(get_scsi_standard(row.code), row.text);
    EXPECT_STREQ(get_scsi_standard(0x0000), "Version Descriptor Not Supported or No Standard Identified");
    EXPECT_STREQ(get_scsi_standard(0x0054), "SAM-2 T10/1157-D revision 23");
    EXPECT_STREQ(get_scsi_standard(0x1748), "UAS ANSI INCITS 471-2010");
    EXPECT_STREQ(get_scsi_standard(0x2200), "PQI (no version claimed)");
}

TEST(GetScsiStandard, IsNullForAnyOtherCode)
{
    EXPECT_EQ(get_scsi_standard(0x0001), nullptr);
    EXPECT_EQ(get_scsi_standard(0xffff), nullptr);
    EXPECT_EQ(get_scsi_standard(0x10000), nullptr);
    int known = 0;
    for (unsigned int code = 0; code <= 0xffff; code++)
        known += get_scsi_standard(code) != nullptr;
    EXPECT_EQ(known, 118);
}

// ---- Texts of a firmware build

TEST(CompressedText, KeepsEveryCharacter)
{
    size_t size = 0;
    EXPECT_EQ(compressed_and_back(std::array{'A'}, size), "A");
    std::array<char, 128> all;
    std::iota(all.begin(), all.end(), '\0');
    EXPECT_EQ(compressed_and_back(all, size), text_of(all));
}

TEST(CompressedText, TakesLittleForWhatItIsJustRepeating)
{
    size_t size = 0;
    static std::array<char, 5000> bytes;
    bytes.fill('A');
    EXPECT_EQ(compressed_and_back(bytes, size), text_of(bytes));
    EXPECT_LT(size, 40u);
    for (size_t i = 0; i < bytes.size(); i++)
        bytes[i] = "LOGICAL UNIT "[i % 13];
    EXPECT_EQ(compressed_and_back(bytes, size), text_of(bytes));
    EXPECT_LT(size, 60u);
}

TEST(CompressedText, RepeatsUpToTheLongestAndBeyond)
{
    static std::array<char, 1000> bytes;
    for (size_t length = 250; length < 260; length++) {
        std::mt19937 random(1);
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random() % 128); });
        std::copy_n(bytes.begin() + 100, length, bytes.begin() + 500);
        size_t size = 0;
        EXPECT_EQ(compressed_and_back(bytes, size), text_of(bytes)) << length;
    }
}

TEST(CompressedText, LooksBackAsFarAsItSays)
{
    static std::array<char, qv::farthest_repeat + 40> bytes;
    size_t near = 0, far = 0;
    for (size_t *size : {&near, &far}) {
        const size_t distance = qv::farthest_repeat + (size == &far);
        bytes.fill('.');
        const auto *text = "A TEXT THAT IS NOWHERE ELSE";
        std::copy_n(text, 27, bytes.end() - 27);
        std::copy_n(text, 27, bytes.end() - 27 - static_cast<ptrdiff_t>(distance));
        EXPECT_EQ(compressed_and_back(bytes, *size), text_of(bytes)) << distance;
    }
    EXPECT_LT(near + 10, far);
}

TEST(CompressedText, KeepsTextsOfManyKinds)
{
    std::mt19937 random(7);
    static std::array<char, 700> bytes;
    for (unsigned int characters = 1; characters <= 128; characters++) {
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random() % characters); });
        size_t size = 0;
        EXPECT_EQ(compressed_and_back(bytes, size), text_of(bytes)) << characters;
    }
}

std::atomic<int> times_made;

void make_numbers(std::array<int, 1000> &numbers)
{
    times_made++;
    numbers.fill(7);
}

TEST(MadeAtFirstUse, IsMadeOnceByWhicheverThreadComesFirst)
{
    static constinit qv::made_at_first_use<std::array<int, 1000>, make_numbers> numbers;
    std::vector<std::thread> threads;
    std::atomic<int> sum = 0;
    EXPECT_EQ(times_made, 0);
    for (int i = 0; i < 8; i++)
        threads.emplace_back([&] { sum += numbers.get().back(); });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(sum, 8 * 7);
    EXPECT_EQ(times_made, 1);
}

TEST(GetAscascqInfo, AnswersThreadsThatAskFirstAtOnce)
{
    std::vector<std::thread> threads;
    std::vector<std::string> answers(8);
    for (std::string &answer : answers)
        threads.emplace_back(
            [&answer] { answer = get_ascascq_info(0x74, 0x79) + std::string(get_command_info(0)); });
    for (std::thread &thread : threads)
        thread.join();
    for (const std::string &answer : answers)
        EXPECT_EQ(answer, "SECURITY CONFLICT IN TRANSLATED DEVICETEST UNIT READY");
}

TEST(GetAscascqInfo, GivesTheSameTextEachTime)
{
    const char *text = get_ascascq_info(0x04, 0x01);
    get_command_info(0x7f);
    get_ascascq_info(0x74, 0x79);
    EXPECT_EQ(get_ascascq_info(0x04, 0x01), text);
}
