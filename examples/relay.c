/*
 * relay: both ends of a remote GUI relay, over a channel that is one TCP connection.
 *
 *   relay remote HOST PORT            on the unit that has the GUI server, on 127.0.0.1:8008
 *   relay local HOST PORT GUI-PORT    on the unit that clients can reach
 *
 * The remote end waits at HOST and PORT for a channel, serves it until it ends, then waits for the next one.
 * The local end connects its channel there and takes clients on GUI-PORT of 127.0.0.1; it ends with status 1
 * when the channel is lost. SIGTERM and SIGINT end both.
 *
 * The channel carries PDUs one after the other, in both directions, each as
 *
 *   offset  bytes
 *   0       1      opcode
 *   1       1      0
 *   2       2      connection ID, most significant byte first
 *   4       4      size of the payload, most significant byte first; at most 65536
 *   8       size   payload
 *
 * The library's PDUs are the same but for the byte order, which is the host's, so a PDU is converted in place
 * and sent as it stands. A PDU of which only a part could be sent ends the channel: what follows could not be
 * told apart.
 *
 * Threads: the channel's thread reads it and hands each PDU to the session, so a client that does not read
 * holds up all others. The session's threads send, one PDU at a time. The main thread waits for signals.
 */
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>
#include <qvlib.h>

enum { LARGEST_PAYLOAD = 65536 };

struct relay {
    const char *host, *port, *gui_port; /* gui_port: NULL at the remote end */
    pthread_t main_thread;
    pthread_mutex_t sending;  /* held while one PDU is sent */
    pthread_mutex_t stopping; /* held while the session is stopped: its threads use the channel until then */
    pthread_mutex_t state;    /* guards what follows */
    int listener, channel;    /* -1 for none */
    rgui_session *session;    /* whoever takes it out stops it */
    int ending;
    int lost; /* the channel ended by itself */
};

/* ---- The channel */

static int is_ending(struct relay *relay)
{
    pthread_mutex_lock(&relay->state);
    const int ending = relay->ending;
    pthread_mutex_unlock(&relay->state);
    return ending;
}

/* The library's SIGUSR1 interrupts a send that waits, so that stopping does not wait for the other unit. */
static int send_whole(struct relay *relay, const void *bytes, size_t size)
{
    const char *at = bytes;
    while (size > 0) {
        const ssize_t sent = send(relay->channel, at, size, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR && !is_ending(relay))
            continue;
        if (sent < 0) {
            shutdown(relay->channel, SHUT_RDWR);
            return -1;
        }
        at += sent;
        size -= (size_t)sent;
    }
    return 0;
}

/* The session's callback. */
static int send_pdu(rgui_pdu *pdu, size_t length, void *cookie)
{
    struct relay *relay = cookie;
    pdu->id = htons(pdu->id);
    pdu->size = htonl(pdu->size);
    pthread_mutex_lock(&relay->sending);
    const int result = send_whole(relay, pdu, length);
    pthread_mutex_unlock(&relay->sending);
    free(pdu);
    return result;
}

static int receive_whole(int channel, void *bytes, size_t size)
{
    char *at = bytes;
    while (size > 0) {
        const ssize_t received = recv(channel, at, size, MSG_WAITALL);
        if (received < 0 && errno == EINTR)
            continue;
        if (received <= 0)
            return -1;
        at += received;
        size -= (size_t)received;
    }
    return 0;
}

/* Hands PDUs to the session until the channel ends. */
static void receive_pdus(int channel, rgui_session *session)
{
    rgui_pdu *pdu = malloc(sizeof *pdu + LARGEST_PAYLOAD);
    while (pdu != NULL && receive_whole(channel, pdu, sizeof *pdu) == 0) {
        pdu->id = ntohs(pdu->id);
        pdu->size = ntohl(pdu->size);
        if (pdu->size > LARGEST_PAYLOAD || receive_whole(channel, pdu->payload, pdu->size) != 0)
            break;
        rgui_data_rx(session, pdu, sizeof *pdu + pdu->size); /* a refused one concerns its connection alone */
    }
    free(pdu);
}

/* ---- The session */

static rgui_session *take_session(struct relay *relay)
{
    pthread_mutex_lock(&relay->state);
    rgui_session *session = relay->session;
    relay->session = NULL;
    pthread_mutex_unlock(&relay->state);
    return session;
}

static void stop_session(struct relay *relay)
{
    pthread_mutex_lock(&relay->stopping);
    rgui_session *session = take_session(relay);
    if (session != NULL && relay->gui_port != NULL)
        rgui_stop_local(session);
    else if (session != NULL)
        rgui_stop_remote(session);
    pthread_mutex_unlock(&relay->stopping);
}

/* Starts a session on a channel; NULL when the relay is ending, or without memory. */
static rgui_session *start_session(struct relay *relay, int channel)
{
    pthread_mutex_lock(&relay->state);
    relay->channel = channel;
    if (!relay->ending)
        relay->session = relay->gui_port != NULL
                             ? rgui_start_local("127.0.0.1", relay->gui_port, NULL, send_pdu, relay)
                             : rgui_start_remote(send_pdu, relay);
    rgui_session *session = relay->session;
    pthread_mutex_unlock(&relay->state);
    return session;
}

static void serve_channel(struct relay *relay, int channel)
{
    const int on = 1;
    setsockopt(channel, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    rgui_session *session = start_session(relay, channel);
    if (session != NULL)
        receive_pdus(channel, session);
    shutdown(channel, SHUT_RDWR); /* so that no send waits for a peer that is given up */
    stop_session(relay);
    pthread_mutex_lock(&relay->state);
    relay->channel = -1;
    pthread_mutex_unlock(&relay->state);
    close(channel);
}

/* ---- The two ends */

static void *run_remote(void *argument)
{
    struct relay *relay = argument;
    for (int channel; (channel = accept(relay->listener, NULL, NULL)) >= 0;)
        serve_channel(relay, channel);
    if (!is_ending(relay))
        pthread_kill(relay->main_thread, SIGTERM);
    return NULL;
}

static void *run_local(void *argument)
{
    struct relay *relay = argument;
    serve_channel(relay, relay->channel);
    if (!is_ending(relay)) {
        relay->lost = 1; /* read after this thread was joined */
        pthread_kill(relay->main_thread, SIGTERM);
    }
    return NULL;
}

/* Opens the socket that an end begins with, and says on which port it serves. */
static int open_end(struct relay *relay)
{
    struct addrinfo hints;
    memset(&hints, 0, sizeof hints);
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    if (relay->gui_port != NULL) {
        relay->channel = qvsock_connect(&hints, relay->host, relay->port, NULL, 0, 0, 0);
        if (relay->channel < 0)
            return -1;
        printf("relaying port %s\n", relay->gui_port);
        return 0;
    }
    struct sockaddr_in self;
    socklen_t size = sizeof self;
    relay->listener = qvsock_listen(&hints, relay->host, relay->port, 0, 0, 0);
    if (relay->listener < 0 || getsockname(relay->listener, (struct sockaddr *)&self, &size) != 0)
        return -1;
    printf("waiting for a channel on port %u\n", (unsigned int)ntohs(self.sin_port));
    return 0;
}

/* From any thread: ends what the channel's thread waits for. */
static void end_relay(struct relay *relay)
{
    pthread_mutex_lock(&relay->state);
    relay->ending = 1;
    pthread_mutex_unlock(&relay->state);
    stop_session(relay);
    pthread_mutex_lock(&relay->state);
    if (relay->listener >= 0)
        shutdown(relay->listener, SHUT_RDWR);
    if (relay->channel >= 0)
        shutdown(relay->channel, SHUT_RDWR);
    pthread_mutex_unlock(&relay->state);
}

static void ignore(int signal_number)
{
    (void)signal_number;
}

/* SIGTERM and SIGINT are waited for; SIGUSR1 interrupts what the library's threads wait for. */
static void arrange_signals(sigset_t *ending)
{
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = ignore;
    sigaction(SIGUSR1, &action, NULL);
    sigemptyset(ending);
    sigaddset(ending, SIGTERM);
    sigaddset(ending, SIGINT);
    pthread_sigmask(SIG_BLOCK, ending, NULL);
}

static int run(struct relay *relay, const sigset_t *ending)
{
    pthread_t thread;
    if (open_end(relay) != 0) {
        fprintf(stderr, "relay: %s port %s: %s\n", relay->host, relay->port, strerror(errno));
        return 1;
    }
    fflush(stdout); /* who started us waits for it */
    const int refusal =
        pthread_create(&thread, NULL, relay->gui_port != NULL ? run_local : run_remote, relay);
    if (refusal != 0) {
        fprintf(stderr, "relay: thread: %s\n", strerror(refusal));
        return 1;
    }
    int signal_number = 0;
    sigwait(ending, &signal_number);
    end_relay(relay);
    pthread_join(thread, NULL);
    if (relay->listener >= 0)
        close(relay->listener);
    if (relay->lost)
        fputs("relay: the channel is lost\n", stderr);
    return relay->lost;
}

static const char usage[] = "Usage: relay remote HOST PORT\n"
                            "       relay local HOST PORT GUI-PORT\n"
                            "Relays GUI clients of this unit to the GUI server (port 8008) of another.\n";

int main(int argc, char **argv)
{
    const int is_local = argc == 5 && strcmp(argv[1], "local") == 0;
    if (!is_local && !(argc == 4 && strcmp(argv[1], "remote") == 0)) {
        fputs(usage, stderr);
        return 2;
    }
    struct relay relay;
    memset(&relay, 0, sizeof relay);
    relay.host = argv[2];
    relay.port = argv[3];
    relay.gui_port = is_local ? argv[4] : NULL;
    relay.main_thread = pthread_self();
    relay.listener = relay.channel = -1;
    pthread_mutex_init(&relay.sending, NULL);
    pthread_mutex_init(&relay.stopping, NULL);
    pthread_mutex_init(&relay.state, NULL);

    sigset_t ending;
    arrange_signals(&ending);
    qv_log_init("relay", QV_LOG_NOTICE, LOG_PERROR, LOG_DAEMON, 0);
    const int status = run(&relay, &ending);
    qv_log_exit();
    return status;
}
