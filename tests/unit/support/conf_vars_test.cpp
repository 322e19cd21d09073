#include "support/conf_vars.h"

#include <gtest/gtest.h>

using namespace arsp;

namespace {

struct Variable {
    ConfVarIndex index;
    int number;
    const char *name;
    const char *default_value;
};

const Variable VARIABLES[] = {
    {CONF_MIN_POSSIBLE_KEL_CONF_VAR, 0, "_MIN_POSSIBLE_KEL_CONF_VAR_NAME", "_MIN_POSSIBLE_KEL_CONF_VAR_VALUE"},
    {CONF_QUARN_MAILNAMES_D, 1, "QUARN_MAILNAMES_D", "/var/qmail/mailnames"},
    {CONF_RBLSMTPD, 2, "RBLSMTPD", "/usr/sbin/rblsmtpd"},
    {CONF_CLIENT_PHP_BIN, 3, "CLIENT_PHP_BIN", "/opt/kel/bin/php-cli"},
    {CONF_LIB_CRYPTO_PATH, 4, "LIB_CRYPTO_PATH", "/lib/libcrypto.so"},
    {CONF_LIB_SSL_PATH, 5, "LIB_SSL_PATH", "/lib/libssl.so"},
    {CONF_AWSTATS_DOC_D, 6, "AWSTATS_DOC_D", "/usr/share/awstats"},
    {CONF_AWSTATS_TOOLS_D, 7, "AWSTATS_TOOLS_D", "/usr/share/awstats/tools"},
    {CONF_AWSTATS_BIN_D, 8, "AWSTATS_BIN_D", "/usr/lib/cgi-bin"},
    {CONF_AWSTATS_ETC_D, 9, "AWSTATS_ETC_D", "/etc/awstats"},
    {CONF_MAILMAN_VAR_D, 10, "MAILMAN_VAR_D", "/var/lib/mailman"},
    {CONF_MAILMAN_ROOT_D, 11, "MAILMAN_ROOT_D", "/usr/lib/mailman"},
    {CONF_PGSQL_DATA_D, 12, "PGSQL_DATA_D", "/var/lib/postgresql/14/main"},
    {CONF_PGSQL_BIN_D, 13, "PGSQL_BIN_D", "/usr/lib/postgresql/14/bin"},
    {CONF_MYSQL_BIN_D, 14, "MYSQL_BIN_D", "/usr/bin"},
    {CONF_MYSQL_VAR_D, 15, "MYSQL_VAR_D", "/var/lib/mysql"},
    {CONF_WEB_STAT, 16, "WEB_STAT", "/usr/bin/webalizer"},
    {CONF_DUMP_D, 17, "DUMP_D", "/var/lib/kel/dumps"},
    {CONF_DUMP_TMP_D, 18, "DUMP_TMP_D", "/tmp"},
    {CONF_NAMED_RUN_ROOT_D, 19, "NAMED_RUN_ROOT_D", "/var/named/run-root"},
    {CONF_HTTPD_BIN, 20, "HTTPD_BIN", "/usr/sbin/apache2"},
    {CONF_HTTPD_SERVICE, 21, "HTTPD_SERVICE", "apache2"},
    {CONF_HTTPD_LOG_D, 22, "HTTPD_LOG_D", "/var/log/apache2"},
    {CONF_HTTPD_INCLUDE_D, 23, "HTTPD_INCLUDE_D", "/etc/apache2/conf-enabled"},
    {CONF_HTTPD_CONF_D, 24, "HTTPD_CONF_D", "/etc/apache2"},
    {CONF_HTTPD_VHOSTS_D, 25, "HTTPD_VHOSTS_D", "/var/www/vhosts"},
    {CONF_MYSQL_SOCKET, 26, "MYSQL_SOCKET", "/var/run/mysqld/mysqld.sock"},
    {CONF_SA_MAX_MAIL_SIZE, 27, "SA_MAX_MAIL_SIZE", "256000"},
    {CONF_SNI_SUPPORT, 28, "SNI_SUPPORT", "true"},
    {CONF_PRODUCT_ROOT_D, 29, "PRODUCT_ROOT_D", "/opt/kel"},
    {CONF_MAX_POSSIBLE_KEL_CONF_VAR, 30, "_MAX_POSSIBLE_KEL_CONF_VAR_NAME", "_MAX_POSSIBLE_KEL_CONF_VAR_VALUE"},
};

TEST(ConfVarsTest, EveryIndexHasItsNumberNameAndDefault)
{
    for (const Variable &variable : VARIABLES) {
        EXPECT_EQ(variable.index, variable.number) << variable.name;
        EXPECT_STREQ(CONF_VAR_NAMES[variable.number], variable.name);
        EXPECT_STREQ(CONF_VAR_DEFAULTS[variable.number], variable.default_value);
    }
}

TEST(ConfVarsTest, ThereAre29VariablesBetweenTwoBounds)
{
    EXPECT_EQ(CONF_VAR_COUNT, 31);
    EXPECT_EQ(sizeof VARIABLES / sizeof *VARIABLES, 31U);
}

} // namespace
