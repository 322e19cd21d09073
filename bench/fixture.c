/* Brings the database and the attachment directories into the state that a measured run starts from. Not measured
 * itself, so it writes without a journal and without waiting for the disk.
 *
 *   fixture database MAILBOXES COUNTERS
 *       a new database with that many autoresponders, user0000000@example.org and so on, and that many answer counters
 *       spread over other mailboxes
 *   fixture mailbox ADDRESS COUNTERS FILES
 *       an autoresponder with that many counters and that many attachments, file and row each
 *   fixture attachment ADDRESS FILENAME
 *       one attachment, file and row
 *   fixture no-database
 */
#define _GNU_SOURCE
#include <assert.h>
#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#define constexpr static const /* the schema is the tool's own, and its header is C otherwise */
#include "store/schema.h"

static const char BODY[] = "I am away until Monday. In urgent cases write to office@example.org.\n";

static sqlite3 *db;

static void need(int holds, const char *what)
{
    if (holds)
        return;
    fprintf(stderr, "fixture: %s: %s\n", what, db != NULL ? sqlite3_errmsg(db) : strerror(errno));
    exit(2);
}

static void execute(const char *sql)
{
    need(sqlite3_exec(db, sql, NULL, NULL, NULL) == SQLITE_OK, sql);
}

static sqlite3_stmt *prepare(const char *sql)
{
    sqlite3_stmt *stmt = NULL;
    need(sqlite3_prepare_v2(db, sql, -1, &stmt, NULL) == SQLITE_OK, sql);
    return stmt;
}

static void step(sqlite3_stmt *stmt)
{
    need(sqlite3_step(stmt) == SQLITE_DONE, sqlite3_sql(stmt));
    sqlite3_reset(stmt);
}

static void bind(sqlite3_stmt *stmt, int index, const char *text)
{
    sqlite3_bind_text(stmt, index, text, -1, SQLITE_TRANSIENT);
}

static void open_database(void)
{
    need(sqlite3_open(RESPONDER_DB_PATH, &db) == SQLITE_OK, RESPONDER_DB_PATH);
    execute("PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF; PRAGMA cache_size=-200000");
}

static void put_mailbox(sqlite3_stmt *stmt, const char *address)
{
    bind(stmt, 1, BODY);
    bind(stmt, 2, address);
    step(stmt);
}

static const char PUT_MAILBOX[] =
    "REPLACE INTO autoresponder (keystr, key_where, subject, reply_to, forward_to, content_type, charset, body, "
    "ans_freq, ans_limit, real_owner, mn) "
    "VALUES ('', 'no', 'Out of office', '', '', 'text/html', 'UTF-8', ?1, 10, 1000, ?2, ?2)";
static const char PUT_COUNTER[] = "REPLACE INTO resp_freq VALUES (?, ?, 1, 1700000000)";
static const char PUT_ATTACHMENT[] = "REPLACE INTO attachments VALUES (?, ?)";

static void make_database(long mailboxes, long counters)
{
    char address[64];
    char sender[64];
    unlink(RESPONDER_DB_PATH);
    unlink("/var/lib/quarn/mail/autoresponder/responder.db-journal");
    mkdir("/var/lib/quarn/mail", 0755);
    mkdir("/var/lib/quarn/mail/autoresponder", 0755);
    open_database();
    execute(RESPONDER_DB_SCHEMA);
    execute("BEGIN");
    sqlite3_stmt *mailbox = prepare(PUT_MAILBOX);
    for (long i = 0; i < mailboxes; ++i) {
        snprintf(address, sizeof address, "user%07ld@example.org", i);
        put_mailbox(mailbox, address);
    }
    sqlite3_finalize(mailbox);
    sqlite3_stmt *counter = prepare(PUT_COUNTER);
    for (long i = 0; i < counters; ++i) { /* in the order of the index: appending is quick */
        snprintf(address, sizeof address, "other%05ld@example.org", i / 1000);
        snprintf(sender, sizeof sender, "sender%03ld@example.net", i % 1000);
        bind(counter, 1, address);
        bind(counter, 2, sender);
        step(counter);
    }
    sqlite3_finalize(counter);
    execute("INSERT INTO extra_headers VALUES ('X-Loop', 'yes'), ('Precedence', 'bulk')");
    execute("COMMIT");
    const struct passwd *user = getpwnam(MAIL_USER);
    need(user != NULL, MAIL_USER);
    need(chown("/var/lib/quarn/mail/autoresponder", user->pw_uid, 0) == 0 &&
             chown(RESPONDER_DB_PATH, user->pw_uid, user->pw_gid) == 0 && chmod(RESPONDER_DB_PATH, 0600) == 0,
         "owner of the database");
}

/* The attachment directory of `address`, made if it is not there. */
static void enter_attachments(const char *address)
{
    char path[1024];
    const char *at = strchr(address, '@');
    const struct passwd *user = getpwnam(MAIL_USER);
    need(at != NULL && user != NULL, address);
    snprintf(path, sizeof path, "/var/qmail/mailnames/%s/%.*s/@attachments", at + 1, (int)(at - address), address);
    for (char *slash = strchr(path + strlen("/var/qmail/mailnames/"), '/');; slash = strchr(slash + 1, '/')) {
        if (slash != NULL)
            *slash = '\0';
        if (mkdir(path, 0700) == 0)
            need(chown(path, user->pw_uid, user->pw_gid) == 0, path);
        if (slash == NULL)
            break;
        *slash = '/';
    }
    need(chdir(path) == 0, path);
}

static void put_file(sqlite3_stmt *row, const char *address, const char *name)
{
    const int fd = open(name, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    need(fd >= 0 && write(fd, BODY, strlen(BODY)) > 0, name);
    close(fd);
    if (row == NULL)
        return;
    bind(row, 1, address);
    bind(row, 2, name);
    step(row);
}

static void make_mailbox(const char *address, long counters, long files)
{
    char text[64];
    open_database();
    enter_attachments(address);
    execute("BEGIN");
    sqlite3_stmt *stmt = prepare(PUT_MAILBOX);
    put_mailbox(stmt, address);
    sqlite3_finalize(stmt);
    stmt = prepare(PUT_COUNTER);
    for (long i = 0; i < counters; ++i) {
        snprintf(text, sizeof text, "sender%07ld@example.net", i);
        bind(stmt, 1, address);
        bind(stmt, 2, text);
        step(stmt);
    }
    sqlite3_finalize(stmt);
    stmt = prepare(PUT_ATTACHMENT);
    for (long i = 0; i < files; ++i) {
        snprintf(text, sizeof text, "file%05ld.txt", i);
        put_file(stmt, address, text);
    }
    sqlite3_finalize(stmt);
    execute("COMMIT");
}

static void make_attachment(const char *address, const char *name)
{
    open_database();
    enter_attachments(address);
    sqlite3_stmt *stmt = prepare(PUT_ATTACHMENT);
    put_file(stmt, address, name);
    sqlite3_finalize(stmt);
}

int main(int argc, char *argv[])
{
    umask(0);
    if (argc == 4 && strcmp(argv[1], "database") == 0)
        make_database(atol(argv[2]), atol(argv[3]));
    else if (argc == 5 && strcmp(argv[1], "mailbox") == 0)
        make_mailbox(argv[2], atol(argv[3]), atol(argv[4]));
    else if (argc == 4 && strcmp(argv[1], "attachment") == 0)
        make_attachment(argv[2], argv[3]);
    else if (argc == 2 && strcmp(argv[1], "no-database") == 0)
        return unlink(RESPONDER_DB_PATH) == 0 || errno == ENOENT ? 0 : 2;
    else
        return 2;
    return sqlite3_close(db) == SQLITE_OK ? 0 : 2;
}
