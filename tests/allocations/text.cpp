// Strings, transceiver reports, encodings, digests, SCSI codes, XML.

#include "scenario.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

using namespace allocations;

namespace
{

// A text that functions grow. One that could not grow is NULL, and its block is lost to the caller.
class growing_text
{
  public:
    explicit growing_text(const char *start)
    {
        EXPECT_GE(__qv_asprintf(&text, "scenario", 1, "%s", start), 0);
    }
    ~growing_text()
    {
        release(text);
    }
    growing_text(const growing_text &) = delete;
    growing_text &operator=(const growing_text &) = delete;

    // What a call that grows the text made of it.
    void expect(bool succeeded, const std::string &expected)
    {
        EXPECT_EQ(succeeded, text != nullptr);
        if (succeeded) {
            EXPECT_EQ(text, expected);
        } else {
            EXPECT_TRUE(failed());
            may_stay("the block of a text that could not grow");
        }
    }

    char *text = nullptr;
};

QV_PRINTF(3, 4) int format_with_list(char **out, const char *name, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const int result = CALL(__qv_vasprintf, out, name, 1, fmt, ap);
    va_end(ap);
    return result;
}

QV_PRINTF(2, 3) int append_with_list(char **text, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    const int result = CALL(qv_vaasprintf, text, fmt, ap);
    va_end(ap);
    return result;
}

} // namespace

SCENARIO(format_texts)
{
    char *text = nullptr;
    int length = CALL(__qv_asprintf, &text, "scenario", 1, "%s-%d", "one", 2);
    EXPECT_EQ(length, text ? 5 : -1);
    expect_text(text, "one-2");
    release(text);
    length = format_with_list(&text, "scenario", "%s", "three");
    EXPECT_EQ(length, text ? 5 : -1);
    expect_text(text, "three");
    release(text);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    const int written = CALL(qv_fdprintf, nowhere, "%s", "four");
    EXPECT_TRUE(written == 4 || (written == 0 && failed()));
    close(nowhere);
}

SCENARIO(grow_texts)
{
    {
        growing_text text("one");
        text.expect(CALL(qv_aasprintf, &text.text, "-%s", "two") == 4, "one-two");
    }
    {
        growing_text text("one");
        text.expect(append_with_list(&text.text, "-%s", "three") == 6, "one-three");
    }
    {
        growing_text text("a\"b\"");
        text.expect(CALL(replace_quotes, &text.text) == 6, "a\\\"b\\\"");
    }
    {
        growing_text text("<'&");
        text.expect(CALL(replace_xml_entities, &text.text, 0) == 15, "&lt;&apos;&amp;");
    }
    {
        growing_text text("options: ");
        text.expect(CALL(sfp_option, 0x001a, &text.text) != nullptr, "options: TX_DISABLE, TX_FAULT, Rx_LOS");
    }
}

// The appends of a growing list are not checked: its text is NULL then, and the result 0.
SCENARIO(append_array_elements)
{
    growing_text text("[5]");
    EXPECT_EQ(CALL(cl_cat_array_element, &text.text, 0, "%d", 6), 0);
    text.expect(text.text != nullptr, "[5,6]");
    char fixed[16] = "[]";
    char *buffer = fixed;
    EXPECT_EQ(CALL(cl_cat_array_element, &buffer, sizeof fixed, "%d", 6), 0);
    EXPECT_STREQ(fixed, "[6]");
}

SCENARIO(report_transceiver)
{
    if (tracked())
        may_report("a session does not know the block that the options are gathered in");
    unsigned char block[SFP_BLOCK_SIZE] = {3, 0, 7};
    memcpy(block + 20, "Quaverlight     ", 16);
    block[65] = 0x1a;
    char *text = nullptr;
    const int result = CALL(sfp_to_corelink, block, &text);
    if (result == 0) {
        EXPECT_EQ(
            strncmp(text, "sfp_data=[{Id=\"sfp_vendor_name\",Name=\"Vendor name\",Value=\"Quaverlight ", 70),
            0);
        clparse_head *head = clparse_start(text);
        EXPECT_TRUE(head);
        EXPECT_EQ(clparse_get_type(head, "sfp_data.14.Value"), CLPARSE_TYPE_STRING);
        clparse_stop(head);
    } else {
        EXPECT_TRUE(failed());
    }
    if (failed())
        may_stay("the block of a text that could not grow");
    release(text);
}

SCENARIO(decode_transceiver)
{
    EXPECT_STREQ(CALL(sfp_id, 3), "SFP transceiver");
    EXPECT_STREQ(CALL(sfp_connector, 7), "LC");
    EXPECT_STREQ(CALL(sfp_fc_rscc, 7), "Reserved");
    EXPECT_STREQ(CALL(sfp_fc_gecc, 1), "1000BASE-SX");
    EXPECT_STREQ(CALL(sfp_fc_link_len, 0x10), "long distance (L)");
    EXPECT_STREQ(CALL(sfp_fc_trans, 1), "Single Mode (SM)");
    EXPECT_STREQ(CALL(sfp_fc_speed, 1), "1 Gbit/Sec");
    EXPECT_STREQ(CALL(sfp_encoding, 1), "8B10B");
    EXPECT_STREQ(CALL(sfp_fc_sonet, 1, 0), "OC 48 short reach");
    EXPECT_STREQ(CALL(sfp_fc_tx, 2, 0), "Longwave laser (LC)");
}

SCENARIO(look_up_scsi_codes)
{
    EXPECT_STREQ(CALL(get_ascascq_info, 0x00, 0x01), "FILEMARK DETECTED");
    EXPECT_STREQ(CALL(get_condition_info, 2), "NOT_READY");
    EXPECT_EQ(CALL(get_condition_severity, 13), 2);
    EXPECT_STREQ(CALL(get_command_info, 0x08), "READ(6) / RECIEVE / GET MESSAGE(6)");
    EXPECT_STREQ(CALL(get_status_info, 0x08), "BUSY");
    EXPECT_STREQ(CALL(get_device_type, 2), "Printer device");
    EXPECT_STREQ(CALL(get_scsi_revision, 3), "SPC");
    EXPECT_EQ(CALL(get_scsi_standard, 1), nullptr);
}

SCENARIO(edit_texts)
{
    char text[] = "  --ab c!!";
    EXPECT_STREQ(CALL(trim_alnum, text), "ab c");
    EXPECT_EQ(CALL(qv_memstr, "haystack", 8, "st"), 3);
    EXPECT_EQ(CALL(str2bool, "Yes"), 1);
}

SCENARIO(encode)
{
    const uint8_t bytes[8] = {1};
    char text[64] = {};
    uint8_t decoded[64] = {};
    EXPECT_EQ(CALL(base32_encode, bytes, 7, text, sizeof text, 3), 13);
    EXPECT_EQ(CALL(base32_decode, text, decoded, 3), 7);
    EXPECT_EQ(CALL(base64_encode, bytes, text, 3, 0), 4);
    EXPECT_EQ(CALL(base64_decode, text, decoded, 4), 3);
    EXPECT_EQ(CALL(hex_encode, bytes, 2, text), 4U);
    EXPECT_EQ(CALL(hex_decode, text, decoded, sizeof decoded), 2);
    EXPECT_EQ(CALL(crc32c, "123456789", 9), 0x839206e3U);
    char digits[] = "123456789";
    const iovec pieces[] = {{digits, 4}, {digits + 4, 5}};
    EXPECT_EQ(CALL(crc32cv, pieces, 2), 0x839206e3U);
    EXPECT_EQ(CALL(hash_buf, "", 0), 0x811c9dc5U);
    EXPECT_EQ(CALL(hash_buf_64, "", 0), 0xcbf29ce484222325U);
    EXPECT_EQ(CALL(hash_str, ""), 0x811c9dc5U);
    EXPECT_EQ(CALL(hash_str_64, ""), 0xcbf29ce484222325U);
}

SCENARIO(compute_integers)
{
    const uint64_t five = 5, four = 4;
    EXPECT_EQ(CALL(is_valid_fc_al_pa, 0xef), 1);
    EXPECT_EQ(CALL(clz, 1), 31);
    EXPECT_EQ(CALL(ctz, 8), 3);
    EXPECT_EQ(CALL(qv_ilog2, 8), 3U);
    EXPECT_EQ(CALL(qv_ilog2_64, uint64_t{1} << 40), 40U);
    EXPECT_EQ(CALL(isqrt32, 81), 9U);
    EXPECT_EQ(CALL(cmpnumle64, &five, &four), 0);
    EXPECT_EQ(CALL(cmpnumbe64, &five, &four), 0);
    EXPECT_STREQ(CALL(get_si_unit, 1024), "KiB");
    EXPECT_EQ(CALL(get_si_scale, 1024), 0U);
}

SCENARIO(digest)
{
    uint8_t whole[32], pieces[32];
    md5_ctx md5;
    CALL(md5_init, &md5);
    CALL(md5_append, &md5, "abc", 3);
    CALL(md5_finish, &md5, pieces);
    CALL(md5_single, "abc", 3, whole);
    EXPECT_EQ(memcmp(whole, pieces, 16), 0);
    sha1_ctx sha1;
    CALL(sha1_init, &sha1);
    CALL(sha1_append, &sha1, "abc", 3);
    CALL(sha1_finish, &sha1, pieces);
    CALL(sha1_single, "abc", 3, whole);
    EXPECT_EQ(memcmp(whole, pieces, 20), 0);
    sha256_ctx sha256;
    CALL(sha256_init, &sha256);
    CALL(sha256_append, &sha256, "abc", 3);
    CALL(sha256_finish, &sha256, pieces);
    CALL(sha256_single, "abc", 3, whole);
    EXPECT_EQ(memcmp(whole, pieces, 32), 0);
    char stored[SSHA_TEXT_SIZE] = {};
    EXPECT_EQ(CALL(ssha_generate, "secret", stored), stored);
    EXPECT_EQ(CALL(ssha_check, "secret", stored), 0);
}

SCENARIO(handle_vectors)
{
    char bytes[25];
    const iovec vector[] = {{bytes, 10}, {bytes + 10, 0}, {bytes + 10, 10}, {bytes + 20, 5}};
    EXPECT_EQ(CALL(size_iovec, vector, 4), 25U);
    size_t offset = 12;
    int index = 0;
    CALL(check_end_of_iov, vector, 4, &offset, &index);
    EXPECT_EQ(index, 2);
    char flat[25];
    EXPECT_EQ(CALL(linearise_iovec, vector, 4, flat, 25), flat + 25);
    CALL(delinearise_to_iovec, vector, 4, flat, 25);
    iovec scratch[1];
    iovec *subset = nullptr;
    int count = 0;
    if (CALL(fill_iovec_subset, &subset, &count, 17, 5, scratch, 1, vector, 4) == 0) {
        EXPECT_EQ(count, 4);
        EXPECT_EQ(size_iovec(subset, count), 17U);
        free(subset);
    } else {
        EXPECT_TRUE(failed());
    }
    EXPECT_EQ(CALL(fill_iovec_subset, &subset, &count, 5, 0, scratch, 1, vector, 4), 0);
    EXPECT_EQ(subset, scratch);
}

// ---- XML

namespace
{

struct heard {
    int starts = 0, attributes = 0, ends = 0, errors = 0;
    size_t characters = 0;
    std::string message;
};

heard &heard_by(void *cookie)
{
    return *static_cast<heard *>(cookie);
}

constexpr sax_callbacks listening = {
    [](void *, const sax_attribute *attributes, void *cookie) {
        heard_by(cookie).starts++;
        for (; attributes; attributes = attributes->next)
            heard_by(cookie).attributes++;
    },
    [](void *, void *cookie) { heard_by(cookie).ends++; },
    nullptr,
    nullptr,
    [](const char *, size_t length, void *cookie) { heard_by(cookie).characters += length; },
    [](const char *, void *, void *) {},
    [](const char *message, void *cookie) {
        heard_by(cookie).errors++;
        heard_by(cookie).message = message;
    },
};

} // namespace

SCENARIO(read_xml)
{
    char text[] = "<a x=\"1\" y=\"2\"><b z=\"3\"/>text<!-- no --></a>";
    FILE *stream = fmemopen(text, sizeof text - 1, "r");
    char stream_buffer[512];
    setvbuf(stream, stream_buffer, _IOFBF, sizeof stream_buffer);
    heard all;
    if (CALL(sax_parse_file, stream, &listening, &all) == 0) {
        EXPECT_EQ(all.starts, 2);
        EXPECT_EQ(all.attributes, 3);
        EXPECT_EQ(all.ends, 2);
        EXPECT_EQ(all.characters, 4U);
    } else {
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(all.errors, 1);
        EXPECT_EQ(all.message, "Cannot allocate memory");
        EXPECT_TRUE(failed());
        may_stay("the attributes of a tag that an error cuts short");
    }
    fclose(stream);
}
