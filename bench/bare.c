/* The same system work as that of arspctl and nothing else: the least that a change of this database can cost.
 * Arguments are at fixed places, nothing is checked, and a failure ends the run with status 2 without a message. The
 * program is linked as arspctl is, with SQLite inside, the C library outside and no libm. It reads the configuration
 * only where a command needs it. */
#define _GNU_SOURCE
#include <assert.h>
#include <dirent.h>
#include <errno.h>
#include <pwd.h>
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#define constexpr static const /* the header of the schema is C otherwise */
#include "store/schema.h"

static void need(int holds)
{
    if (!holds)
        _exit(2);
}

/* Replaces libm's functions: no statement here calls one. */
void no_math(void);

void no_math(void)
{
    _exit(2);
}

static sqlite3 *open_database(void)
{
    sqlite3 *db = NULL;
    need(sqlite3_open(RESPONDER_DB_PATH, &db) == SQLITE_OK);
    sqlite3_busy_timeout(db, 50);
    return db;
}

/* Binds the texts given, up to a null pointer, steps once and finalizes. Returns the step's result. */
static int run_texts(sqlite3 *db, const char *sql, const char *const *texts)
{
    sqlite3_stmt *stmt = NULL;
    need(sqlite3_prepare_v2(db, sql, -1, &stmt, NULL) == SQLITE_OK);
    for (int i = 0; texts[i] != NULL; ++i)
        sqlite3_bind_text(stmt, i + 1, texts[i], (int)strlen(texts[i]), SQLITE_STATIC);
    const int step = sqlite3_step(stmt);
    sqlite3_finalize(stmt);
    return step;
}

static void run(sqlite3 *db, const char *sql, const char *first, const char *second)
{
    const char *const texts[] = {first, second, NULL};
    need(run_texts(db, sql, texts) == SQLITE_DONE);
}

/* Returns standard input, and its length, in a block that doubles; a NUL byte follows. */
static char *read_input(size_t *length)
{
    size_t capacity = 64 * 1024;
    char *bytes = malloc(capacity);
    *length = 0;
    for (;;) {
        const ssize_t got = read(STDIN_FILENO, bytes + *length, capacity - *length);
        need(got >= 0);
        if (got == 0)
            break;
        *length += (size_t)got;
        if (*length == capacity) {
            capacity *= 2;
            bytes = realloc(bytes, capacity);
            need(bytes != NULL);
        }
    }
    bytes[*length] = '\0';
    return bytes;
}

/* Makes what is missing of `path`; the new directories belong to `owner` unless it is null. */
static void make_directories(char *path, mode_t mode, const struct passwd *owner)
{
    for (char *slash = strchr(path + 1, '/');; slash = strchr(slash + 1, '/')) {
        if (slash != NULL)
            *slash = '\0';
        if (mkdir(path, mode) != 0)
            need(errno == EEXIST);
        else if (owner != NULL)
            need(chown(path, owner->pw_uid, owner->pw_gid) == 0);
        if (slash == NULL)
            return;
        *slash = '/';
    }
}

static void init_db(void)
{
    char directory[sizeof RESPONDER_DB_PATH];
    memcpy(directory, RESPONDER_DB_PATH, sizeof directory);
    *strrchr(directory, '/') = '\0';
    unlink(RESPONDER_DB_PATH);
    make_directories(directory, 0755, NULL);
    sqlite3 *db = open_database();
    need(sqlite3_exec(db, RESPONDER_DB_SCHEMA, NULL, NULL, NULL) == SQLITE_OK);
    sqlite3_close(db);
    const struct passwd *user = getpwnam(MAIL_USER);
    need(user != NULL && chown(directory, user->pw_uid, 0) == 0 && chmod(directory, 0755) == 0 &&
         chown(RESPONDER_DB_PATH, user->pw_uid, user->pw_gid) == 0 && chmod(RESPONDER_DB_PATH, 0600) == 0);
}

static void set_resp(const char *mailname, const char *real_owner, const char *subject)
{
    size_t length;
    char *body = read_input(&length);
    sqlite3 *db = open_database();
    sqlite3_stmt *stmt = NULL;
    run(db, "BEGIN TRANSACTION;", NULL, NULL);
    need(sqlite3_prepare_v2(db,
                            "REPLACE INTO autoresponder (keystr, key_where, subject, reply_to, forward_to, "
                            "content_type, charset, body, ans_freq, ans_limit, real_owner, mn) "
                            "VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?, ?  );",
                            -1, &stmt, NULL) == SQLITE_OK);
    const char *const texts[] = {"", "no", subject, "", "", "text/html", "UTF-8"};
    for (int i = 0; i < 7; ++i)
        sqlite3_bind_text(stmt, i + 1, texts[i], (int)strlen(texts[i]), SQLITE_STATIC);
    sqlite3_bind_text(stmt, 8, body, (int)length, SQLITE_STATIC);
    sqlite3_bind_int(stmt, 9, 10);
    sqlite3_bind_int(stmt, 10, 1000);
    sqlite3_bind_text(stmt, 11, real_owner, (int)strlen(real_owner), SQLITE_STATIC);
    sqlite3_bind_text(stmt, 12, mailname, (int)strlen(mailname), SQLITE_STATIC);
    const int step = sqlite3_step(stmt);
    sqlite3_finalize(stmt);
    need(step == SQLITE_DONE);
    run(db, "END TRANSACTION;", NULL, NULL);
    sqlite3_close(db);
}

/* Writes the attachment directory of `address` and, unless `name` is null, a file name in it. */
static void attachment_path(char *path, size_t size, const char *address, const char *name)
{
    char root[1024] = "/var/qmail/mailnames";
    char *line = NULL;
    size_t line_size = 0;
    FILE *conf = fopen("/etc/kel/kel.conf", "re");
    while (conf != NULL && getline(&line, &line_size, conf) != -1)
        sscanf(line, "QUARN_MAILNAMES_D %1023s", root);
    if (conf != NULL)
        fclose(conf);
    free(line);
    const char *at = strchr(address, '@');
    snprintf(path, size, "%s/%s/%.*s/@attachments%s%s", root, at + 1, (int)(at - address), address,
             name != NULL ? "/" : "", name != NULL ? name : "");
}

static void clear_directory(const char *path)
{
    DIR *stream = opendir(path);
    need(stream != NULL);
    for (const struct dirent *entry; (entry = readdir(stream)) != NULL;) {
        if (strcmp(entry->d_name, ".") != 0 && strcmp(entry->d_name, "..") != 0)
            need(unlinkat(dirfd(stream), entry->d_name, 0) == 0);
    }
    closedir(stream);
}

static void del_resp(const char *mailname)
{
    char path[4096];
    attachment_path(path, sizeof path, mailname, NULL);
    sqlite3 *db = open_database();
    run(db, "BEGIN TRANSACTION;", NULL, NULL);
    run(db, "DELETE FROM attachments WHERE mn=?", mailname, NULL);
    clear_directory(path);
    run(db, "DELETE FROM autoresponder WHERE mn=?", mailname, NULL);
    run(db, "DELETE FROM resp_freq WHERE mn=?", mailname, NULL);
    run(db, "END TRANSACTION;", NULL, NULL);
    sqlite3_close(db);
}

static void select_owner(sqlite3 *db, const char *mailname, char *owner, size_t size)
{
    sqlite3_stmt *stmt = NULL;
    need(sqlite3_prepare_v2(db, "SELECT real_owner FROM autoresponder WHERE mn=?", -1, &stmt, NULL) == SQLITE_OK);
    sqlite3_bind_text(stmt, 1, mailname, (int)strlen(mailname), SQLITE_STATIC);
    need(sqlite3_step(stmt) == SQLITE_ROW);
    snprintf(owner, size, "%s", (const char *)sqlite3_column_text(stmt, 0));
    sqlite3_finalize(stmt);
}

static void add_attach(const char *mailname, const char *filename, const char *source)
{
    char owner[1024];
    char path[4096];
    char command[12288];
    sqlite3 *db = open_database();
    run(db, "BEGIN TRANSACTION;", NULL, NULL);
    select_owner(db, mailname, owner, sizeof owner);
    attachment_path(path, sizeof path, owner, NULL);
    const struct passwd *user = getpwnam(MAIL_USER);
    need(user != NULL);
    make_directories(path, 0700, user);
    strcat(strcat(path, "/"), filename);
    snprintf(command, sizeof command, "/bin/cp \"%s\" \"%s\"", source, path);
    need(system(command) == 0 && chown(path, user->pw_uid, user->pw_gid) == 0);
    run(db, "REPLACE INTO attachments VALUES (?, ?  );", mailname, filename);
    run(db, "END TRANSACTION;", NULL, NULL);
    sqlite3_close(db);
}

static void del_attach(const char *mailname, const char *filename)
{
    char owner[1024];
    char path[4096];
    attachment_path(path, sizeof path, mailname, filename);
    sqlite3 *db = open_database();
    run(db, "BEGIN TRANSACTION;", NULL, NULL);
    select_owner(db, mailname, owner, sizeof owner);
    run(db, "DELETE FROM attachments WHERE mn=? AND filename=?", mailname, filename);
    run(db, "END TRANSACTION;", NULL, NULL);
    sqlite3_close(db);
    need(unlink(path) == 0 || errno == ENOENT);
}

/* Reads the JSON as a list of strings without escapes, names and values in turn. */
static void set_extra_headers(void)
{
    size_t length;
    char *text = read_input(&length);
    sqlite3 *db = open_database();
    need(sqlite3_exec(db, "DELETE FROM extra_headers", NULL, NULL, NULL) == SQLITE_OK);
    run(db, "BEGIN TRANSACTION;", NULL, NULL);
    const char *strings[2];
    int found = 0;
    for (char *quote = strchr(text, '"'); quote != NULL;) {
        char *end = strchr(quote + 1, '"');
        need(end != NULL);
        *end = '\0';
        strings[found++] = quote + 1;
        if (found == 2) {
            run(db, "REPLACE INTO extra_headers VALUES (?, ?  );", strings[0], strings[1]);
            found = 0;
        }
        quote = strchr(end + 1, '"');
    }
    run(db, "END TRANSACTION;", NULL, NULL);
    sqlite3_close(db);
}

int main(int argc, char *argv[])
{
    const char *command = argc > 1 ? argv[1] : "";
    if (strcmp(command, "init-db") == 0)
        init_db();
    else if (strcmp(command, "set-resp") == 0 && argc == 5)
        set_resp(argv[2], argv[3], argv[4]);
    else if (strcmp(command, "del-resp") == 0 && argc == 3)
        del_resp(argv[2]);
    else if (strcmp(command, "add-attach") == 0 && argc == 5)
        add_attach(argv[2], argv[3], argv[4]);
    else if (strcmp(command, "del-attach") == 0 && argc == 4)
        del_attach(argv[2], argv[3]);
    else if (strcmp(command, "set-extra-headers") == 0)
        set_extra_headers();
    else
        return 2;
    return 0;
}
