/*
 * unitd: a daemon that owns a configuration and answers messages about it; shows how a host uses the library.
 *
 * It reads a corelink file, opens a port on 127.0.0.1 and serves there, one message after the other:
 *
 *   type  operation  body of the question     body of the answer
 *   1     query      "unit.name, ports.fc1"   the members asked for, filled where they are single values
 *   2     update     "unit.name=\"left\""     "done=true"; refused for members that are not there
 *   3     insert     as update                "done=true"; members that are not there are appended
 *
 * plus 0x40 for an answer in JSON. An answer has the question's type plus 0x80, and plus 0x20 when the
 * question was refused: its body is then "fault=..." and the configuration is as it was. unit_messages.h
 * tells the fields; `qvl ask` asks. Changes are kept in memory, the file stays as it is.
 *
 * Order: signals first, since threads inherit their mask; logging, so that what follows is heard; the memory
 * debugger, since a block must be released as it was allocated; then everything else. It ends in reverse.
 *
 * Signals: SIGTERM and SIGINT are blocked everywhere and waited for by the main thread alone. SIGUSR1 has a
 * handler that does nothing, without SA_RESTART: the library wakes its own threads with it. SIGPIPE is
 * ignored.
 *
 * Threads: the messages' thread alone uses the configuration while it runs; the main thread before and after.
 *
 * Ownership: trees are released by clparse_stop, texts of the library's by qv_memcheck_free, messages by
 * free().
 */
#include <arpa/inet.h>
#include <errno.h>
#include <linux/filter.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>
#include <qvlib.h>
#include "unit_messages.h"

#define STRING_OF(x) #x
#define LINE_TEXT(x) STRING_OF(x)
#define HERE "unitd.c:" LINE_TEXT(__LINE__) /* the memory debugger names it when a release goes wrong */

enum { UNIT_OPERATION = 0x1f };
enum { LONGEST_FILE = 16 << 20 };

struct options {
    const char *file;
    const char *port;
    unsigned int telnet_port;
    int level;
    int echo;
    const char *console; /* port of the memory debugger, NULL for none */
};

struct unit {
    int fd;
    clparse_head *config;
    pthread_t main_thread;
    int failed; /* set by the messages' thread, read after it was joined */
};

struct question {
    corelink_msghdr header;
    uint16_t asker; /* port */
    char *body;     /* NUL-terminated */
    uint32_t length;
};

/* ---- Trees
 * ------------------------------------------------------------------------------------------------- */

static int is_container(const clparse_node *node)
{
    return node->type == CLPARSE_TYPE_STRUCT || node->type == CLPARSE_TYPE_ARRAY;
}

static int has_tag(const clparse_node *node, const char *tag)
{
    return node->tag != NULL && tag != NULL && strcmp(node->tag, tag) == 0;
}

/* The node that follows in document order; NULL behind the last one. */
static clparse_node *next_node(const clparse_node *root, clparse_node *node)
{
    if (is_container(node) && node->value.children->next != node->value.children)
        return node->value.children->next;
    for (; node != root; node = node->parent) {
        if (node->next != node->parent->value.children)
            return node->next;
    }
    return NULL;
}

/* Returns a copy of a string in which what the library's writers do not escape is escaped; NULL without
 * memory. */
static char *escape(const char *value, int json)
{
    static const char digits[] = "0123456789abcdef";
    char *copy = qv_memcheck_malloc(malloc, 6 * strlen(value) + 1, __func__, __LINE__);
    if (copy == NULL)
        return NULL;
    char *end = copy;
    for (; *value != '\0'; ++value) {
        const unsigned char byte = (unsigned char)*value;
        if (json && byte < 0x20) {
            memcpy(end, "\\u00", 4);
            end[4] = digits[byte >> 4];
            end[5] = digits[byte & 15];
            end += 6;
            continue;
        }
        if (byte == '\\')
            *end++ = '\\';
        *end++ = (char)byte;
    }
    *end = '\0';
    return copy;
}

/* The writers escape quotes alone; backslashes, and control characters in JSON, are their caller's. */
static int escape_strings(clparse_head *head, int json)
{
    clparse_node *root = clparse_get_head(head);
    for (clparse_node *node = root; node != NULL; node = next_node(root, node)) {
        if (node->type != CLPARSE_TYPE_STRING || node->value.str == NULL)
            continue;
        char *escaped = escape(node->value.str, json);
        if (escaped == NULL)
            return -1;
        clparse_set_node_value_s(node, escaped);
        qv_memcheck_free(qv_free, escaped, HERE);
        if (node->value.str == NULL)
            return -1;
    }
    return 0;
}

/* Writes a tree, whose strings it escapes, as an answer's body. Returns NULL when memory is short. */
static char *write_tree(clparse_head *head, int json)
{
    char *text = NULL;
    if (escape_strings(head, json) != 0)
        return NULL;
    if (!json)
        return clparse_get_corelink(head, &text, 0) == 0 ? text : NULL;
    char *members = clparse_get_json(head);
    if (members == NULL)
        return NULL;
    if (qv_asprintf(&text, "{%s}", members) < 0)
        text = NULL;
    qv_memcheck_free(qv_free, members, HERE);
    return text;
}

/* ---- Operations
 * -------------------------------------------------------------------------------------------- */

/*
 * As the library's own action, but a container stays one: its children would stay allocated for ever, and any
 * process of the host can send.
 */
static int take_value(clparse_node *target, clparse_node *source)
{
    if (is_container(target))
        return -1;
    return clparse_dfl_found_action(target, source);
}

static int would_take_value(clparse_node *target, clparse_node *source)
{
    return !is_container(target) && !is_container(source) && has_tag(target, source->tag) ? 0 : -1;
}

/* The node that a merge stopped at; merges hand their actions no argument to keep it in. */
static const clparse_node *refused;

static int refuse(clparse_node *container, clparse_node *source)
{
    (void)container;
    refused = source;
    return -1;
}

/* Elements of arrays are always new. Members must not be there as another type, nor arrays meet structs. */
static int refuse_unless_new(clparse_node *container, clparse_node *source)
{
    if (container->type != source->parent->type)
        return refuse(container, source);
    if (source->tag == NULL)
        return 0;
    const clparse_node *sentinel = container->value.children;
    for (const clparse_node *child = sentinel->next; child != sentinel; child = child->next) {
        if (has_tag(child, source->tag))
            return refuse(container, source);
    }
    return 0;
}

/* Merges change the target up to where they stop, so the whole change is looked through first. */
static int change(clparse_head *config, clparse_head *source, int insert)
{
    refused = NULL;
    if (clparse_search_tree(clparse_get_head(config), clparse_get_head(source), would_take_value,
                            insert ? refuse_unless_new : refuse) != 0)
        return -1;
    return insert ? clparse_insert(config, source) : clparse_update(config, source);
}

/* clparse_select, with an action of our own. */
static int query(clparse_head *config, clparse_head *wanted)
{
    return clparse_search_tree(clparse_get_head(wanted), clparse_get_head(config), take_value, NULL);
}

/* ---- Messages
 * ---------------------------------------------------------------------------------------------- */

static unsigned int type_of(const struct question *question)
{
    return question->header.type_flags >> 24;
}

static void send_answer(const struct unit *unit, const struct question *question, unsigned int flags,
                        clparse_head *head)
{
    const unsigned int type = type_of(question) | UNIT_ANSWER | flags;
    char *text = write_tree(head, (type & UNIT_JSON) != 0);
    if (text == NULL) {
        qv_log(QV_LOG_ERROR, "send_answer: no memory for the answer to port %u",
               (unsigned int)question->asker);
        return;
    }
    const uint32_t length = (uint32_t)strlen(text);
    if (corelink_sendmsg_parts(unit->fd, question->asker, type, question->header.param1, "unitd", length,
                               text, length) != 0)
        qv_errno("send_answer: corelink_sendmsg_parts: port %u", (unsigned int)question->asker);
    qv_memcheck_free(qv_free, text, HERE);
}

/* Sends a document of one member, which it takes over. */
static void send_member(const struct unit *unit, const struct question *question, unsigned int flags,
                        clparse_node *member)
{
    clparse_head *head = NULL;
    if (member == NULL || clparse_init_head(&head) != 0) {
        qv_log(QV_LOG_ERROR, "send_member: no memory for the answer to port %u",
               (unsigned int)question->asker);
        clparse_delete_node(member);
        return;
    }
    clparse_append_child(clparse_get_head(head), member);
    send_answer(unit, question, flags, head);
    clparse_stop(head);
}

static void send_fault(const struct unit *unit, const struct question *question, const char *text)
{
    qv_log(QV_LOG_WARNING, "refused a message of port %u: %s", (unsigned int)question->asker, text);
    send_member(unit, question, UNIT_FAULT, clparse_create_string_node("fault", text));
}

static void send_refusal(const struct unit *unit, const struct question *question)
{
    char *text = NULL;
    char *path = refused != NULL ? clparse_build_path(refused) : NULL;
    if (path != NULL && qv_asprintf(&text, "%s: no such member, or one of another type", path) >= 0) {
        send_fault(unit, question, text);
        qv_memcheck_free(qv_free, text, HERE);
    } else {
        send_fault(unit, question, "can't be merged");
    }
    if (path != NULL)
        qv_memcheck_free(qv_free, path, HERE);
}

static void operate(const struct unit *unit, const struct question *question, clparse_head *body)
{
    const unsigned int operation = type_of(question) & UNIT_OPERATION;
    if (operation == UNIT_QUERY) {
        if (query(unit->config, body) == 0)
            send_answer(unit, question, 0, body);
        else
            send_fault(unit, question, "can't be queried");
        return;
    }
    if (change(unit->config, body, operation == UNIT_INSERT) != 0) {
        send_refusal(unit, question);
        return;
    }
    qv_log(QV_LOG_NOTICE, "port %u changed the configuration", (unsigned int)question->asker);
    send_member(unit, question, 0, clparse_create_boolean_node("done", 1));
}

/* What is wrong with a question before its body is read; NULL for nothing. */
static const char *fault_of(const struct question *question)
{
    const unsigned int operation = type_of(question) & ~(unsigned int)UNIT_JSON;
    if (question->length < question->header.param2)
        return "damaged message: a part of it was lost";
    if (question->length > question->header.param2)
        return "damaged message: it is longer than its sender says";
    if (operation != UNIT_QUERY && operation != UNIT_UPDATE && operation != UNIT_INSERT)
        return "unknown type of message";
    if (question->length > UNIT_LONGEST_BODY)
        return "too long";
    if (memchr(question->body, '\0', question->length) != NULL)
        return "not a corelink text";
    return NULL;
}

static void serve(const struct unit *unit, const struct question *question)
{
    if ((type_of(question) & UNIT_ANSWER) != 0) {
        qv_log(QV_LOG_WARNING, "port %u sent an answer, which is dropped", (unsigned int)question->asker);
        return;
    }
    const char *fault = fault_of(question);
    clparse_head *body = fault == NULL ? clparse_start(question->body) : NULL;
    if (fault == NULL && body == NULL)
        fault = "not a corelink text";
    if (fault != NULL)
        send_fault(unit, question, fault);
    else
        operate(unit, question, body);
    clparse_stop(body);
}

/* A body has no NUL at its end, which the reader needs: the block grows by one. */
static int take_message(corelink_msgbuf *message, const struct sockaddr_in *source, struct question *question)
{
    char *data = realloc(message->data, (size_t)message->length + 1);
    if (data == NULL)
        return -1;
    data[message->length] = '\0';
    message->data = data;
    memcpy(&question->header, data, sizeof question->header);
    question->asker = ntohs(source->sin_port);
    question->body = data + sizeof question->header;
    question->length = message->length - (uint32_t)sizeof question->header;
    return 0;
}

static void *serve_messages(void *argument)
{
    struct unit *unit = argument;
    qvthread_setname("unitd-messages");
    for (;;) {
        struct sockaddr_in source;
        corelink_msgbuf message;
        struct question question;
        if (corelink_receive_msg_block(unit->fd, &source, &message) != 0) {
            if (errno == EINTR)
                continue;
            if (errno == EMSGSIZE) { /* nobody ended it; its memory is free again */
                qv_log(QV_LOG_WARNING, "dropped a message of 4 GiB");
                continue;
            }
            if (errno == ESHUTDOWN)
                return NULL;
            break;
        }
        if (take_message(&message, &source, &question) != 0) {
            free(message.data);
            break;
        }
        serve(unit, &question);
        free(message.data);
    }
    /* Out of memory, mostly: what a message held may be lost with it, so the daemon ends and is started anew.
     */
    qv_errno("serve_messages: corelink_receive_msg_block");
    unit->failed = 1;
    pthread_kill(unit->main_thread, SIGTERM);
    return NULL;
}

/* ---- Start and stop
 * ---------------------------------------------------------------------------------------- */

static void do_nothing(int signal_number)
{
    (void)signal_number;
}

static void arrange_signals(sigset_t *ending)
{
    struct sigaction action;
    memset(&action, 0, sizeof action);
    sigemptyset(&action.sa_mask);
    action.sa_handler = do_nothing;
    sigaction(SIGUSR1, &action, NULL);
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, NULL);

    sigset_t waking;
    sigemptyset(&waking);
    sigaddset(&waking, SIGUSR1);
    pthread_sigmask(SIG_UNBLOCK, &waking, NULL); /* who started us may have blocked it */
    sigemptyset(ending);
    sigaddset(ending, SIGTERM);
    sigaddset(ending, SIGINT);
    pthread_sigmask(SIG_BLOCK, ending, NULL);
}

/* Returns the file as a NUL-terminated text to be freed, or NULL with errno. */
static char *read_stream(FILE *stream)
{
    size_t length = 0, room = 4096;
    char *text = malloc(room);
    while (text != NULL) {
        length += fread(text + length, 1, room - length - 1, stream);
        text[length] = '\0';
        if (ferror(stream)) {
            free(text);
            return NULL;
        }
        if (feof(stream))
            return text;
        if (length > LONGEST_FILE) {
            free(text);
            errno = EFBIG;
            return NULL;
        }
        room *= 2;
        char *larger = realloc(text, room);
        if (larger == NULL)
            free(text);
        text = larger;
    }
    return NULL;
}

static clparse_head *load(const char *file)
{
    FILE *stream = fopen(file, "r");
    char *text = stream != NULL ? read_stream(stream) : NULL;
    clparse_head *config = NULL;
    if (text == NULL)
        fprintf(stderr, "unitd: %s: %s\n", file, strerror(errno));
    else if ((config = clparse_start(text)) == NULL)
        fprintf(stderr, "unitd: %s: not a corelink text ('qvl check' says where)\n", file);
    free(text);
    if (stream != NULL)
        fclose(stream);
    return config;
}

static struct sockaddr_in loopback(uint16_t port)
{
    struct sockaddr_in address;
    memset(&address, 0, sizeof address);
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
}

/*
 * Opens the port so that it is ours alone. The library's sockets share a port, and the newer one would get
 * the messages: so it is tried without sharing first, and sharing ends afterwards.
 */
static int open_port(const char *service, uint16_t *port)
{
    struct sockaddr_in address = loopback((uint16_t)strtoul(service, NULL, 10));
    const int probe = socket(AF_INET, SOCK_DGRAM, 0);
    const int taken = probe < 0 || bind(probe, (const struct sockaddr *)&address, sizeof address) != 0;
    const int cause = errno;
    if (probe >= 0)
        close(probe);
    errno = cause;
    const int fd = taken ? -1 : corelink_setup_socket(service);
    const int off = 0;
    socklen_t size = sizeof address;
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &off, sizeof off) != 0 ||
        getsockname(fd, (struct sockaddr *)&address, &size) != 0) {
        fprintf(stderr, "unitd: port %s: %s\n", service, strerror(errno));
        if (fd >= 0)
            close(fd);
        return -1;
    }
    *port = ntohs(address.sin_port);
    return fd;
}

/*
 * Makes a blocked receive fail, and a busy one when it has taken what is there already: the filter lets
 * nothing more in, so that those who go on sending can't keep the thread busy.
 */
static void end_messages(int fd)
{
    struct sock_filter drop = BPF_STMT(BPF_RET | BPF_K, 0);
    const struct sock_fprog program = {1, &drop};
    if (setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) != 0)
        qv_errno("end_messages: setsockopt: filter");
    if (shutdown(fd, SHUT_RD) != 0 &&
        errno != ENOTCONN) /* said of every UDP socket that works without a peer */
        qv_errno("end_messages: shutdown");
}

static int run(struct unit *unit, const struct options *options, const sigset_t *ending)
{
    uint16_t port = 0;
    unit->config = load(options->file);
    if (unit->config == NULL)
        return 1;
    unit->fd = open_port(options->port, &port);
    if (unit->fd < 0)
        return 1;
    pthread_t messages;
    const int refusal = pthread_create(&messages, NULL, serve_messages, unit);
    if (refusal != 0) {
        fprintf(stderr, "unitd: thread: %s\n", strerror(refusal));
        return 1;
    }
    qv_log(QV_LOG_NOTICE, "serving %s on port %u", options->file, (unsigned int)port);
    printf("serving port %u\n", (unsigned int)port); /* who started us waits for it */
    fflush(stdout);

    int signal_number = 0;
    sigwait(ending, &signal_number);
    end_messages(unit->fd);
    pthread_join(messages, NULL);
    qv_log(QV_LOG_NOTICE, "ends");
    return unit->failed;
}

/* Called after each fault that the memory debugger reports; the console tells what it was. */
static void note_memory_fault(int code)
{
    (void)code;
    qv_log(QV_LOG_ERROR, "the memory debugger found a fault");
}

static int serve_unit(const struct options *options, const sigset_t *ending)
{
    struct unit unit = {-1, NULL, pthread_self(), 0};
    if (options->console != NULL && qv_memcheck_start(options->console, 0, note_memory_fault) != 0) {
        fprintf(stderr, "unitd: the memory debugger does not start\n");
        return 1;
    }
    const int status = run(&unit, options, ending);
    if (unit.fd >= 0)
        close(unit.fd);
    clparse_stop(unit.config);
    if (options->console != NULL)
        qv_memcheck_stop();
    return status;
}

static int number_of(const char *text, unsigned long limit, unsigned long *number)
{
    char *end;
    errno = 0;
    *number = strtoul(text, &end, 10);
    return text[0] >= '0' && text[0] <= '9' && *end == '\0' && errno == 0 && *number <= limit ? 0 : -1;
}

#define OPTION_LETTERS "c:p:t:l:em:h"
#define CONSOLE_USAGE "  -m PORT   start the memory debugger, with its console on TCP port PORT\n"

static const char usage[] =
    "Usage: unitd [OPTION...]\n"
    "Serves a configuration to messages on a port of 127.0.0.1.\n\n"
    "  -c FILE   the configuration (examples/config/appliance.cl)\n"
    "  -p PORT   UDP port; 0, the default, takes a free one. It is printed\n"
    "  -t PORT   TCP port of the log's telnet feed (none)\n"
    "  -l LEVEL  highest level of messages to log, 0 to 7 (6)\n"
    "  -e        log to standard error too\n" CONSOLE_USAGE "  -h        print this\n\n"
    "SIGTERM ends it.\n";

/* Returns -1 to go on, or the exit status. */
static int read_options(int argc, char **argv, struct options *options)
{
    unsigned long number;
    for (int letter; (letter = getopt(argc, argv, OPTION_LETTERS)) != -1;) {
        int bad = 0;
        switch (letter) {
        case 'c':
            options->file = optarg;
            break;
        case 'p':
            bad = number_of(optarg, UINT16_MAX, &number);
            options->port = optarg;
            break;
        case 't':
            bad = number_of(optarg, UINT16_MAX, &number);
            options->telnet_port = (unsigned int)number;
            break;
        case 'l':
            bad = number_of(optarg, QV_LOG_DEBUG, &number);
            options->level = (int)number;
            break;
        case 'e':
            options->echo = 1;
            break;
        case 'm':
            bad = number_of(optarg, UINT16_MAX, &number);
            options->console = optarg;
            break;
        case 'h':
            fputs(usage, stdout);
            return 0;
        default:
            fputs("'unitd -h' shows how it is used.\n", stderr);
            return 2;
        }
        if (bad) {
            fprintf(stderr, "unitd: -%c %s: no such number\n", letter, optarg);
            return 2;
        }
    }
    if (optind == argc)
        return -1;
    fprintf(stderr, "unitd: %s: not wanted\n'unitd -h' shows how it is used.\n", argv[optind]);
    return 2;
}

int main(int argc, char **argv)
{
    struct options options = {"examples/config/appliance.cl", "0", 0, QV_LOG_INFO, 0, NULL};
    int status = read_options(argc, argv, &options);
    if (status >= 0)
        return status;
    sigset_t ending;
    arrange_signals(&ending);
    qv_log_init("unitd", options.level, options.echo ? 0x20 : 0, LOG_DAEMON, options.telnet_port);
    status = serve_unit(&options, &ending);
    qv_log_exit();
    return status;
}
