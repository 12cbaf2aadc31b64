/*
 * SCSI codes in words. The rows stand in scsi_*.inc and below as T10 lists them; all tables but the exported
 * one are free of pointers. Long texts that a firmware build has compressed are constant once they are
 * unpacked.
 */
#include <qvlib/scsi.h>

#include "code_text.h"
#include "first_use.h"
#include "scsi_tables.h"

namespace
{

constexpr auto asc_rows()
{
    return std::to_array<qv::text_row>({
#include "scsi_asc.inc"
    });
}

constexpr auto opcode_rows()
{
    return std::to_array<qv::text_row>({
#include "scsi_opcodes.inc"
    });
}

static_assert(asc_rows().size() == 646 && opcode_rows().size() == 256);
#if defined(QVLIB_FIRMWARE)
constexpr size_t asc_count = asc_rows().size();

constexpr auto asc_and_opcode_rows()
{
    constexpr auto ascs = asc_rows();
    constexpr auto opcodes = opcode_rows();
    std::array<qv::text_row, ascs.size() + opcodes.size()> rows = {};
    std::copy(opcodes.begin(), opcodes.end(), std::copy(ascs.begin(), ascs.end(), rows.begin()));
    return rows;
}

using compressed = qv::compressed_texts<asc_and_opcode_rows>;
constinit qv::made_at_first_use<compressed::unpacked, compressed::unpack_all> asc_and_opcode_texts;

const char *asc_text(size_t row)
{
    return asc_and_opcode_texts.get().text(row);
}

const char *find_asc(uint16_t code)
{
    return asc_and_opcode_texts.get().find(code, asc_count);
}

const char *opcode_text(size_t opcode)
{
    return asc_and_opcode_texts.get().text(asc_count + opcode);
}
#else
constexpr auto asc_texts = qv::pack_texts<asc_rows, qv::sharing::none>();
constexpr auto opcode_texts = qv::pack_texts<opcode_rows, qv::sharing::many>();

const char *asc_text(size_t row)
{
    return asc_texts.text(row);
}

const char *find_asc(uint16_t code)
{
    return asc_texts.find(code);
}

const char *opcode_text(size_t opcode)
{
    return opcode_texts.text(opcode);
}
#endif

// The rows of T10's list for a range of qualifiers.
constexpr unsigned char wildcard_ascs[] = {
    0x40, // DIAGNOSTIC FAILURE ON COMPONENT NN (80h-FFh)
    0x4d, // TAGGED OVERLAPPED COMMANDS (NN = TASK TAG)
    0x70, // DECOMPRESSION EXCEPTION SHORT ALGORITHM ID OF NN
};

struct condition {
    signed char severity;
    char text[16];
};

constexpr condition conditions[] = {
    {0, "NO SENSE"},       {0, "RECOVERED ERROR"}, {1, "NOT_READY"},      {1, "MEDIUM ERROR"},
    {1, "HARDWARE ERROR"}, {1, "ILLEGAL REQUEST"}, {1, "UNIT ATTENTION"}, {1, "DATA PROTECT"},
    {1, "BLANK CHECK"},    {1, "VENDOR SPECIFIC"}, {1, "COPY ABORTED"},   {1, "ABORTED COMMAND"},
    {1, "EQUAL"},          {2, "VOLUME OVERFLOW"}, {1, "MISCOMPARE"},     {1, "SENSE RESERVED"},
};
static_assert(std::size(conditions) == 16);

// T10 SAM-4, status codes.
constexpr qv::code_text<27> status_texts[] = {
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

// T10 SPC-4, peripheral device types.
constexpr qv::code_text<34> device_types[] = {
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

// T10 SPC-4, standard INQUIRY data, version.
constexpr qv::code_text<7> revisions[] = {
    {0, "None"}, {1, "SCSI-1"}, {2, "SCSI-2"}, {3, "SPC"}, {4, "SPC-2"}, {5, "SPC-3"}, {6, "SPC-4"},
};

} // namespace

const struct scsi_standard standards_list[118] = {
#include "scsi_standards.inc"
};
static_assert(sizeof(standards_list) / sizeof(standards_list[0]) == 118);

const char *get_ascascq_info(unsigned char asc, unsigned char ascq)
{
    for (size_t i = 0; i < std::size(wildcard_ascs); i++) {
        // The text of the exact row at the same place, not the wildcard's own: daemons rely on it.
        if (wildcard_ascs[i] == asc)
            return asc_text(i);
    }
    const char *text = find_asc(static_cast<uint16_t>(asc << 8 | ascq));
    return text != nullptr ? text : "Unknown ASC/ASCQ";
}

const char *get_condition_info(unsigned int key)
{
    return key < std::size(conditions) ? conditions[key].text : nullptr;
}

int get_condition_severity(unsigned int key)
{
    return key < std::size(conditions) ? conditions[key].severity : -1;
}

const char *get_command_info(unsigned char opcode)
{
    return opcode_text(opcode);
}

const char *get_status_info(unsigned char status)
{
    return qv::find_text<status_texts>(status, "Reserved");
}

const char *get_device_type(unsigned int type)
{
    return qv::find_text<device_types>(type, "Reserved");
}

const char *get_scsi_revision(unsigned int version)
{
    return qv::find_text<revisions>(version, "Unknown");
}

const char *get_scsi_standard(unsigned int code)
{
    const auto *end = std::end(standards_list);
    const auto *found =
        std::lower_bound(std::begin(standards_list), end, code,
                         [](const scsi_standard &row, unsigned int wanted) { return row.code < wanted; });
    return found != end && found->code == code ? found->text : nullptr;
}
