// Logging. The state is written by qv_log_init, qv_log_exit and qv_log_setlevel and read by every thread that
// logs; it takes no lock of its own. A console line is put together first, so that it leaves in one piece.
// Threads that use the feed are counted, so that stopping it can wait until they have left it.

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <iterator>
#include <netdb.h>
#include <sys/stat.h>
#include <syslog.h>

#include <qvlib/log.h>
#include <qvlib/memcheck.h>
#include <qvlib/strings.h>
#include <qvlib/telnet_log.h>

#include "guard.h"
#include "memdebug.h"
#include "telnet_log.h"
#include "threads.h"
#include "where.h"

namespace
{

constexpr int option_console = LOG_PERROR;
constexpr uint32_t sink_syslog = 1u << 0;

struct log_state {
    std::atomic<int32_t> level;   // the highest that reaches console and system log
    std::atomic<int32_t> options; // openlog's bits as given; option_console is ours
    FILE *console;                // null means standard error
    std::atomic<uint32_t> sinks;
    std::atomic<void *> tellog; // telnet feed
    std::atomic<unsigned int> feed_users;
};

constinit log_state logging = {};

constexpr char level_labels[][6] = {"EMERG", "ALERT", "CRITL", "ERROR", "WARNG",
                                    "NOTIC", "INFOR", "DEBUG", "TELNT"};

FILE *console()
{
    return logging.console ? logging.console : stderr;
}

// "Mon DD HH:MM:SS". The time of day by hand: strftime takes a quarter of a line's time for it.
size_t format_time(char *text, size_t size)
{
    const qv::errno_guard unchanged; // the message may contain %m
    const time_t now = time(nullptr);
    struct tm utc = {};
    gmtime_r(&now, &utc);
    constexpr size_t day_time = 8;
    char *at = text + strftime(text, size - day_time, "%b %d ", &utc);
    for (const int part : {utc.tm_hour, utc.tm_min, utc.tm_sec}) {
        *at++ = static_cast<char>('0' + part / 10);
        *at++ = static_cast<char>('0' + part % 10);
        *at++ = ':';
    }
    return static_cast<size_t>(at - text) - 1;
}

// Writes "TIME LABEL: " and returns its length. By hand: printf would take a seventh of a line's time.
size_t begin_line(char *line, int level)
{
    constexpr size_t most = 32; // of the time, as any locale writes it
    constexpr size_t label_length = sizeof level_labels[0] - 1;
    char *at = line + format_time(line, most);
    *at++ = ' ';
    at = static_cast<char *>(memcpy(at, log_level(level), label_length)) + label_length;
    at = static_cast<char *>(memcpy(at, ": ", 2)) + 2;
    return static_cast<size_t>(at - line);
}

// "TIME LABEL: message" CR LF; a serial console wants both.
QV_PRINTF(2, 0) void write_console(int level, const char *fmt, va_list ap)
{
    char line[1024];
    const size_t start = begin_line(line, level);
    const size_t room = sizeof line - start;
    va_list copy;
    va_copy(copy, ap);
    const int length = vsnprintf(line + start, room, fmt, copy);
    va_end(copy);

    const qv::errno_guard unchanged; // the console's errors are nobody's
    FILE *stream = console();
    flockfile(stream);
    if (length >= 0 && static_cast<size_t>(length) + 2 < room) {
        memcpy(line + start + length, "\r\n", 2);
        fwrite(line, 1, start + static_cast<size_t>(length) + 2, stream);
    } else {
        fwrite(line, 1, start, stream);
        vfprintf(stream, fmt, ap);
        fwrite("\r\n", 1, 2, stream);
    }
    fflush(stream);
    funlockfile(stream);
}

QV_PRINTF(2, 0) void write_feed(int level, const char *fmt, va_list ap)
{
    if (!logging.tellog)
        return;
    logging.feed_users++; // before the handle is read: whoever empties it looks at the count afterwards
    if (void *feed = logging.tellog) {
        va_list copy;
        va_copy(copy, ap);
        qv_vtellog(feed, level, fmt, copy);
        va_end(copy);
    }
    logging.feed_users--;
}

void stop_feed()
{
    void *feed = logging.tellog.exchange(nullptr);
    if (feed)
        qv::silence_feed(feed);
    while (logging.feed_users != 0)
        qv::pause_shortly(100);
    tellog_finish(feed);
}

// Most lines of a program are wanted by nobody: they cost this test.
bool is_wanted(int level)
{
    return logging.tellog || (level != QV_LOG_TELNET && level <= logging.level);
}

QV_PRINTF(2, 0) void log_message(int level, const char *fmt, va_list ap)
{
    const qv::errno_guard unchanged; // failing functions log first and return errno afterwards
    if (!fmt)
        return;
    write_feed(level, fmt, ap);
    if (level == QV_LOG_TELNET || level > logging.level)
        return;
    if (logging.options & option_console) {
        va_list copy;
        va_copy(copy, ap);
        write_console(level, fmt, copy);
        va_end(copy);
    }
    if (logging.sinks & sink_syslog)
        vsyslog(level, fmt, ap);
}

// Logs "TEXT: ERROR (NUMBER)" at level 3.
QV_PRINTF(3, 0) void qv_verrno(const char *errtext, int errnum, const char *fmt, va_list ap)
{
    char *text = nullptr;
    if (__qv_vasprintf(&text, qv::log_text_owner, 262, fmt, ap) < 0)
        return;
    qv::tracked_guard guard(text, QV_WHERE);
    __qv_log(QV_LOG_ERROR, "%s: %s (%d)", text, errtext, errnum);
}

constexpr size_t max_dump_width = 30;

// The line of a hex dump under construction; what does not fit is cut off.
class dump_line
{
  public:
    QV_PRINTF(2, 3) void add(const char *fmt, ...)
    {
        va_list ap;
        va_start(ap, fmt);
        const int length = vsnprintf(text_ + used_, sizeof text_ - used_, fmt, ap);
        va_end(ap);
        used_ += static_cast<size_t>(length);
        if (used_ >= sizeof text_)
            used_ = sizeof text_ - 1;
    }
    bool is_full() const
    {
        return used_ == sizeof text_ - 1;
    }
    const char *text() const
    {
        return text_;
    }

  private:
    char text_[160] = ""; // max_dump_width bytes to a line, and any offset
    size_t used_ = 0;
};

bool is_printable(unsigned char byte)
{
    return byte >= 0x20 && byte < 0x7f;
}

} // namespace

void qv_log_init(const char *ident, int level, int options, int facility, unsigned int telnet_port)
{
    logging.level = level;
    logging.options = options;
    logging.sinks = 0;
    if (telnet_port != 0)
        logging.tellog = tellog_start(telnet_port);

    struct stat unused;
    if (stat("/dev/log", &unused) != 0) {
        perror("stat(\"/dev/log\")");
        return;
    }
    openlog(ident, options & ~option_console, facility);
    logging.sinks = sink_syslog;
}

void qv_log_exit(void)
{
    stop_feed();
    closelog();
    logging.level = 0;
    logging.options = 0;
    // The sinks stay as they are: an emergency message still reaches the system log, which reopens itself.
}

void qv_log_setlevel(int level)
{
    logging.level = level;
}

const char *log_level(int level)
{
    return level >= 0 && level < static_cast<int>(std::size(level_labels)) ? level_labels[level] : "-----";
}

void __qv_log(int level, const char *fmt, ...)
{
    if (!is_wanted(level))
        return;
    va_list ap;
    va_start(ap, fmt);
    log_message(level, fmt, ap);
    va_end(ap);
}

void qv_logc(const char *fmt, ...)
{
    // The inverted sense is meant: while the library echoes messages, the host's own console output is
    // silent.
    if (!fmt || logging.options & option_console)
        return;
    va_list ap;
    va_start(ap, fmt);
    vfprintf(console(), fmt, ap);
    va_end(ap);
    fflush(console());
}

void qv_errno(const char *fmt, ...)
{
    const int error = errno;
    va_list ap;
    va_start(ap, fmt);
    qv_verrno(strerror(error), error, fmt, ap);
    va_end(ap);
}

void qv_gaierror(int gai_code, const char *fmt, ...)
{
    const int error = gai_code == EAI_SYSTEM ? errno : gai_code;
    va_list ap;
    va_start(ap, fmt);
    qv_verrno(gai_code == EAI_SYSTEM ? strerror(error) : gai_strerror(gai_code), error, fmt, ap);
    va_end(ap);
}

void __qv_loghex_line(int level, const void *buf, size_t len, size_t width, int flip)
{
    const bool silent = level == QV_LOG_HEX_SILENT;
    if (!silent)
        __qv_log(level, "**%s****************************************",
                 flip ? "Endian Flipped" : "Hex Dump******");
    if (width == 0 || !buf)
        return;

    const auto *bytes = static_cast<const unsigned char *>(buf);
    for (size_t offset = 0; offset < len; offset += width) {
        const size_t shown = len - offset < width ? len - offset : width;
        // Callers that flip pass whole lines; a width beyond the limit is no reason to read that far.
        const size_t flipped = width <= max_dump_width ? width : shown;
        auto byte = [&](size_t i) { return bytes[offset + (flip ? flipped - 1 - i : i)]; };

        dump_line line;
        line.add("%.4zx: ", offset);
        for (size_t i = 0; i < shown && !line.is_full(); i++)
            line.add("%.2x ", byte(i));
        for (size_t i = shown; i < width && !line.is_full(); i++)
            line.add("   ");
        line.add(" ");
        for (size_t i = 0; i < shown && !line.is_full(); i++)
            line.add("%c%s", is_printable(byte(i)) ? byte(i) : '.', i == 7 ? " " : "");
        if (!silent)
            __qv_log(level, "%s", line.text());
        if (len - offset <= width)
            return; // offset + width may not be a size_t
    }
}
