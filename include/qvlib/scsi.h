/*
 * SCSI codes in words: status, sense keys, additional sense codes, operation codes, and the device type,
 * version and version descriptors of INQUIRY data. The texts are those of T10's assignments in the SPC-4 era.
 *
 * Errors: no function fails otherwise than by its result, sets errno or logs.
 * Ownership: returned texts are constant; nobody releases them.
 * Threads: any thread may call any function.
 */
#ifndef QVLIB_SCSI_H
#define QVLIB_SCSI_H

#include <stdint.h>
#include <qvlib/compiler.h>

QV_BEGIN_DECLS

/* A version descriptor's code and text. */
struct scsi_standard {
    uint16_t code;    /* as in INQUIRY data, in host order */
    const char *text; /* what it stands for */
};

/* The version descriptors in ascending order of their codes. */
extern const struct scsi_standard standards_list[118];

/*
 * Returns the text of an additional sense code and its qualifier, "Unknown ASC/ASCQ" when T10's list has no
 * such row.
 *
 * ASC 40h, 4Dh and 70h, whose qualifier is a number and no code, give "NO ADDITIONAL SENSE INFORMATION",
 * "FILEMARK DETECTED" and "END-OF-PARTITION/MEDIUM DETECTED" with any qualifier.
 *
 * asc   additional sense code, 0 to 255
 * ascq  its qualifier, 0 to 255
 */
const char *get_ascascq_info(unsigned char asc, unsigned char ascq);

/*
 * Returns the text of a sense key, NULL above 15.
 *
 * key  0 to 15
 */
const char *get_condition_info(unsigned int key);

/*
 * Returns the severity of a sense key: 0 for no error, 1 for an error, 2 for a serious one; -1 above 15.
 *
 * key  0 to 15
 */
int get_condition_severity(unsigned int key);

/*
 * Returns the name of an operation code; several names, one for each kind of device, are joined by " / ".
 *
 * opcode  first byte of a command, 0 to 255
 */
const char *get_command_info(unsigned char opcode);

/*
 * Returns the text of a status byte, "Reserved" for an unassigned one.
 *
 * status  0 to 255
 */
const char *get_status_info(unsigned char status);

/*
 * Returns the text of a peripheral device type, "Reserved" for an unassigned one.
 *
 * type  0 to 31
 */
const char *get_device_type(unsigned int type);

/*
 * Returns the text of the version field of INQUIRY data, "Unknown" for an unassigned one.
 *
 * version  third byte of the data
 */
const char *get_scsi_revision(unsigned int version);

/*
 * Returns the text of a version descriptor from standards_list, or NULL.
 *
 * code  as in INQUIRY data, in host order
 */
const char *get_scsi_standard(unsigned int code);

QV_END_DECLS

#endif
