/*
 * Prints sizes, alignments and offsets of the records in the public headers, as the compiler lays them out
 * for this machine: "record size alignment", then "record.field offset size" for each of its fields.
 */
#include <qvlib.h>

#include <stddef.h>
#include <stdio.h>

#define RECORD(record)                                                                                       \
    do {                                                                                                     \
        struct aligned {                                                                                     \
            char before;                                                                                     \
            record it;                                                                                       \
        };                                                                                                   \
        printf("%s %u %u\n", #record, (unsigned)sizeof(record), (unsigned)offsetof(struct aligned, it));     \
    } while (0)
#define FIELD(record, field)                                                                                 \
    printf("%s.%s %u %u\n", #record, #field, (unsigned)offsetof(record, field),                              \
           (unsigned)sizeof(((record *)0)->field))
#define FLEXIBLE(record, field) printf("%s.%s %u\n", #record, #field, (unsigned)offsetof(record, field))

static void print_corelink(void)
{
    RECORD(clparse_node);
    FIELD(clparse_node, next);
    FIELD(clparse_node, prev);
    FIELD(clparse_node, tag);
    FIELD(clparse_node, type);
    FIELD(clparse_node, value);
    FIELD(clparse_node, value.str);
    FIELD(clparse_node, value.num);
    FIELD(clparse_node, value.boolean);
    FIELD(clparse_node, value.children);
    FIELD(clparse_node, value.func);
    FIELD(clparse_node, value.func.expand);
    FIELD(clparse_node, value.func.apply);
    FIELD(clparse_node, value.func.release);
    FIELD(clparse_node, value.func.priv);
    FIELD(clparse_node, parent);
    RECORD(clparse_head);
    FIELD(clparse_head, scanner);
    FIELD(clparse_head, root);
    FIELD(clparse_head, cursor);
    RECORD(union clparse_token);
    FIELD(union clparse_token, str);
    FIELD(union clparse_token, num);
    FIELD(union clparse_token, boolean);
}

static void print_messages(void)
{
    RECORD(corelink_msghdr);
    FIELD(corelink_msghdr, type_flags);
    FIELD(corelink_msghdr, param1);
    FIELD(corelink_msghdr, name);
    FIELD(corelink_msghdr, param2);
    FIELD(corelink_msghdr, fragment);
    FIELD(corelink_msghdr, fragment_len);
    RECORD(corelink_msgbuf);
    FIELD(corelink_msgbuf, data);
    FIELD(corelink_msgbuf, length);
}

static void print_containers(void)
{
    RECORD(q_elem);
    FIELD(q_elem, next);
    FIELD(q_elem, prev);
    FIELD(q_elem, data);
    RECORD(q_queue);
    FIELD(q_queue, list_count);
    FIELD(q_queue, lists);
    FIELD(q_queue, delete_fn);
    FIELD(q_queue, compare);
    FIELD(q_queue, clean_fn);
    FIELD(q_queue, filter_fn);
    FIELD(q_queue, slot_count);
    FLEXIBLE(q_queue, slots);
    RECORD(tree_node);
    FIELD(tree_node, key_hi);
    FIELD(tree_node, key_lo);
    FIELD(tree_node, data);
    FIELD(tree_node, left);
    FIELD(tree_node, right);
    FIELD(tree_node, word);
    RECORD(qv_reference);
    FIELD(qv_reference, count);
    FIELD(qv_reference, lock);
    FIELD(qv_reference, release);
    FIELD(qv_reference, release_arg);
}

static void print_digests(void)
{
    RECORD(struct md5_ctx);
    FIELD(struct md5_ctx, count);
    FIELD(struct md5_ctx, state);
    FIELD(struct md5_ctx, buffer);
    RECORD(struct sha1_ctx);
    FIELD(struct sha1_ctx, state);
    FIELD(struct sha1_ctx, length);
    FIELD(struct sha1_ctx, buffer);
    RECORD(struct sha256_ctx);
    FIELD(struct sha256_ctx, state);
    FIELD(struct sha256_ctx, length);
    FIELD(struct sha256_ctx, buffer);
}

static void print_devices(void)
{
    RECORD(struct scsi_standard);
    FIELD(struct scsi_standard, code);
    FIELD(struct scsi_standard, text);
    printf("standards_list %u\n", (unsigned)sizeof standards_list);
}

static void print_streams(void)
{
    RECORD(sax_attribute);
    FIELD(sax_attribute, name);
    FIELD(sax_attribute, value);
    FIELD(sax_attribute, next);
    RECORD(sax_callbacks);
    FIELD(sax_callbacks, start);
    FIELD(sax_callbacks, end);
    FIELD(sax_callbacks, reserved1);
    FIELD(sax_callbacks, reserved2);
    FIELD(sax_callbacks, characters);
    FIELD(sax_callbacks, comment);
    FIELD(sax_callbacks, error);
    RECORD(rgui_pdu);
    FIELD(rgui_pdu, opcode);
    FIELD(rgui_pdu, reserved);
    FIELD(rgui_pdu, id);
    FIELD(rgui_pdu, size);
    FLEXIBLE(rgui_pdu, payload);
}

int main(void)
{
    print_corelink();
    print_messages();
    print_containers();
    print_digests();
    print_devices();
    print_streams();
    return 0;
}
