#include "support/log.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>

#include <sys/resource.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/write_deadline.h"
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/full_pipe.h"
#include "tests/unit/support/stream_order.h"
#include "tests/unit/support/syslog_capture.h"

namespace {

using Calls = std::vector<std::string>;
using Records = std::vector<SyslogRecord>;

class LogTest : public testing::Test {
protected:
    void SetUp() override
    {
        unsetenv("QUARN_LOG_LEVEL");
        unsetenv("QUARN_LOG_TRACE_ID");
        capture_syslog();
    }
    void TearDown() override { SetUp(); }

    static void use_system_log(int options = 0, const char *ident = "x")
    {
        log_init(nullptr, 3, LOG_MAIL, options, ident);
    }
    static void use_console(const char *target, unsigned level = 3) { log_init(target, level, LOG_MAIL, 0, "x"); }
};

/* Changes the process's short name for the rest of a scope. */
class ShortName {
public:
    explicit ShortName(std::string name) : name_(std::move(name)) { program_invocation_short_name = name_.data(); }
    ShortName(const ShortName &) = delete;
    ShortName &operator=(const ShortName &) = delete;
    ~ShortName() { program_invocation_short_name = old_; }

private:
    std::string name_;
    char *old_ = program_invocation_short_name;
};

void log_through_va_list(int priority, const char *format, ...) __attribute__((format(printf, 2, 3)));
void log_through_va_list(int priority, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    log_vmessage(priority, format, args);
    va_end(args);
}

/* Returns what `body` writes to the standard streams, as "stdout|stderr". */
template <typename Body>
std::string streams(Body body)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    body();
    const std::string err = testing::internal::GetCapturedStderr();
    return testing::internal::GetCapturedStdout() + "|" + err;
}

std::string hello_on_streams()
{
    return streams([] { log_message(LOG_ERR, "hello"); });
}

TEST_F(LogTest, EachSetUpOpensTheSystemLogAgain)
{
    log_init(nullptr, 3, 16, 0x20, "arspctl"); /* the tool's */
    log_init("", 4, LOG_DAEMON, LOG_CONS, "two");
    EXPECT_EQ(syslog_capture.calls, (Calls{"closelog", "openlog arspctl 33 16", "setlogmask 15", "closelog",
                                           "openlog two 3 24", "setlogmask 31"}));
}

TEST_F(LogTest, OptionsAreKeptWithPidForcedOnButSyslogGetsOnlyThree)
{
    use_system_log(0xff);
    EXPECT_EQ(syslog_capture.calls.at(1), "openlog x 35 16");
    use_system_log(0x9a);
    EXPECT_EQ(log_options(), 0x9b);
    log_init("stderr", 3, LOG_MAIL, 0x02, "x");
    EXPECT_EQ(log_options(), 0x9b);
}

TEST_F(LogTest, IdentIsCopiedAndCutAt63Bytes)
{
    const std::string ident(80, 'i');
    use_system_log(0, ident.c_str());
    EXPECT_EQ(syslog_capture.calls.at(1), "openlog " + std::string(63, 'i') + " 1 16");
    EXPECT_NE(syslog_capture.opened_with, ident.c_str()); /* syslog keeps the pointer */
}

TEST_F(LogTest, AbsentIdentIsTheShortNameOfTheProcess)
{
    const ShortName name("shortname");
    use_system_log(0, nullptr);
    EXPECT_EQ(syslog_capture.calls.at(1), "openlog shortname 1 16");
}

TEST_F(LogTest, SystemLogGetsEveryRecordFormatted)
{
    EXPECT_EQ(streams([] {
                  log_message(LOG_ERR, "%s has %d", "mailbox", 7);
                  log_through_va_list(LOG_CRIT, "%s has %d", "mailbox", 8);
                  log_message(LOG_USER | LOG_WARNING, "with a facility");
                  log_message(LOG_DEBUG, "dropped by syslog's mask");
                  log_message(LOG_ERR, "%s", std::string(8300, 'm').c_str());
              }),
              "|");
    EXPECT_EQ(syslog_capture.records, (Records{{3, "mailbox has 7"},
                                               {2, "mailbox has 8"},
                                               {12, "with a facility"},
                                               {7, "dropped by syslog's mask"},
                                               {3, std::string(8300, 'm')}}));
}

TEST_F(LogTest, SystemLogKeepsErrno)
{
    for (const int options : {0, LOG_OPT_TRACE_ID}) {
        use_system_log(options);
        errno = ENOENT;
        log_message(LOG_ERR, "hello");
        EXPECT_EQ(errno, ENOENT);
    }
}

TEST_F(LogTest, TraceIdFromTheEnvironmentPrecedesEveryRecord)
{
    setenv("QUARN_LOG_TRACE_ID", "%n%s", 1);
    use_system_log(LOG_OPT_TRACE_ID);
    log_message(LOG_ERR, "one %s", "100%s %n");
    log_message(LOG_USER | LOG_WARNING, "two");
    log_message(LOG_ERR, "%s", std::string(8300, 'm').c_str());
    EXPECT_STREQ(getenv("QUARN_LOG_TRACE_ID"), "%n%s");
    use_system_log();
    log_message(LOG_ERR, "without the option");
    EXPECT_EQ(syslog_capture.records, (Records{{3, "%n%s: one 100%s %n"},
                                               {12, "%n%s: two"},
                                               {3, "%n%s: " + std::string(8185, 'm')}, /* 8191 bytes */
                                               {3, "without the option"}}));
}

TEST_F(LogTest, NewTraceIdIsTheUpperCasedInitialAndThePidAndIsExported)
{
    const ShortName name("mailtool");
    const std::string id = "M" + std::to_string(getpid());
    use_system_log(LOG_PERROR);
    EXPECT_EQ(getenv("QUARN_LOG_TRACE_ID"), nullptr);
    for (const char *given : {static_cast<const char *>(nullptr), ""}) {
        if (given != nullptr)
            setenv("QUARN_LOG_TRACE_ID", given, 1);
        use_system_log(LOG_OPT_TRACE_ID);
        log_message(LOG_ERR, "hello");
        EXPECT_STREQ(getenv("QUARN_LOG_TRACE_ID"), id.c_str());
    }
    EXPECT_EQ(syslog_capture.records, (Records{{3, id + ": hello"}, {3, id + ": hello"}}));
}

TEST_F(LogTest, NewTraceIdOfAProgramWithoutANameIsEmptyAndPrecedesNoRecord)
{
    const ShortName name("");
    use_system_log(LOG_OPT_TRACE_ID);
    log_message(LOG_ERR, "hello");
    EXPECT_STREQ(getenv("QUARN_LOG_TRACE_ID"), "");
    EXPECT_EQ(syslog_capture.records, (Records{{3, "hello"}}));
}

TEST_F(LogTest, TraceIdIsCutAt63Bytes)
{
    setenv("QUARN_LOG_TRACE_ID", std::string(70, 't').c_str(), 1);
    use_system_log(LOG_OPT_TRACE_ID);
    log_message(LOG_ERR, "hello");
    EXPECT_EQ(syslog_capture.records.at(0).text, std::string(63, 't') + ": hello");
}

TEST_F(LogTest, RecordShowsTheErrorOfTheCallerWhereNoTimerCanBeMade)
{
    const ChildResult child = run_in_child([] {
        constexpr rlimit NONE = {0, 0};
        setrlimit(RLIMIT_SIGPENDING, &NONE); /* timer_create() fails with EAGAIN */
        arsp::enable_write_deadlines();
        errno = ENOENT;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat" /* the C library's own conversion */
        log_message(LOG_ERR, "%m");
#pragma GCC diagnostic pop
        _exit(syslog_capture.records.at(0).text == "No such file or directory" ? 0 : 1);
    });
    EXPECT_EQ(child.exit_status, 0);
}

TEST_F(LogTest, CopiesStopOnlyIfStandardErrorIsStuckAtTheDeadline)
{
    const auto calls_with = [](int options, bool stuck) {
        return run_in_child([=] {
                   arsp::enable_write_deadlines();
                   use_system_log(options);
                   syslog_capture.calls.clear();
                   syslog_capture.during_record = [] { raise(SIGRTMIN); };
                   const FullPipe pipe(0);
                   if (stuck)
                       dup2(pipe.writer(), STDERR_FILENO);
                   log_message(LOG_ERR, "hello");
                   for (const std::string &call : syslog_capture.calls)
                       std::printf("%s;", call.c_str());
               })
            .out;
    };
    EXPECT_EQ(calls_with(LOG_PERROR, true), "openlog x 1 16;");
    EXPECT_EQ(calls_with(LOG_PERROR, false), "");
    EXPECT_EQ(calls_with(0, true), "");
}

TEST_F(LogTest, LowThreeBitsOfTheLevelSetTheMaskUpToTheThreshold)
{
    for (unsigned level = 0; level <= 7; ++level) {
        syslog_capture.calls.clear();
        log_set_level(level);
        log_set_level(level | 0xf0);
        const std::string mask = "setlogmask " + std::to_string((2U << level) - 1);
        EXPECT_EQ(syslog_capture.calls, (Calls{mask, mask}));
    }
}

TEST_F(LogTest, LevelInTheEnvironmentMayRaiseTheThresholdOnly)
{
    const auto mask_with = [](const char *value, unsigned level) {
        setenv("QUARN_LOG_LEVEL", value, 1);
        log_set_level(level);
        return syslog_capture.calls.back();
    };
    EXPECT_EQ(mask_with("7", 3 | 0x08), "setlogmask 255");
    EXPECT_EQ(mask_with("7", 3), "setlogmask 15");
    for (const char *value : {"1", "12", "07", "", "8", "9", "/", ":", "x", " 7", "7 ", "-7"})
        EXPECT_EQ(mask_with(value, 3 | 0x08), "setlogmask 15") << '"' << value << '"';
    unsetenv("QUARN_LOG_LEVEL");
    log_set_level(5 | 0x08);
    EXPECT_EQ(syslog_capture.calls.back(), "setlogmask 63");
}

TEST_F(LogTest, ConsoleNeverUsesTheSystemLogUntilItIsChosenAgain)
{
    use_console("console");
    log_set_level(7);
    hello_on_streams();
    EXPECT_EQ(syslog_capture.calls, Calls{});
    use_system_log();
    EXPECT_EQ(hello_on_streams(), "|");
    EXPECT_EQ(syslog_capture.records, (Records{{3, "hello"}}));
}

TEST_F(LogTest, TargetChoosesTheStreamsRegardlessOfCase)
{
    const std::pair<const char *, const char *> cases[] = {
        {"console", "hello\n|hello\n"},
        {"Console", "hello\n|hello\n"},
        {"stderr", "|hello\n"},
        {"STDERR", "|hello\n"},
        {"file", "|"},
    };
    for (const auto &[target, expected] : cases) {
        use_console(target, 7);
        EXPECT_EQ(hello_on_streams(), expected) << target;
    }
    EXPECT_EQ(syslog_capture.records, Records{});
}

TEST_F(LogTest, ConsoleWritesToStandardErrorFirstAndFlushesBoth)
{
    use_console("console");
    const StreamOrder order;
    log_message(LOG_ERR, "hello");
    EXPECT_EQ(order.text(), "[err]hello\n[out]hello\n");
}

TEST_F(LogTest, ConsoleShowsPrioritiesUpToTheThresholdAndNoneWithAFacility)
{
    use_console("stderr");
    EXPECT_EQ(streams([] {
                  log_message(LOG_WARNING, "four");
                  log_message(LOG_ERR, "%s", "three");
                  log_through_va_list(LOG_EMERG, "%s", "none");
                  log_set_level(7);
                  log_message(LOG_USER | LOG_WARNING, "twelve");
              }),
              "|three\nnone\n");
}

TEST_F(LogTest, ConsoleAddsALineFeedToARecordOfAnyLength)
{
    use_console("stderr");
    const std::string text = std::string(20000, 'm') + "\n";
    EXPECT_EQ(streams([&] { log_message(LOG_ERR, "%s", text.c_str()); }), "|" + text + "\n");
}

TEST_F(LogTest, ConsoleLosesARecordThatCannotBeFormatted)
{
    use_console("console");
    EXPECT_EQ(streams([] { log_message(LOG_ERR, "%ls", L"\u20ac"); }), "|"); /* the locale "C" has no euro sign */
    EXPECT_EQ(hello_on_streams(), "hello\n|hello\n");
}

TEST_F(LogTest, ConsoleWithClosedStreamsKeepsErrno)
{
    const ChildResult child = run_in_child([] {
        use_console("console");
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
        errno = ENOENT;
        log_message(LOG_ERR, "hello");
        _exit(errno == ENOENT ? 7 : 8);
    });
    EXPECT_EQ(child.exit_status, 7);
}

/* In a new process, where no other test has set the logger up. */
TEST(LogBeforeInitTest, MessagesUpToPrioritySixGoToBothStreams)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            const std::string shown = streams([] {
                log_message(LOG_DEBUG, "seven");
                log_message(LOG_INFO, "six");
                log_through_va_list(LOG_INFO, "%s", "again");
            });
            std::fprintf(stderr, "%s %d", shown.c_str(), log_options());
            _exit(0);
        },
        testing::ExitedWithCode(0), "^six\nagain\n\\|six\nagain\n 1$");
    GTEST_FLAG_SET(death_test_style, "fast");
}

} // namespace
