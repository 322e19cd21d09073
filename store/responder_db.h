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

/* For all of this header:
 *
 * - Single-threaded: opening changes the umask of the process, and the log has one state per process. A connection and
 *   its statements are used by one thread, and two threads must not open or log at the same time.
 * - Nothing throws.
 * - No pointer may be null, except the text of bindText. */

/* One connection to the responder database; the destructor closes it. Failures are logged at LOG_ERR where they happen;
 * results are 0 and -1 unless another meaning is given. Closing discards an open transaction; nothing rolls back.
 *
 * When a signal interrupts the pause between two attempts on a busy database, the call returns -1 in silence and the
 * connection is abandoned: it is neither finalized nor closed and has no handle from then on. See interrupted(). */
class ResponderDb {
public:
    ResponderDb();
    ResponderDb(const ResponderDb &) = delete;
    ResponderDb &operator=(const ResponderDb &) = delete;
    ~ResponderDb();

    /* Opens `path` with a busy timeout of 50 ms, in one attempt. Creates a missing file, empty and with mode 0600; the
     * umask of the process is 077 meanwhile. A symbolic link at `path` itself is followed only if root owns it. A
     * failure logs "Unable to open database %s: %s" and closes the handle that SQLite returned. */
    [[nodiscard]] int open(const char *path = arsp::RESPONDER_DB_PATH);

    /* Closing twice is harmless. Waits without a limit while a ResponderStatement of the connection is alive. Every
     * result of SQLite's other than SQLITE_BUSY counts as closed. Returns -1 only after an interrupted pause. */
    int close();

    /* Execute BEGIN and END. A failure logs "Unable to prepare SQL statement for query '%s': %s" or "Unable to begin
     * sqlite transaction: %s" / "Unable to end sqlite transaction: %s", and leaves closing to the caller. */
    [[nodiscard]] int begin();
    [[nodiscard]] int end();

    /* Flushes the directory of the open database. SQLite commits by deleting the rollback journal and does not flush
     * that deletion: after a power cut the journal could reappear and undo the commit. A failure logs "Unable to flush
     * %s: %s" with the directory. Returns 0 on a closed connection. */
    [[nodiscard]] int flushDirectory();

    /* Executes all statements of `sql`. Returns SQLite's result code, which the caller logs, or -1 after an interrupted
     * pause. `message` receives SQLite's text of the last failure, or null when SQLite supplies none. */
    [[nodiscard]] int exec(const char *sql, arsp::SqliteText &message);

    /* Like exec, for a script with its own BEGIN and COMMIT. A busy result leaves the script's transaction open, in
     * which BEGIN cannot run again: such a retry starts on a new connection to `path`, since closing discards the
     * transaction. Also returns -1, logged, when the new connection cannot be opened. */
    [[nodiscard]] int execScript(const char *path, const char *script, arsp::SqliteText &message);

    /* True while the open transaction has read and not written: ending it then loses nothing. */
    bool hasOnlyRead() const { return sqlite3_txn_state(handle_.get(), "main") == SQLITE_TXN_READ; }

    /* True after an interrupted pause, until the next open(). The caller then logs nothing. */
    bool interrupted() const { return interrupted_; }

    /* SQLite's text of the last failure, which belongs to the connection; "general DB errror" without a handle, so
     * misspelt because log scanners match it. */
    const char *errorText() const;
    int errorCode() const { return sqlite3_errcode(handle_.get()); }

private:
    friend class ResponderStatement;
    int execOnce(const char *sql, arsp::SqliteText &message);
    int abandon(); /* gives the handle up, open as it is; returns -1 */
    struct Close {
        void operator()(sqlite3 *db) const;
    };

    std::unique_ptr<arsp::ResponderVfs> vfs_; /* outlives the handle; abandoned with it */
    std::unique_ptr<sqlite3, Close> handle_;
    bool interrupted_ = false;
};

/* One prepared statement, finalized by the destructor. It must be finalized before its connection closes: until then
 * sqlite3_close returns SQLITE_BUSY and is retried without a limit. That holds for a borrowed connection, too: a
 * function that closes it after a failure never returns while a statement of the caller's is alive. */
class ResponderStatement {
public:
    /* Returns 0; or -1 after logging "Unable to prepare SQL statement for query '%s': %s" at LOG_ERR and finalizing, or
     * after an interrupted pause. `db` outlives the statement. */
    [[nodiscard]] int prepare(ResponderDb &db, const char *sql);

    /* Indexes start at 1. `length` is in bytes. `text` is not copied and must outlive the statement; null is bound as
     * an empty text, never as NULL. Return SQLite's result code. */
    [[nodiscard]] int bindText(int index, const char *text, int length);
    [[nodiscard]] int bindInt(int index, int value);

    /* Steps until the database is no longer busy. Returns SQLITE_ROW, SQLITE_DONE or an error code, which the caller
     * logs; or -1 after an interrupted pause. */
    [[nodiscard]] int step();

    /* One attempt of step(): resets the statement when the result is SQLITE_BUSY. */
    [[nodiscard]] int stepOnce();

    /* Gives the statement and its connection up, as they are, after an interrupted pause. Returns -1. */
    int abandon();

    /* Returns the text of column `index`, counted from 0; null for NULL. Valid until the next call on the statement. */
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
