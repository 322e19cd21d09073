#ifndef ARSP_SUPPORT_CONF_VARS_H
#define ARSP_SUPPORT_CONF_VARS_H

/* Constants, which any thread may read. */

namespace arsp {

/* The variables of the panel configuration that have a compile-time default. The first and the last enumerator bound
 * the range and are no variables. The panel's other tools use the same numbers: new ones go before the last. */
enum ConfVarIndex : int {
    CONF_MIN_POSSIBLE_KEL_CONF_VAR = 0,
    CONF_QUARN_MAILNAMES_D = 1,
    CONF_RBLSMTPD = 2,
    CONF_CLIENT_PHP_BIN = 3,
    CONF_LIB_CRYPTO_PATH = 4,
    CONF_LIB_SSL_PATH = 5,
    CONF_AWSTATS_DOC_D = 6,
    CONF_AWSTATS_TOOLS_D = 7,
    CONF_AWSTATS_BIN_D = 8,
    CONF_AWSTATS_ETC_D = 9,
    CONF_MAILMAN_VAR_D = 10,
    CONF_MAILMAN_ROOT_D = 11,
    CONF_PGSQL_DATA_D = 12,
    CONF_PGSQL_BIN_D = 13,
    CONF_MYSQL_BIN_D = 14,
    CONF_MYSQL_VAR_D = 15,
    CONF_WEB_STAT = 16,
    CONF_DUMP_D = 17,
    CONF_DUMP_TMP_D = 18,
    CONF_NAMED_RUN_ROOT_D = 19,
    CONF_HTTPD_BIN = 20,
    CONF_HTTPD_SERVICE = 21,
    CONF_HTTPD_LOG_D = 22,
    CONF_HTTPD_INCLUDE_D = 23,
    CONF_HTTPD_CONF_D = 24,
    CONF_HTTPD_VHOSTS_D = 25,
    CONF_MYSQL_SOCKET = 26,
    CONF_SA_MAX_MAIL_SIZE = 27,
    CONF_SNI_SUPPORT = 28,
    CONF_PRODUCT_ROOT_D = 29,
    CONF_MAX_POSSIBLE_KEL_CONF_VAR = 30,
};

constexpr int CONF_VAR_COUNT = CONF_MAX_POSSIBLE_KEL_CONF_VAR + 1;

/* The names in kel.conf, and the values if kel.conf has none. Indexed by ConfVarIndex, the two bounds included. */
extern const char *const CONF_VAR_NAMES[CONF_VAR_COUNT];
extern const char *const CONF_VAR_DEFAULTS[CONF_VAR_COUNT];

} // namespace arsp

using arsp::ConfVarIndex;

#endif
