#ifndef ARSP_TESTS_UNIT_SUPPORT_SYSLOG_CAPTURE_H
#define ARSP_TESTS_UNIT_SUPPORT_SYSLOG_CAPTURE_H

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <string>
#include <vector>

#include "support/log.h"

/* In a program that includes this header, records for the system log are stored here instead. */

struct SyslogRecord {
    int priority;
    std::string text;

    bool operator==(const SyslogRecord &) const = default;
};

inline std::ostream &operator<<(std::ostream &stream, const SyslogRecord &record)
{
    return stream << record.priority << " \"" << record.text << '"';
}

struct SyslogCapture {
    std::vector<std::string> calls;    /* "closelog", "openlog IDENT OPTIONS FACILITY", "setlogmask MASK" */
    const char *opened_with = nullptr; /* the ident of openlog, by pointer */
    std::vector<SyslogRecord> records; /* the mask is not applied */
    void (*during_record)() = nullptr; /* called for each record */
};

inline SyslogCapture syslog_capture;

/* Sets the logger up as the tool does, except for LOG_PERROR, and clears the capture. */
inline void capture_syslog()
{
    log_init(nullptr, LOG_ERR, LOG_MAIL, 0, "unit-test");
    syslog_capture = {};
}

/* The linker takes these for the C library's functions named in the asm labels. They have other names of their own
 * because the C library's headers declare those and, with _FORTIFY_SOURCE, define them. All change errno, as the
 * replaced functions may. */
#define ARSP_REPLACES(name) __asm__(name) __attribute__((used))

inline void captured_vsyslog(int priority, const char *format, va_list args) ARSP_REPLACES("vsyslog")
    __attribute__((format(printf, 2, 0)));
inline void captured_vsyslog(int priority, const char *format, va_list args)
{
    char *text = nullptr;
    if (vasprintf(&text, format, args) < 0)
        return;
    syslog_capture.records.push_back({priority, text});
    free(text);
    if (syslog_capture.during_record != nullptr)
        syslog_capture.during_record();
    errno = EBADF;
}

inline void captured_vsyslog_chk(int priority, int flag, const char *format, va_list args)
    ARSP_REPLACES("__vsyslog_chk") __attribute__((format(printf, 3, 0)));
inline void captured_vsyslog_chk(int priority, int /*flag*/, const char *format, va_list args)
{
    captured_vsyslog(priority, format, args);
}

inline void captured_syslog(int priority, const char *format, ...) ARSP_REPLACES("syslog")
    __attribute__((format(printf, 2, 3)));
inline void captured_syslog(int priority, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    captured_vsyslog(priority, format, args);
    va_end(args);
}

inline void captured_syslog_chk(int priority, int flag, const char *format, ...) ARSP_REPLACES("__syslog_chk")
    __attribute__((format(printf, 3, 4)));
inline void captured_syslog_chk(int priority, int /*flag*/, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    captured_vsyslog(priority, format, args);
    va_end(args);
}

inline void captured_openlog(const char *ident, int options, int facility) ARSP_REPLACES("openlog");
inline void captured_openlog(const char *ident, int options, int facility)
{
    syslog_capture.calls.push_back("openlog " + std::string(ident) + " " + std::to_string(options) + " " +
                                   std::to_string(facility));
    syslog_capture.opened_with = ident;
    errno = EBADF;
}

inline void captured_closelog() ARSP_REPLACES("closelog");
inline void captured_closelog()
{
    syslog_capture.calls.emplace_back("closelog");
    errno = EBADF;
}

inline int captured_setlogmask(int mask) ARSP_REPLACES("setlogmask");
inline int captured_setlogmask(int mask)
{
    syslog_capture.calls.push_back("setlogmask " + std::to_string(mask));
    return 0;
}

#undef ARSP_REPLACES

#endif
