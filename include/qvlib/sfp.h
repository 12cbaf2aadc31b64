/*
 * SFP and GBIC transceivers: the identification block (SFF-8472, two-wire address A0h) in words.
 *
 * A decoder compares a code byte with the values that it knows; bits are not decoded one by one.
 *
 * code  the byte of the block
 *
 * Errors: decoders do not fail. errno is the allocator's where memory is short; nothing is logged.
 * Ownership: the decoders' texts are constant; nobody releases them.
 * Threads: no state is kept; any thread may call any function.
 */
#ifndef QVLIB_SFP_H
#define QVLIB_SFP_H

#include <stdint.h>
#include <qvlib/compiler.h>

QV_BEGIN_DECLS

/* Bytes of the identification block that sfp_to_corelink reads. */
enum { SFP_BLOCK_SIZE = 84 };

/* Returns the text of one byte of the block, never NULL. */
const char *sfp_id(unsigned char code);           /* byte 0, identifier */
const char *sfp_connector(unsigned char code);    /* byte 2, connector */
const char *sfp_fc_rscc(unsigned char code);      /* byte 3; "Reserved", whatever the code */
const char *sfp_fc_gecc(unsigned char code);      /* byte 6, Gigabit Ethernet compliance */
const char *sfp_fc_link_len(unsigned char code);  /* byte 7, bits 7 to 3: Fibre Channel link length */
const char *sfp_fc_trans(unsigned char code);     /* byte 9, Fibre Channel transmission media */
const char *sfp_fc_speed(unsigned char code);     /* byte 10, Fibre Channel speed */
const char *sfp_encoding(unsigned char code);     /* byte 11, encoding */

/*
 * Returns the SONET compliance, never NULL: byte 4 decides when its value is known, else byte 5.
 *
 * byte4, byte5  those bytes of the block
 */
const char *sfp_fc_sonet(unsigned char byte4, unsigned char byte5);

/*
 * Returns the Fibre Channel technology, never NULL: bits 2 to 0 of byte 7 decide when their value is known,
 * else byte 8.
 *
 * byte7, byte8  those bytes of the block
 */
const char *sfp_fc_tx(unsigned char byte7, unsigned char byte8);

/*
 * Appends the texts of the options that are set, from bit 15 down and separated by ", ", to an allocated
 * text. What was appended is cut at its last comma; without any option the text stays as it is.
 *
 * options  bytes 64 and 65 of the block, byte 64 the upper one
 * text     a text of the kind that qv_aasprintf grows; grown in place
 *
 * Returns *text, or NULL when text or *text is NULL or memory is short (*text is NULL then).
 * Ownership: the text stays the caller's.
 */
char *sfp_option(uint16_t options, char **text);

/*
 * Writes a report of an identification block, "sfp_data=[{Id="sfp_vendor_name",Name="Vendor
 * name",Value="..."},...]": a corelink member with an array of fifteen structs, which clparse_start reads.
 *
 * block  SFP_BLOCK_SIZE bytes. The vendor's texts are copied as they are, trailing spaces included, up to a
 *        zero byte; a quote or backslash in them is not escaped.
 * out    set to a new text
 *
 * Returns 0, or a negative value: an argument is NULL, or memory is short (*out is then unset, NULL or holds
 * a part of the report).
 * Ownership: release *out with qv_memcheck_free(qv_free, ...).
 *
 * The options are gathered in a plain block, which a running memory debugger does not know: it reports the
 * block's growth, and the options of a block that has any read as the C library's text for a NULL string.
 */
int sfp_to_corelink(const unsigned char *block, char **out);

QV_END_DECLS

#endif
