#include "support/log.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include <poll.h>
#include <strings.h>
#include <unistd.h>

#include "support/c_handles.h"
#include "support/stream.h"
#include "support/write_deadline.h"

using namespace arsp;

namespace {

using VMessage = void(int priority, const char *format, va_list args);

VMessage console_vmessage __attribute__((format(printf, 2, 0)));
VMessage system_vmessage __attribute__((format(printf, 2, 0)));

constexpr int SYSLOG_OPTIONS = LOG_PID | LOG_CONS | LOG_PERROR; /* of a caller's bits, those that openlog gets */
constexpr unsigned LEVEL_FROM_ENVIRONMENT = 0x08;

/* How the logger is before log_init. */
const char *log_target = nullptr; /* null: none; never "" */
int log_threshold = LOG_INFO;
int log_facility = LOG_MAIL;
int log_option_bits = LOG_PID;
int log_syslog_options = LOG_PID; /* what openlog got last */
char log_ident[64] = "";
char log_trace_id[64] = "";
VMessage *log_backend = console_vmessage;

void copy_cut(char (&to)[64], const char *from)
{
    std::snprintf(to, sizeof to, "%s", from);
}

void console_vmessage(int priority, const char *format, va_list args)
{
    const KeepErrno keep;
    if (log_threshold < priority)
        return;
    const bool both = log_target == nullptr || strcasecmp(log_target, "console") == 0;
    if (!both && strcasecmp(log_target, "stderr") != 0)
        return;
    char *made = nullptr;
    const CString text(vasprintf(&made, format, args) < 0 ? nullptr : made);
    if (text == nullptr)
        return;
    write_text(stderr, text.get(), "\n");
    if (both)
        write_text(stdout, text.get(), "\n");
}

/* Once a record had to be given up because nobody reads standard error, its copies there are left out: the system log
 * gets all its time. */
void leave_stuck_copies_out()
{
    if (!WriteDeadline::wasMissed() || (log_syslog_options & LOG_PERROR) == 0)
        return;
    pollfd copies = {STDERR_FILENO, POLLOUT, 0};
    if (poll(&copies, 1, 0) != 0)
        return;
    log_syslog_options &= ~LOG_PERROR;
    openlog(log_ident, log_syslog_options, log_facility);
    WriteDeadline::forget();
}

void system_vmessage(int priority, const char *format, va_list args)
{
    const KeepErrno keep;
    std::optional<WriteDeadline> deadline;
    if (LOG_PRI(priority) <= log_threshold) { /* the others syslog drops, without waiting for anybody */
        leave_stuck_copies_out();
        deadline.emplace();
    }
    errno = keep.saved(); /* for %m */
    if ((log_option_bits & LOG_OPT_TRACE_ID) == 0 || log_trace_id[0] == '\0') {
        vsyslog(priority, format, args);
        return;
    }
    char buffer[8192];
    const int prefix = std::snprintf(buffer, sizeof buffer, "%s: ", log_trace_id);
    std::vsnprintf(buffer + prefix, sizeof buffer - static_cast<size_t>(prefix), format, args);
    syslog(priority, "%s", buffer);
}

void find_trace_id()
{
    const char *given = std::getenv("QUARN_LOG_TRACE_ID");
    if (given != nullptr && *given != '\0') {
        copy_cut(log_trace_id, given);
        return;
    }
    const int initial = std::toupper(static_cast<unsigned char>(program_invocation_short_name[0]));
    std::snprintf(log_trace_id, sizeof log_trace_id, "%c%ld", initial, static_cast<long>(getpid()));
    setenv("QUARN_LOG_TRACE_ID", log_trace_id, 1);
}

} // namespace

void log_init(const char *target, unsigned level, int facility, int options, const char *ident)
{
    log_target = target != nullptr && *target != '\0' ? target : nullptr;
    log_facility = facility;
    if (log_target != nullptr) {
        log_backend = console_vmessage;
    } else {
        closelog();
        log_option_bits = options | LOG_PID;
        copy_cut(log_ident, ident != nullptr ? ident : program_invocation_short_name);
        if ((log_option_bits & LOG_OPT_TRACE_ID) != 0)
            find_trace_id();
        log_syslog_options = log_option_bits & SYSLOG_OPTIONS;
        openlog(log_ident, log_syslog_options, log_facility);
        log_backend = system_vmessage;
    }
    log_set_level(level);
}

void log_set_level(unsigned level)
{
    int threshold = static_cast<int>(level & LOG_PRIMASK);
    if ((level & LEVEL_FROM_ENVIRONMENT) != 0) {
        const char *wish = std::getenv("QUARN_LOG_LEVEL");
        if (wish != nullptr && wish[0] >= '0' && wish[0] <= '7' && wish[1] == '\0' && wish[0] - '0' > threshold)
            threshold = wish[0] - '0';
    }
    log_threshold = threshold;
    if (log_target == nullptr)
        setlogmask(LOG_UPTO(threshold));
}

int log_options()
{
    return log_option_bits;
}

void log_message(int priority, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    log_backend(priority, format, args);
    va_end(args);
}

void log_vmessage(int priority, const char *format, va_list args)
{
    log_backend(priority, format, args);
}
