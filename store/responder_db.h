#ifndef ARSP_STORE_RESPONDER_DB_H
#define ARSP_STORE_RESPONDER_DB_H

#include <memory>

#include <sqlite3.h>

#include "store/schema.h"

namespace arsp {

class ResponderVfs;

struct FreeSqliteText {
    void operator()(char *text) const { sqlite3_free(text); }
};
using SqliteText = std::unique_ptr<char, FreeSqliteText>;

} // namespace arsp

/* One connection to the responder database; the destructor closes it. Failures are logged at LOG_ERR where they happen;
 * results are 0 and -1 unless another meaning is given. Closing discards an open transaction; nothing rolls back.
 *
 * After the pause between two attempts on a busy database was interrupted, the call returns -1 in silence and the
 * connection is abandoned: neither finalized nor closed, without a handle from then on. See interrupted(). */
class ResponderDb {
public:
    ResponderDb();
    ResponderDb(const ResponderDb &) = delete;
    ResponderDb &operator=(const ResponderDb &) = delete;
    ~ResponderDb();

    /* Opens `path` with a busy timeout of 50 ms, creating an empty file of mode 0600 where there is none (the umask of
     * the process is 077 meanwhile). A symbolic link in the file's place is followed only if root owns it. Tried once.
     * Logs "Unable to open database %s: %s" and closes what SQLite returned. */
    [[nodiscard]] int open(const char *path = arsp::RESPONDER_DB_PATH);

    /* Harmless when closed already. A result of SQLite's other than busy counts as closed. */
    int close();

    /* Step one statement each. They log "Unable to prepare SQL statement for query '%s': %s" or "Unable to begin sqlite
     * transaction: %s" / "Unable to end sqlite transaction: %s", and leave closing to the caller. */
    [[nodiscard]] int begin();
    [[nodiscard]] int end();

    /* Flushes the directory of the open database. SQLite commits by deleting the rollback journal and does not flush
     * that deletion: after a power cut the journal would be there again and undo the commit.
     * Logs "Unable to flush %s: %s" with the directory. Returns 0 on a closed connection. */
    [[nodiscard]] int flushDirectory();

    /* Runs `sql` whole. Returns SQLite's result code, which the caller logs, or -1 after an interrupted pause.
     * `message` takes SQLite's own text of the last failure; it stays empty when SQLite gave none. */
    [[nodiscard]] int exec(const char *sql, arsp::SqliteText &message);

    /* Like exec, for a script that brings its own BEGIN and COMMIT: a busy result leaves its transaction open, in which
     * BEGIN cannot run again, so each retry starts on a fresh connection to `path` (closing has discarded the
     * transaction). Returns -1 as well, logged, when the fresh connection cannot be opened. */
    [[nodiscard]] int execScript(const char *path, const char *script, arsp::SqliteText &message);

    /* True while the open transaction holds a read lock and has written nothing: ending it then loses nothing. */
    bool hasOnlyRead() const { return sqlite3_txn_state(handle_.get(), "main") == SQLITE_TXN_READ; }

    /* True after an interrupted pause, until the next open(). The caller then logs nothing more. */
    bool interrupted() const { return interrupted_; }

    /* SQLite's text of the last failure; belongs to the connection. "general DB errror" without a handle: log scanners
     * match on that spelling. */
    const char *errorText() const;
    int errorCode() const { return sqlite3_errcode(handle_.get()); }

private:
    friend class ResponderStatement;
    int execOnce(const char *sql, arsp::SqliteText &message);
    int abandon(); /* after an interrupted pause; returns -1 */
    struct Close {
        void operator()(sqlite3 *db) const;
    };

    std::unique_ptr<arsp::ResponderVfs> vfs_; /* outlives the handle; released with it after an interrupted pause */
    std::unique_ptr<sqlite3, Close> handle_;
    bool interrupted_ = false;
};

/* One prepared statement, finalized by the destructor. It must go before its connection closes: sqlite3_close returns
 * busy while one lives, and is then retried without a limit. */
class ResponderStatement {
public:
    /* Returns 0; or -1 after logging "Unable to prepare SQL statement for query '%s': %s" at LOG_ERR and finalizing, or
     * after an interrupted pause. `db` outlives the statement. */
    [[nodiscard]] int prepare(ResponderDb &db, const char *sql);

    /* Indexes start at 1; the result is SQLite's code. `text` is not copied: it outlives the statement. `length` is in
     * bytes. A null `text` is bound as an empty text, never as NULL. */
    [[nodiscard]] int bindText(int index, const char *text, int length);
    [[nodiscard]] int bindInt(int index, int value);

    /* Steps until the database is no longer busy. Returns SQLITE_ROW, SQLITE_DONE or an error code, which the caller
     * logs; or -1 after an interrupted pause. */
    [[nodiscard]] int step();

    /* One attempt of step(): resets the statement when the result is SQLITE_BUSY. */
    [[nodiscard]] int stepOnce();

    /* After an interrupted pause: lets the statement and its connection go as they are. Returns -1. */
    int abandon();

    /* The text of column `index`, from 0; null for NULL. Valid until the statement moves on. */
    const char *columnText(int index) const;

    void finalize() { stmt_.reset(); }

private:
    struct Finalize {
        void operator()(sqlite3_stmt *stmt) const { sqlite3_finalize(stmt); }
    };

    ResponderDb *db_ = nullptr;
    std::unique_ptr<sqlite3_stmt, Finalize> stmt_;
};

#endif
