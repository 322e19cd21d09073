#include "support/conf.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

#include <dlfcn.h>

#include <gtest/gtest.h>

#include "tests/unit/support/child_process.h"
#include "tests/unit/support/scratch_dir.h"
#include "tests/unit/support/syslog_capture.h"

using namespace arsp;

namespace {

/* What is opened in place of /etc/kel/kel.conf. */
std::string kel_conf_stand_in;

} // namespace

/* The linker takes this for fopen: the machine's own configuration is never read. */
FILE *fopen_elsewhere(const char *path, const char *mode) __asm__("fopen");
FILE *fopen_elsewhere(const char *path, const char *mode)
{
    using Open = FILE *(const char *, const char *);
    static const auto real_fopen = reinterpret_cast<Open *>(dlsym(RTLD_NEXT, "fopen"));
    return real_fopen(std::strcmp(path, "/etc/kel/kel.conf") == 0 ? kel_conf_stand_in.c_str() : path, mode);
}

namespace {

using Records = std::vector<SyslogRecord>;

const SyslogRecord OPEN_FAILURE = {12,
                                   "unable to open configuration file /etc/kel/kel.conf: No such file or directory\n"};

class ConfTest : public testing::Test {
protected:
    void SetUp() override
    {
        capture_syslog();
        kel_conf_stand_in = dir_ / "kel.conf";
    }

    /* A successful load is for the life of the process, so what needs one is looked at in a child; it prints. */
    std::string printed_with(std::string_view kel_conf, const std::function<void()> &body)
    {
        dir_.file("kel.conf", kel_conf);
        const ChildResult child = run_in_child(body);
        EXPECT_EQ(child.exit_status, 0);
        EXPECT_EQ(child.err, "");
        return child.out;
    }
    static void print(const char *text) { std::printf("%s;", text == nullptr ? "(null)" : text); }

    ScratchDir dir_;
};

TEST_F(ConfTest, LoadingWithoutAFileFailsAndKeepsErrno)
{
    errno = 0;
    EXPECT_EQ(conf_load(), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(syslog_capture.records, Records{OPEN_FAILURE});
}

TEST_F(ConfTest, WithoutAFileTheMailboxesAreInTheirDefaultPlace)
{
    EXPECT_STREQ(conf_get(CONF_QUARN_MAILNAMES_D), "/var/qmail/mailnames");
}

TEST_F(ConfTest, WithoutAFileEveryVariableHasItsDefault)
{
    for (int index = 0; index < CONF_VAR_COUNT; ++index)
        EXPECT_STREQ(conf_get(static_cast<ConfVarIndex>(index)), CONF_VAR_DEFAULTS[index]);
}

TEST_F(ConfTest, WithoutAFileThereAreNoFileValues)
{
    EXPECT_EQ(conf_file_value(CONF_QUARN_MAILNAMES_D), nullptr);
    EXPECT_EQ(conf_lookup("QUARN_MAILNAMES_D"), nullptr);
}

TEST_F(ConfTest, EveryRequestTriesAFailedLoadAgain)
{
    conf_get(CONF_QUARN_MAILNAMES_D);
    conf_get(CONF_QUARN_MAILNAMES_D);
    EXPECT_EQ(syslog_capture.records, (Records{OPEN_FAILURE, OPEN_FAILURE}));
}

TEST_F(ConfTest, FileThatAppearsAfterAFailedLoadIsRead)
{
    EXPECT_STREQ(conf_get(CONF_QUARN_MAILNAMES_D), "/var/qmail/mailnames");
    EXPECT_EQ(printed_with("QUARN_MAILNAMES_D /srv/mail\n", [] { print(conf_get(CONF_QUARN_MAILNAMES_D)); }),
              "/srv/mail;");
}

TEST_F(ConfTest, FileThatCanNotBeReadLeavesTheDefaults)
{
    kel_conf_stand_in = dir_.path();
    EXPECT_EQ(conf_load(), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(syslog_capture.records, (Records{{12, "Unable to read configuration file: Is a directory"}}));
    EXPECT_STREQ(conf_get(CONF_QUARN_MAILNAMES_D), "/var/qmail/mailnames");
}

TEST_F(ConfTest, ValuesOfTheFileComeBeforeTheDefaults)
{
    EXPECT_EQ(printed_with("QUARN_MAILNAMES_D /srv/mail\nPRODUCT_ROOT_D /usr/kel\n",
                           [] {
                               print(std::to_string(conf_load()).c_str());
                               print(conf_get(CONF_QUARN_MAILNAMES_D));
                               print(conf_get(CONF_RBLSMTPD));
                               print(conf_get(CONF_PRODUCT_ROOT_D));
                           }),
              "0;/srv/mail;/usr/sbin/rblsmtpd;/usr/kel;");
}

TEST_F(ConfTest, RejectedDefinitionLeavesTheDefault)
{
    EXPECT_EQ(printed_with("QUARN_MAILNAMES_D=/srv/mail\n", [] { print(conf_get(CONF_QUARN_MAILNAMES_D)); }),
              "/var/qmail/mailnames;");
}

TEST_F(ConfTest, ValuesAreReadByNameAndByIndex)
{
    EXPECT_EQ(printed_with("QUARN_MAILNAMES_D /srv/mail\nUNKNOWN_NAME x\n",
                           [] {
                               print(conf_get_by_name("QUARN_MAILNAMES_D"));
                               print(conf_get_by_name("RBLSMTPD"));
                               print(conf_lookup("UNKNOWN_NAME"));
                               print(conf_lookup("RBLSMTPD"));
                               print(conf_file_value(CONF_QUARN_MAILNAMES_D));
                               print(conf_file_value(CONF_RBLSMTPD));
                           }),
              "/srv/mail;/usr/sbin/rblsmtpd;x;(null);/srv/mail;(null);");
}

TEST_F(ConfTest, LoadedFileIsNotReadAgain)
{
    EXPECT_EQ(printed_with("QUARN_MAILNAMES_D /srv/mail\n",
                           [this] {
                               conf_load();
                               dir_.file("kel.conf", "QUARN_MAILNAMES_D /other\nRBLSMTPD /other\n");
                               print(std::to_string(conf_load()).c_str());
                               print(conf_get(CONF_QUARN_MAILNAMES_D));
                               print(conf_get(CONF_RBLSMTPD));
                           }),
              "0;/srv/mail;/usr/sbin/rblsmtpd;");
}

TEST_F(ConfTest, ValueIsTheSamePointerEachTime)
{
    EXPECT_EQ(printed_with("QUARN_MAILNAMES_D /srv/mail\n",
                           [] {
                               const char *first = conf_get(CONF_QUARN_MAILNAMES_D);
                               print(first == conf_get(CONF_QUARN_MAILNAMES_D) &&
                                             first == conf_lookup("QUARN_MAILNAMES_D")
                                         ? "same"
                                         : "another");
                           }),
              "same;");
}

TEST_F(ConfTest, UnknownNameIsLogged)
{
    EXPECT_EQ(conf_get_by_name("NO_SUCH_%s"), nullptr);
    EXPECT_EQ(syslog_capture.records, (Records{{3, "variable 'NO_SUCH_%s' was found neither in /etc/kel/kel.conf, "
                                                   "nor in compile-time defaults"}}));
}

TEST_F(ConfTest, UpperBoundIsNoKnownName)
{
    EXPECT_EQ(conf_get_by_name("_MAX_POSSIBLE_KEL_CONF_VAR_NAME"), nullptr);
    EXPECT_EQ(syslog_capture.records,
              (Records{{3, "variable '_MAX_POSSIBLE_KEL_CONF_VAR_NAME' was found neither in /etc/kel/kel.conf, "
                           "nor in compile-time defaults"}}));
}

TEST_F(ConfTest, LastVariableIsKnownByName)
{
    EXPECT_STREQ(conf_get_by_name("PRODUCT_ROOT_D"), "/opt/kel");
}

TEST_F(ConfTest, LowerBoundIsAKnownName)
{
    EXPECT_STREQ(conf_get_by_name("_MIN_POSSIBLE_KEL_CONF_VAR_NAME"), "_MIN_POSSIBLE_KEL_CONF_VAR_VALUE");
}

TEST_F(ConfTest, FileMayDefineTheLowerBound)
{
    EXPECT_EQ(printed_with("_MIN_POSSIBLE_KEL_CONF_VAR_NAME x\n",
                           [] { print(conf_get_by_name("_MIN_POSSIBLE_KEL_CONF_VAR_NAME")); }),
              "x;");
}

} // namespace
