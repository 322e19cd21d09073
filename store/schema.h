#ifndef ARSP_STORE_SCHEMA_H
#define ARSP_STORE_SCHEMA_H

/* Constants of the database. The header is also valid C: bench/bare.c includes it. */

#ifdef __cplusplus
namespace arsp {
#endif

/* The only database file. Neither the command line nor the configuration changes the path. */
constexpr char RESPONDER_DB_PATH[] = "/var/lib/quarn/mail/autoresponder/responder.db";

/* The user of the mail system, who owns every file and directory that the tool makes. */
constexpr char MAIL_USER[] = "popuser";

/* The script that makes the database, with its own transaction. The mail side reads these tables by column position as
 * well as by name: the order of the columns is part of the interface. */
constexpr char RESPONDER_DB_SCHEMA[] =
    "BEGIN TRANSACTION;"
    "CREATE TABLE attachments (mn VARCHAR(255) NOT NULL,filename VARCHAR(255) NOT NULL);"
    "CREATE UNIQUE INDEX attach ON attachments(mn, filename);"
    "CREATE TABLE autoresponder (mn VARCHAR(255) NOT NULL,keystr VARCHAR(255),"
    "key_where VARCHAR(10) NOT NULL DEFAULT 'no',subject VARCHAR(255),reply_to VARCHAR(255),forward_to VARCHAR(255),"
    "content_type VARCHAR(255) NOT NULL DEFAULT 'text/plain',charset VARCHAR(255) NOT NULL DEFAULT 'UTF-8',body TEXT,"
    "ans_freq INTEGER DEFAULT 10,ans_limit INTEGER DEFAULT 1000,real_owner VARCHAR(255) NOT NULL);"
    "CREATE UNIQUE INDEX mn ON autoresponder(mn);"
    "CREATE TABLE resp_freq (mn VARCHAR(255) NOT NULL,email VARCHAR(255) NOT NULL,num INTEGER DEFAULT 0,"
    "time_resp INTEGER NOT NULL);"
    "CREATE UNIQUE INDEX respfreq on resp_freq (mn, email);"
    "CREATE TABLE extra_headers (name TEXT NOT NULL,value TEXT NOT NULL);"
    "COMMIT;";

static_assert(sizeof RESPONDER_DB_SCHEMA - 1 == 846,
              "SQLite stores the text of each CREATE: a changed blank would be visible");

#ifdef __cplusplus
} // namespace arsp
#endif

#endif
