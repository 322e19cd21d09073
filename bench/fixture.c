/* Restores what a measured run deletes: bench_fixture SQL DIRECTORY FILES
 *
 * Runs the SQL on the tool's database and makes DIRECTORY/file00000.txt and so on. It is not measured itself, so it
 * writes without a journal and without waiting for the disk. */
#include <assert.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#define constexpr static const /* the header of the schema is C otherwise */
#include "store/schema.h"

static const char TEXT[] = "I am away until Monday. In urgent cases write to office@example.org.\n";

static void need(int holds, const char *what)
{
    if (holds)
        return;
    perror(what);
    exit(2);
}

int main(int argc, char *argv[])
{
    sqlite3 *db = NULL;
    char name[32];
    need(argc == 4, "three arguments");
    umask(022);
    need(sqlite3_open(RESPONDER_DB_PATH, &db) == SQLITE_OK, RESPONDER_DB_PATH);
    need(sqlite3_exec(db, "PRAGMA journal_mode=OFF; PRAGMA synchronous=OFF", NULL, NULL, NULL) == SQLITE_OK, "PRAGMA");
    need(sqlite3_exec(db, argv[1], NULL, NULL, NULL) == SQLITE_OK, argv[1]);
    sqlite3_close(db);
    need(chdir(argv[2]) == 0, argv[2]);
    for (int i = 0; i < atoi(argv[3]); ++i) {
        snprintf(name, sizeof name, "file%05d.txt", i);
        const int file = open(name, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        need(file >= 0 && write(file, TEXT, sizeof TEXT - 1) > 0, name);
        close(file);
    }
    return 0;
}
