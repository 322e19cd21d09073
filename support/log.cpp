#include "support/log.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <optional>

#include <poll.h>
#include <strings.h>
#include <unistd.h>

#include "support/c_handles.h"
#include "support/stream.h"
#include "support/write_deadline.h"

using namespace arsp;

namespace {

constexpr int SYSLOG_OPTIONS = LOG_PID | LOG_CONS | LOG_PERROR; /* of a caller's bits, those that openlog gets */
constexpr unsigned LEVEL_FROM_ENVIRONMENT = 0x08;

/* The whole state of the logger, as it is before log_init. */
struct Logger {
    const char *target = nullptr; /* null: none; never "" */
    bool system_log = false;      /* log_init has chosen it */
    int threshold = LOG_INFO;
    int facility = LOG_MAIL;
    int options = LOG_PID;
    int syslog_options = LOG_PID; /* what openlog got last */
    char ident[64] = "";
    char trace_id[64] = "";
};

Logger logger;

[[gnu::format(printf, 2, 0)]] void log_to_console(int priority, const char *format, va_list args)
{
    if (logger.threshold < priority)
        return;
    const bool both = logger.target == nullptr || strcasecmp(logger.target, "console") == 0;
    if (!both && strcasecmp(logger.target, "stderr") != 0)
        return;
    char *text = nullptr;
    if (vasprintf(&text, format, args) < 0)
        return;
    write_text(stderr, text, "\n");
    if (both)
        write_text(stdout, text, "\n");
    std::free(text);
}

/* Stops copying records to standard error if the deadline passed there: each further copy would use up the time that
 * the system log has. */
void stop_stuck_copies(WriteDeadline &deadline)
{
    pollfd copies = {STDERR_FILENO, POLLOUT, 0};
    if ((logger.syslog_options & LOG_PERROR) == 0 || poll(&copies, 1, 0) != 0)
        return;
    logger.syslog_options &= ~LOG_PERROR;
    openlog(logger.ident, logger.syslog_options, logger.facility);
    deadline.restart();
}

[[gnu::format(printf, 2, 0)]] void log_to_system(int priority, const char *format, va_list args)
{
    if ((logger.options & LOG_OPT_TRACE_ID) == 0 || logger.trace_id[0] == '\0') {
        vsyslog(priority, format, args);
        return;
    }
    char buffer[8192];
    const int prefix = std::snprintf(buffer, sizeof buffer, "%s: ", logger.trace_id);
    std::vsnprintf(buffer + prefix, sizeof buffer - static_cast<size_t>(prefix), format, args);
    syslog(priority, "%s", buffer);
}

void find_trace_id()
{
    const char *given = std::getenv("QUARN_LOG_TRACE_ID");
    if (given != nullptr && *given != '\0') {
        std::snprintf(logger.trace_id, sizeof logger.trace_id, "%s", given);
    } else {
        const int initial = std::toupper(static_cast<unsigned char>(program_invocation_short_name[0]));
        std::snprintf(logger.trace_id, sizeof logger.trace_id, "%c%ld", initial, static_cast<long>(getpid()));
        setenv("QUARN_LOG_TRACE_ID", logger.trace_id, 1);
    }
}

} // namespace

void log_init(const char *target, unsigned level, int facility, int options, const char *ident)
{
    logger.target = target != nullptr && *target != '\0' ? target : nullptr;
    logger.system_log = logger.target == nullptr;
    logger.facility = facility;
    if (logger.system_log) {
        closelog();
        logger.options = options | LOG_PID;
        std::snprintf(logger.ident, sizeof logger.ident, "%s",
                      ident != nullptr ? ident : program_invocation_short_name);
        if ((logger.options & LOG_OPT_TRACE_ID) != 0)
            find_trace_id();
        logger.syslog_options = logger.options & SYSLOG_OPTIONS;
        openlog(logger.ident, logger.syslog_options, logger.facility);
    }
    log_set_level(level);
}

void log_set_level(unsigned level)
{
    logger.threshold = static_cast<int>(level & LOG_PRIMASK);
    const char *wish = (level & LEVEL_FROM_ENVIRONMENT) != 0 ? std::getenv("QUARN_LOG_LEVEL") : nullptr;
    if (wish != nullptr && wish[0] >= '0' && wish[0] <= '7' && wish[1] == '\0')
        logger.threshold = std::max(logger.threshold, wish[0] - '0');
    if (logger.target == nullptr)
        setlogmask(LOG_UPTO(logger.threshold));
}

int log_options()
{
    return logger.options;
}

void log_message(int priority, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    log_vmessage(priority, format, args);
    va_end(args);
}

void log_vmessage(int priority, const char *format, va_list args)
{
    const KeepErrno keep;
    if (!logger.system_log) {
        log_to_console(priority, format, args);
        return;
    }
    std::optional<WriteDeadline> deadline;
    if (LOG_PRI(priority) <= logger.threshold) /* syslog drops the others, without waiting */
        deadline.emplace();
    errno = keep.saved(); /* for %m */
    log_to_system(priority, format, args);
    if (deadline && deadline->passed())
        stop_stuck_copies(*deadline);
}
