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

std::string kel_conf; /* opened in place of /etc/kel/kel.conf */

} // namespace

/* The linker takes this for fopen: the tests never read the machine's own configuration. */
FILE *fopen_elsewhere(const char *path, const char *mode) __asm__("fopen");
FILE *fopen_elsewhere(const char *path, const char *mode)
{
    static const auto real_fopen = reinterpret_cast<FILE *(*)(const char *, const char *)>(dlsym(RTLD_NEXT, "fopen"));
    return real_fopen(std::strcmp(path, "/etc/kel/kel.conf") == 0 ? kel_conf.c_str() : path, mode);
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
        kel_conf = dir_ / "kel.conf";
    }

    /* Returns what `body` prints, with this configuration file, in a child: a successful load lasts for the life of the
     * process. */
    std::string printed_with(std::string_view text, const std::function<void()> &body)
    {
        dir_.file("kel.conf", text);
        return run_in_child(body).out;
    }
    static void print(const char *text) { std::printf("%s;", text == nullptr ? "(null)" : text); }

    ScratchDir dir_;
};

TEST_F(ConfTest, WithoutAFileEveryVariableHasItsDefault)
{
    for (int index = 0; index < CONF_VAR_COUNT; ++index)
        EXPECT_STREQ(conf_get(static_cast<ConfVarIndex>(index)), CONF_VAR_DEFAULTS[index]);
    EXPECT_EQ(conf_file_value(CONF_QUARN_MAILNAMES_D), nullptr);
    EXPECT_EQ(conf_lookup("QUARN_MAILNAMES_D"), nullptr);
}

TEST_F(ConfTest, EveryRequestRetriesAFailedLoad)
{
    errno = 0;
    EXPECT_EQ(conf_load(), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_STREQ(conf_get(CONF_QUARN_MAILNAMES_D), "/var/qmail/mailnames");
    EXPECT_EQ(syslog_capture.records, (Records{OPEN_FAILURE, OPEN_FAILURE}));
    EXPECT_EQ(printed_with("QUARN_MAILNAMES_D /srv/mail\n", [] { print(conf_get(CONF_QUARN_MAILNAMES_D)); }),
              "/srv/mail;");
}

TEST_F(ConfTest, UnreadableFileLeavesTheDefaults)
{
    kel_conf = dir_.path();
    EXPECT_EQ(conf_load(), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(syslog_capture.records, (Records{{12, "Unable to read configuration file: Is a directory"}}));
    EXPECT_STREQ(conf_get(CONF_QUARN_MAILNAMES_D), "/var/qmail/mailnames");
}

TEST_F(ConfTest, ValuesOfTheFilePrecedeTheDefaults)
{
    EXPECT_EQ(printed_with("QUARN_MAILNAMES_D /srv/mail\nPRODUCT_ROOT_D=/rejected\nUNKNOWN_NAME x\n",
                           [] {
                               print(std::to_string(conf_load()).c_str());
                               print(conf_get(CONF_QUARN_MAILNAMES_D));
                               print(conf_get(CONF_RBLSMTPD));
                               print(conf_get(CONF_PRODUCT_ROOT_D));
                               print(conf_get_by_name("QUARN_MAILNAMES_D"));
                               print(conf_get_by_name("RBLSMTPD"));
                               print(conf_lookup("UNKNOWN_NAME"));
                               print(conf_lookup("RBLSMTPD"));
                               print(conf_file_value(CONF_QUARN_MAILNAMES_D));
                               print(conf_file_value(CONF_RBLSMTPD));
                           }),
              "0;/srv/mail;/usr/sbin/rblsmtpd;/opt/kel;/srv/mail;/usr/sbin/rblsmtpd;x;(null);/srv/mail;(null);");
}

TEST_F(ConfTest, LoadedFileIsNotReadAgain)
{
    EXPECT_EQ(printed_with("QUARN_MAILNAMES_D /srv/mail\n",
                           [this] {
                               const char *first = conf_get(CONF_QUARN_MAILNAMES_D);
                               dir_.file("kel.conf", "QUARN_MAILNAMES_D /other\nRBLSMTPD /other\n");
                               print(std::to_string(conf_load()).c_str());
                               print(first);
                               print(conf_get(CONF_QUARN_MAILNAMES_D) == first ? "same pointer" : "another");
                               print(conf_get(CONF_RBLSMTPD));
                           }),
              "0;/srv/mail;same pointer;/usr/sbin/rblsmtpd;");
}

TEST_F(ConfTest, UnknownNameAndUpperBoundAreLogged)
{
    for (const std::string name : {"NO_SUCH_%s", "_MAX_POSSIBLE_KEL_CONF_VAR_NAME"}) {
        syslog_capture.records.clear();
        EXPECT_EQ(conf_get_by_name(name.c_str()), nullptr);
        EXPECT_EQ(syslog_capture.records, (Records{{3, "variable '" + name +
                                                           "' was found neither in /etc/kel/kel.conf, "
                                                           "nor in compile-time defaults"}}));
    }
}

TEST_F(ConfTest, LowerBoundAndLastVariableAreKnownByName)
{
    EXPECT_STREQ(conf_get_by_name("PRODUCT_ROOT_D"), "/opt/kel");
    EXPECT_STREQ(conf_get_by_name("_MIN_POSSIBLE_KEL_CONF_VAR_NAME"), "_MIN_POSSIBLE_KEL_CONF_VAR_VALUE");
    EXPECT_EQ(printed_with("_MIN_POSSIBLE_KEL_CONF_VAR_NAME x\n",
                           [] { print(conf_get_by_name("_MIN_POSSIBLE_KEL_CONF_VAR_NAME")); }),
              "x;");
}

} // namespace
