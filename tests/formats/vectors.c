/*
 * Prints the bytes of every format that leaves the process or that foreign code looks at. A line begins with
 * the machines that it holds for: "every", or "big" or "little" where the format is in the machine's own byte
 * order. The lines of this machine's kind are compared with vectors.golden, which holds both.
 */
#include <qvlib.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

static void print_bytes(const char *machines, const char *what, const void *bytes, size_t length)
{
    const unsigned char *next = bytes;
    printf("%-6s %s:", machines, what);
    while (length-- > 0)
        printf(" %02x", *next++);
    putchar('\n');
}

static const char *own_order(void)
{
    const uint32_t one = 1;
    unsigned char first;
    memcpy(&first, &one, 1);
    return first ? "little" : "big";
}

static void fill(unsigned char *bytes, size_t length)
{
    size_t i;
    for (i = 0; i < length; i++)
        bytes[i] = (unsigned char)(7 * i + 3);
}

/* ---- Datagrams: the header in the machine's order, as it lies on the loopback interface */

static void print_datagrams(void)
{
    static const char *const names[] = {"datagram 0 of 2", "datagram 1 of 2"};
    unsigned char body[4099], datagram[5000];
    struct sockaddr_in address;
    socklen_t size = sizeof address;
    const int fd = corelink_setup_socket(NULL);
    int i;
    fill(body, sizeof body);
    if (fd < 0 || getsockname(fd, (struct sockaddr *)&address, &size) != 0 ||
        corelink_sendmsg_parts(fd, ntohs(address.sin_port), 0x82, 0x01020304, "configuration", 0xa1b2c3d4,
                               body, sizeof body) != 0) {
        printf("datagrams: not sent\n");
        return;
    }
    for (i = 0; i < 2; i++) {
        const ssize_t got = recv(fd, datagram, sizeof datagram, 0);
        print_bytes(own_order(), names[i], datagram, got < 52 ? (size_t)got : 51);
        printf("every  %s: %d bytes\n", names[i], (int)got);
    }
    close(fd);
}

/* ---- Remote GUI relay: its PDUs in the machine's order, as they are handed to the channel */

struct channel {
    sem_t carried;
    unsigned char pdus[2][16];
    size_t lengths[2];
    int count;
};

static int carry(rgui_pdu *pdu, size_t length, void *cookie)
{
    struct channel *channel = cookie;
    if (channel->count < 2) {
        channel->lengths[channel->count] = length;
        memcpy(channel->pdus[channel->count], pdu, length < 16 ? length : 16);
        channel->count++;
        sem_post(&channel->carried);
    }
    free(pdu);
    return 0;
}

/* A client of the session, on a port that was free a moment ago; its first bytes are "abc". */
static int connect_client(rgui_session **session, struct channel *channel)
{
    struct sockaddr_in address = {0};
    socklen_t size = sizeof address;
    char service[8];
    const int probe = socket(AF_INET, SOCK_STREAM, 0), client = socket(AF_INET, SOCK_STREAM, 0);
    int tries;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(probe, (struct sockaddr *)&address, size) != 0 ||
        getsockname(probe, (struct sockaddr *)&address, &size) != 0)
        return -1;
    close(probe);
    snprintf(service, sizeof service, "%d", (int)ntohs(address.sin_port));
    *session = rgui_start_local("127.0.0.1", service, NULL, carry, channel);
    for (tries = 0; tries < 1000; tries++) {
        if (connect(client, (struct sockaddr *)&address, sizeof address) == 0)
            return send(client, "abc", 3, 0) == 3 ? client : -1;
        usleep(10000); /* the session's thread has yet to listen */
    }
    return -1;
}

static void print_pdus(void)
{
    static const char *const names[] = {"PDU of a new connection", "PDU of its bytes"};
    static struct channel channel;
    rgui_session *session = NULL;
    int client, i;
    sem_init(&channel.carried, 0, 0);
    client = connect_client(&session, &channel);
    if (client < 0) {
        printf("PDUs: no connection\n");
        return;
    }
    for (i = 0; i < 2; i++)
        sem_wait(&channel.carried);
    close(client);
    rgui_stop_local(session);
    for (i = 0; i < 2; i++)
        print_bytes(own_order(), names[i], channel.pdus[i],
                    channel.lengths[i] < 16 ? channel.lengths[i] : 16);
    sem_destroy(&channel.carried);
}

/* ---- Guard markers: the underlying block of a tracked block, in the machine's order */

static unsigned char underlying[24];

static void *take_underlying(size_t size)
{
    return size <= sizeof underlying ? underlying : NULL;
}

static void keep_underlying(void *block)
{
    printf("every  tracked block: released at its %d. byte\n", (int)((unsigned char *)block - underlying));
}

static void print_markers(void)
{
    const int console = open("/dev/null", O_WRONLY);
    unsigned char *block;
    qv_log_setlevel(-1);
    if (qv_memcheck_start(NULL, console, NULL) != 0) {
        printf("tracked block: no session\n");
        return;
    }
    block = qv_memcheck_malloc(take_underlying, 5, "print_markers", 1);
    if (block) {
        printf("every  tracked block: the caller's begin at the %d. byte\n", (int)(block - underlying));
        memcpy(block, "\x01\x02\x03\x04\x05", 5);
        print_bytes(own_order(), "tracked block of 5 bytes", underlying, 13);
        qv_memcheck_free(keep_underlying, block, "vectors.c:1");
    }
    qv_memcheck_stop();
    close(console);
}

/* ---- Checksums and hashes: the same values everywhere, and CRC-32C's bytes as they are stored */

static void print_checksums(void)
{
    static const size_t lengths[] = {0, 1, 3, 4, 7, 8, 15, 16, 63, 64, 65, 255, 256, 1023, 1024, 4096, 4097};
    unsigned char bytes[4098];
    struct iovec pieces[3];
    size_t i;
    uint32_t crc;
    fill(bytes, sizeof bytes);
    for (i = 0; i < sizeof lengths / sizeof *lengths; i++) {
        const size_t length = lengths[i];
        printf("every  %d bytes: crc32c %08x hash %08x %016llx\n", (int)length,
               (unsigned int)crc32c(bytes + 1, length), (unsigned int)hash_buf(bytes + 1, length),
               (unsigned long long)hash_buf_64(bytes + 1, length));
    }
    pieces[0].iov_base = bytes;
    pieces[0].iov_len = 5;
    pieces[1].iov_base = bytes + 5;
    pieces[1].iov_len = 1000;
    pieces[2].iov_base = bytes + 1005;
    pieces[2].iov_len = 3093;
    printf("every  pieces: crc32cv %08x\n", (unsigned int)crc32cv(pieces, 3));
    crc = crc32c("123456789", 9);
    print_bytes(own_order(), "crc32c of 123456789, stored", &crc, sizeof crc);
    printf("every  text: hash %08x %016llx\n", (unsigned int)hash_str("unit.contact.note"),
           (unsigned long long)hash_str_64("unit.contact.note"));
}

/* ---- Digests and salted passwords */

static void print_digests(void)
{
    static const size_t lengths[] = {0, 3, 55, 56, 63, 64, 65, 119, 128, 1000};
    unsigned char bytes[1000];
    uint8_t digest[32];
    size_t i;
    fill(bytes, sizeof bytes);
    for (i = 0; i < sizeof lengths / sizeof *lengths; i++) {
        char name[32];
        snprintf(name, sizeof name, "md5 of %d bytes", (int)lengths[i]);
        md5_single(bytes, lengths[i], digest);
        print_bytes("every", name, digest, 16);
        snprintf(name, sizeof name, "sha1 of %d bytes", (int)lengths[i]);
        sha1_single(bytes, lengths[i], digest);
        print_bytes("every", name, digest, 20);
        snprintf(name, sizeof name, "sha256 of %d bytes", (int)lengths[i]);
        sha256_single(bytes, lengths[i], digest);
        print_bytes("every", name, digest, 32);
    }
    printf("every  salted password: right %d, wrong %d\n",
           ssha_check("secret", "{SSHA}uJDd0BIdJ9Z7yDCZNWdgYeb33+cBAgME"),
           ssha_check("Secret", "{SSHA}uJDd0BIdJ9Z7yDCZNWdgYeb33+cBAgME"));
}

/* ---- Encodings */

static void print_encodings(void)
{
    unsigned char bytes[101];
    uint8_t decoded[101];
    char text[400];
    int length, count;
    fill(bytes, sizeof bytes);
    for (length = 0; length <= 20; length += 5) {
        base32_encode(bytes, (size_t)length, text, sizeof text, 3);
        printf("every  base32 of %d bytes: %s\n", length, text);
        count = base32_decode(text, decoded, 3);
        printf("every  base32 back: %d %d\n", count, memcmp(decoded, bytes, (size_t)length));
    }
    for (length = 0; length <= 100; length += length < 5 ? 1 : 19) {
        count = base64_encode(bytes, text, (size_t)length, 0);
        printf("every  base64 of %d bytes: %.*s\n", length, count, text);
        printf("every  base64 back: %d\n", base64_decode(text, decoded, (size_t)count));
        hex_encode(bytes, (size_t)length, text);
        printf("every  hex of %d bytes: %s\n", length, text);
    }
    count = hex_decode("0x123456789abcdef", decoded, 8);
    print_bytes("every", "hex read", decoded, (size_t)count);
}

/* ---- Keys: as two halves in a node, the upper one first, each in the machine's order */

static void print_keys(void)
{
    static const uint64_t keys[] = {0x0102030405060708u, 0x0102030405060709u, 0xf102030405060708u};
    tree_node *head = NULL;
    size_t i;
    for (i = 0; i < 3; i++) {
        tree_node **found;
        head = avl_create_node(head, keys[i], underlying);
        found = generic_find_node(head, keys[i]);
        if (!found) {
            printf("key: not found\n");
            continue;
        }
        printf("every  key %016llx: halves %08x %08x\n", (unsigned long long)keys[i],
               (unsigned int)(*found)->key_hi, (unsigned int)(*found)->key_lo);
        print_bytes(own_order(), "key in a node", *found, 8);
    }
    for (i = 0; i < 3; i++)
        head = avl_delete_node(head, keys[i]);
}

/* ---- Corelink text, and the transceiver report that is made of bytes */

static void print_texts(void)
{
    static const char source[] = "unit={name=\"l\xc3\xa9"
                                 "ft\",serial=0xFEDCBA9876543210,up=true,spare},list=[1,{a=2},[\"x\"]]";
    unsigned char block[SFP_BLOCK_SIZE];
    char *text = NULL;
    uint64_t serial = 0;
    clparse_head *head = clparse_start(source);
    if (!head) {
        printf("text: not read\n");
        return;
    }
    clparse_get_number(head, &serial, "unit.serial");
    printf("every  number: %llu\n", (unsigned long long)serial);
    clparse_get_corelink(head, &text, 0);
    printf("every  corelink: %s\n", text ? text : "none");
    qv_memcheck_free(qv_free, text, "vectors.c:2");
    text = clparse_get_json(head);
    printf("every  json: %s\n", text ? text : "none");
    qv_memcheck_free(qv_free, text, "vectors.c:3");
    clparse_stop(head);

    memset(block, ' ', sizeof block);
    memcpy(block, "\x03\x04\x07\x00\x00\x00\x20\x40\x0c\x05\x01\x55\x00\x0a\x64\x32", 16);
    block[64] = 0x00;
    block[65] = 0x1a;
    text = NULL;
    sfp_to_corelink(block, &text);
    printf("every  transceiver: %s\n", text ? text : "none");
    qv_memcheck_free(qv_free, text, "vectors.c:4");
}

int main(void)
{
    print_datagrams();
    print_pdus();
    print_markers();
    print_checksums();
    print_digests();
    print_encodings();
    print_keys();
    print_texts();
    return 0;
}
