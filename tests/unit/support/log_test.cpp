#include "support/log.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/unit/support/child_process.h"
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
    void TearDown() override
    {
        unsetenv("QUARN_LOG_LEVEL");
        unsetenv("QUARN_LOG_TRACE_ID");
        capture_syslog();
    }
};

/* The process's short name for the rest of a scope. */
class ShortName {
public:
    explicit ShortName(const char *name)
    {
        std::snprintf(name_, sizeof name_, "%s", name);
        program_invocation_short_name = name_;
    }
    ShortName(const ShortName &) = delete;
    ShortName &operator=(const ShortName &) = delete;
    ~ShortName() { program_invocation_short_name = old_; }

private:
    char name_[128] = "";
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

/* What both streams got, "stdout|stderr". */
template <typename Body>
std::string streams(Body body)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    body();
    const std::string err = testing::internal::GetCapturedStderr();
    return testing::internal::GetCapturedStdout() + "|" + err;
}

TEST_F(LogTest, SetUpOfTheToolOpensTheSystemLog)
{
    log_init(nullptr, 3, 16, 0x20, "arspctl");
    EXPECT_EQ(syslog_capture.calls, (Calls{"closelog", "openlog arspctl 33 16", "setlogmask 15"}));
}

TEST_F(LogTest, SettingUpAgainReopensTheSystemLog)
{
    log_init(nullptr, 3, LOG_MAIL, 0, "one");
    log_init(nullptr, 4, LOG_DAEMON, LOG_CONS, "two");
    EXPECT_EQ(syslog_capture.calls, (Calls{"closelog", "openlog one 1 16", "setlogmask 15", "closelog",
                                           "openlog two 3 24", "setlogmask 31"}));
}

TEST_F(LogTest, OnlyPidConsAndPerrorReachSyslog)
{
    log_init(nullptr, 3, LOG_MAIL, 0xff, "x");
    EXPECT_EQ(syslog_capture.calls.at(1), "openlog x 35 16");
}

TEST_F(LogTest, OptionsAreKeptWithPidForcedOn)
{
    log_init(nullptr, 3, LOG_MAIL, 0x9a, "x");
    EXPECT_EQ(log_options(), 0x9b);
}

TEST_F(LogTest, ConsoleTargetLeavesTheOptionsAsTheyWere)
{
    log_init(nullptr, 3, LOG_MAIL, 0x20, "x");
    log_init("stderr", 3, LOG_MAIL, 0x02, "x");
    EXPECT_EQ(log_options(), 0x21);
}

TEST_F(LogTest, LongIdentIsCutAt63Bytes)
{
    log_init(nullptr, 3, LOG_MAIL, 0, std::string(80, 'i').c_str());
    EXPECT_EQ(syslog_capture.calls.at(1),
              "openlog iiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiiii 1 16");
}

TEST_F(LogTest, IdentIsCopied)
{
    /* syslog keeps the pointer that openlog got, so it must not be the caller's. */
    char ident[] = "caller";
    log_init(nullptr, 3, LOG_MAIL, 0, ident);
    EXPECT_NE(syslog_capture.opened_with, ident);
}

TEST_F(LogTest, AbsentIdentIsTheShortNameOfTheProcess)
{
    const ShortName name("shortname");
    log_init(nullptr, 3, LOG_MAIL, 0, nullptr);
    EXPECT_EQ(syslog_capture.calls.at(1), "openlog shortname 1 16");
}

TEST_F(LogTest, EmptyTargetIsTheSystemLog)
{
    log_init("", 3, LOG_MAIL, 0, "x");
    log_message(LOG_ERR, "hello");
    EXPECT_EQ(syslog_capture.records, (Records{{3, "hello"}}));
}

TEST_F(LogTest, RecordGoesToTheSystemLogFormatted)
{
    log_message(LOG_ERR, "%s has %d", "mailbox", 7);
    EXPECT_EQ(syslog_capture.records, (Records{{3, "mailbox has 7"}}));
}

TEST_F(LogTest, RecordGivenAsVaListGoesToTheSystemLogFormatted)
{
    log_through_va_list(LOG_CRIT, "%s has %d", "mailbox", 7);
    EXPECT_EQ(syslog_capture.records, (Records{{2, "mailbox has 7"}}));
}

TEST_F(LogTest, FacilityInAPriorityReachesSyslog)
{
    log_message(LOG_USER | LOG_WARNING, "warning");
    EXPECT_EQ(syslog_capture.records, (Records{{12, "warning"}}));
}

TEST_F(LogTest, FilteringIsLeftToSyslogsMask)
{
    log_message(LOG_DEBUG, "dropped by the mask");
    EXPECT_EQ(syslog_capture.records.size(), 1U);
}

TEST_F(LogTest, SystemLogWritesNothingToTheStreams)
{
    EXPECT_EQ(streams([] { log_message(LOG_ERR, "hello"); }), "|");
}

TEST_F(LogTest, SystemLogKeepsErrno)
{
    errno = ENOENT;
    log_message(LOG_ERR, "hello");
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(LogTest, SystemLogRecordWithTraceIdKeepsErrno)
{
    log_init(nullptr, 3, LOG_MAIL, LOG_OPT_TRACE_ID, "x");
    errno = ENOENT;
    log_message(LOG_ERR, "hello");
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(LogTest, TraceIdFromTheEnvironmentPrecedesEveryRecord)
{
    setenv("QUARN_LOG_TRACE_ID", "T99", 1);
    log_init(nullptr, 3, LOG_MAIL, LOG_OPT_TRACE_ID, "x");
    log_message(LOG_ERR, "one %d", 1);
    log_message(LOG_USER | LOG_WARNING, "two");
    EXPECT_EQ(syslog_capture.records, (Records{{3, "T99: one 1"}, {12, "T99: two"}}));
}

TEST_F(LogTest, TraceIdFromTheEnvironmentIsLeftThere)
{
    setenv("QUARN_LOG_TRACE_ID", "T99", 1);
    log_init(nullptr, 3, LOG_MAIL, LOG_OPT_TRACE_ID, "x");
    EXPECT_STREQ(getenv("QUARN_LOG_TRACE_ID"), "T99");
}

TEST_F(LogTest, NewTraceIdIsTheUpperCasedInitialAndThePid)
{
    const ShortName name("mailtool");
    log_init(nullptr, 3, LOG_MAIL, LOG_OPT_TRACE_ID, "x");
    log_message(LOG_ERR, "hello");
    EXPECT_EQ(syslog_capture.records, (Records{{3, "M" + std::to_string(getpid()) + ": hello"}}));
}

TEST_F(LogTest, NewTraceIdIsExported)
{
    const ShortName name("mailtool");
    log_init(nullptr, 3, LOG_MAIL, LOG_OPT_TRACE_ID, "x");
    EXPECT_STREQ(getenv("QUARN_LOG_TRACE_ID"), ("M" + std::to_string(getpid())).c_str());
}

TEST_F(LogTest, EmptyTraceIdInTheEnvironmentCountsAsAbsent)
{
    const ShortName name("mailtool");
    setenv("QUARN_LOG_TRACE_ID", "", 1);
    log_init(nullptr, 3, LOG_MAIL, LOG_OPT_TRACE_ID, "x");
    EXPECT_STREQ(getenv("QUARN_LOG_TRACE_ID"), ("M" + std::to_string(getpid())).c_str());
}

TEST_F(LogTest, TraceIdIsCutAt63Bytes)
{
    setenv("QUARN_LOG_TRACE_ID", std::string(70, 't').c_str(), 1);
    log_init(nullptr, 3, LOG_MAIL, LOG_OPT_TRACE_ID, "x");
    log_message(LOG_ERR, "hello");
    EXPECT_EQ(syslog_capture.records.at(0).text, std::string(63, 't') + ": hello");
}

TEST_F(LogTest, WithoutItsOptionTheTraceIdIsNeitherUsedNorMade)
{
    log_init(nullptr, 3, LOG_MAIL, LOG_PERROR, "x");
    EXPECT_EQ(getenv("QUARN_LOG_TRACE_ID"), nullptr);
    setenv("QUARN_LOG_TRACE_ID", "T99", 1);
    log_init(nullptr, 3, LOG_MAIL, LOG_OPT_TRACE_ID, "x");
    log_init(nullptr, 3, LOG_MAIL, LOG_PERROR, "x");
    log_message(LOG_ERR, "hello");
    EXPECT_EQ(syslog_capture.records, (Records{{3, "hello"}}));
}

TEST_F(LogTest, RecordWithTraceIdIsCutAt8191Bytes)
{
    setenv("QUARN_LOG_TRACE_ID", "T99", 1);
    log_init(nullptr, 3, LOG_MAIL, LOG_OPT_TRACE_ID, "x");
    log_message(LOG_ERR, "%s", std::string(8300, 'm').c_str());
    EXPECT_EQ(syslog_capture.records, (Records{{3, "T99: " + std::string(8186, 'm')}}));
}

TEST_F(LogTest, RecordWithoutTraceIdHasNoLimit)
{
    log_message(LOG_ERR, "%s", std::string(8300, 'm').c_str());
    EXPECT_EQ(syslog_capture.records, (Records{{3, std::string(8300, 'm')}}));
}

TEST_F(LogTest, PercentSignsInTraceIdAndArgumentsAreNoFormat)
{
    setenv("QUARN_LOG_TRACE_ID", "%n%s", 1);
    log_init(nullptr, 3, LOG_MAIL, LOG_OPT_TRACE_ID, "x");
    log_message(LOG_ERR, "%s", "100%s %n");
    EXPECT_EQ(syslog_capture.records, (Records{{3, "%n%s: 100%s %n"}}));
}

TEST_F(LogTest, LevelSetsTheMaskUpToTheThreshold)
{
    for (unsigned level = 0; level <= 7; ++level)
        log_set_level(level);
    EXPECT_EQ(syslog_capture.calls, (Calls{"setlogmask 1", "setlogmask 3", "setlogmask 7", "setlogmask 15",
                                           "setlogmask 31", "setlogmask 63", "setlogmask 127", "setlogmask 255"}));
}

TEST_F(LogTest, OnlyTheLowThreeBitsOfALevelAreTheThreshold)
{
    log_set_level(0xf0 | 3);
    EXPECT_EQ(syslog_capture.calls, Calls{"setlogmask 15"});
}

TEST_F(LogTest, EnvironmentMayRaiseTheThreshold)
{
    setenv("QUARN_LOG_LEVEL", "7", 1);
    log_set_level(3 | 0x08);
    EXPECT_EQ(syslog_capture.calls, Calls{"setlogmask 255"});
}

TEST_F(LogTest, EnvironmentNeverLowersTheThreshold)
{
    setenv("QUARN_LOG_LEVEL", "1", 1);
    log_set_level(3 | 0x08);
    EXPECT_EQ(syslog_capture.calls, Calls{"setlogmask 15"});
}

TEST_F(LogTest, EnvironmentsLevelIsIgnoredUnlessItIsOneDigitUpToSeven)
{
    for (const char *value : {"12", "07", "", "8", "9", "/", ":", "x", " 7", "7 ", "-7"}) {
        setenv("QUARN_LOG_LEVEL", value, 1);
        syslog_capture.calls.clear();
        log_set_level(3 | 0x08);
        EXPECT_EQ(syslog_capture.calls, Calls{"setlogmask 15"}) << '"' << value << '"';
    }
}

TEST_F(LogTest, AbsentLevelInTheEnvironmentLeavesTheThreshold)
{
    log_set_level(5 | 0x08);
    EXPECT_EQ(syslog_capture.calls, Calls{"setlogmask 63"});
}

TEST_F(LogTest, SetUpOfTheToolIgnoresTheEnvironmentsLevel)
{
    setenv("QUARN_LOG_LEVEL", "7", 1);
    log_init(nullptr, 3, 16, 0x20, "arspctl");
    EXPECT_EQ(syslog_capture.calls.at(2), "setlogmask 15");
}

TEST_F(LogTest, ConsoleTargetNeverTouchesTheSystemLog)
{
    log_init("console", 3, LOG_MAIL, 0x20, "x");
    log_set_level(7);
    streams([] { log_message(LOG_ERR, "hello"); });
    EXPECT_EQ(syslog_capture.calls, Calls{});
    EXPECT_EQ(syslog_capture.records, Records{});
}

TEST_F(LogTest, ConsoleTargetWritesToBothStreams)
{
    log_init("console", 3, LOG_MAIL, 0, "x");
    EXPECT_EQ(streams([] { log_message(LOG_ERR, "%s has %d", "mailbox", 7); }), "mailbox has 7\n|mailbox has 7\n");
}

TEST_F(LogTest, ConsoleTargetWritesToStandardErrorFirstAndFlushesBoth)
{
    log_init("console", 3, LOG_MAIL, 0, "x");
    const StreamOrder order;
    log_message(LOG_ERR, "hello");
    EXPECT_EQ(order.text(), "[err]hello\n[out]hello\n");
}

TEST_F(LogTest, StderrTargetWritesToStandardErrorOnly)
{
    log_init("stderr", 3, LOG_MAIL, 0, "x");
    EXPECT_EQ(streams([] { log_message(LOG_ERR, "hello"); }), "|hello\n");
}

TEST_F(LogTest, RecordGivenAsVaListGoesToTheConsole)
{
    log_init("stderr", 3, LOG_MAIL, 0, "x");
    EXPECT_EQ(streams([] { log_through_va_list(LOG_ERR, "%s", "hello"); }), "|hello\n");
}

TEST_F(LogTest, CaseOfATargetDoesNotMatter)
{
    log_init("STDERR", 3, LOG_MAIL, 0, "x");
    EXPECT_EQ(streams([] { log_message(LOG_ERR, "hello"); }), "|hello\n");
    log_init("Console", 3, LOG_MAIL, 0, "x");
    EXPECT_EQ(streams([] { log_message(LOG_ERR, "hello"); }), "hello\n|hello\n");
}

TEST_F(LogTest, UnknownTargetWritesNothing)
{
    log_init("file", 7, LOG_MAIL, 0, "x");
    EXPECT_EQ(streams([] { log_message(LOG_EMERG, "hello"); }), "|");
    EXPECT_EQ(syslog_capture.records, Records{});
}

TEST_F(LogTest, ConsoleShowsPrioritiesUpToTheThreshold)
{
    log_init("stderr", 3, LOG_MAIL, 0, "x");
    EXPECT_EQ(streams([] {
                  log_message(LOG_WARNING, "four");
                  log_message(LOG_ERR, "three");
                  log_message(LOG_EMERG, "none");
              }),
              "|three\nnone\n");
}

TEST_F(LogTest, ConsoleNeverShowsAPriorityWithAFacility)
{
    log_init("stderr", 7, LOG_MAIL, 0, "x");
    EXPECT_EQ(streams([] { log_message(LOG_USER | LOG_WARNING, "hello"); }), "|");
}

TEST_F(LogTest, ConsoleAddsALineFeedEvenToAMessageThatHasOne)
{
    log_init("stderr", 3, LOG_MAIL, 0, "x");
    EXPECT_EQ(streams([] { log_message(LOG_ERR, "hello\n"); }), "|hello\n\n");
}

TEST_F(LogTest, ConsoleRecordHasNoLimit)
{
    log_init("stderr", 3, LOG_MAIL, 0, "x");
    const std::string text(20000, 'm');
    EXPECT_EQ(streams([&] { log_message(LOG_ERR, "%s", text.c_str()); }), "|" + text + "\n");
}

TEST_F(LogTest, ConsoleRecordThatCannotBeFormattedIsLost)
{
    log_init("console", 3, LOG_MAIL, 0, "x");
    EXPECT_EQ(streams([] { log_message(LOG_ERR, "%ls", L"\u20ac"); }), "|"); /* the locale "C" has no euro sign */
    EXPECT_EQ(streams([] { log_message(LOG_ERR, "hello"); }), "hello\n|hello\n");
}

TEST_F(LogTest, GoingBackToTheSystemLogLeavesTheConsole)
{
    log_init("console", 3, LOG_MAIL, 0, "x");
    log_init(nullptr, 3, LOG_MAIL, 0, "x");
    EXPECT_EQ(streams([] { log_message(LOG_ERR, "hello"); }), "|");
    EXPECT_EQ(syslog_capture.records, (Records{{3, "hello"}}));
}

TEST_F(LogTest, ConsoleWithClosedStreamsKeepsErrno)
{
    const ChildResult child = run_in_child([] {
        log_init("console", 3, LOG_MAIL, 0, "x");
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
        errno = ENOENT;
        log_message(LOG_ERR, "hello");
        _exit(errno == ENOENT ? 7 : 8);
    });
    EXPECT_EQ(child.exit_status, 7);
}

/* In a process of its own, where no other test has set the logger up. */
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
