#ifndef ARSP_STORE_RESPONDER_DB_H
#define ARSP_STORE_RESPONDER_DB_H

#include <functional>
#include <memory>
#include <string_view>
#include <vector>

#include <sqlite3.h>

#include "store/busy_retry.h"
#include "store/schema.h"

struct FreeSqliteText {
    void operator()(char *text) const { sqlite3_free(text); }
};
using SqliteText = std::unique_ptr<char, FreeSqliteText>;

/* One connection to the responder database, closed when its owner goes. All failures are logged at LOG_ERR where they
 * happen; the results are 0, -1 (failed, and said so) or RETRY_INTERRUPTED (failed, and everybody keeps silent), unless
 * another meaning is given. Closing discards an open transaction; nothing here rolls back. */
class ResponderDb {
public:
    /* Opens `path`, creating an empty file where there is none, with a busy timeout of 50 ms. Tried once.
     * Logs "Unable to open database %s: %s", and closes what SQLite returned. `path` is not kept beyond the next
     * reopen. */
    int open(const char *path = RESPONDER_DB_PATH);

    /* Harmless when closed already. Any other answer than busy counts as closed: there is nobody to tell. */
    int close();

    /* Step one statement each. They log "Unable to prepare SQL statement for query '%s': %s" or "Unable to begin sqlite
     * transaction: %s" / "Unable to end sqlite transaction: %s", and leave closing to the caller. */
    int begin();
    int end();

    /* Runs `sql` whole. Returns SQLite's result code, for the caller to word, or RETRY_INTERRUPTED. `message` takes
     * SQLite's own text of the last failure; it stays empty when SQLite gave none. */
    int exec(const char *sql, SqliteText &message);

    /* Like exec, for a script that brings its own BEGIN and COMMIT: a busy answer leaves its transaction open, in which
     * BEGIN can't run again, so each retry starts on a fresh connection to `path` (closing has discarded the
     * transaction). Returns -1, logged, when the fresh connection can't be opened. */
    int execScript(const char *path, const char *script, SqliteText &message);

    /* True while the open transaction holds a read lock and has written nothing: ending it then loses nothing. */
    bool hasOnlyRead() const { return sqlite3_txn_state(handle_.get(), "main") == SQLITE_TXN_READ; }

    /* SQLite's text of the last failure; belongs to the connection. "general DB errror" without a handle: log scanners
     * match on that spelling. */
    const char *errorText() const;
    int errorCode() const { return sqlite3_errcode(handle_.get()); }

private:
    friend class ResponderStatement;
    int execOnce(const char *sql, SqliteText &message);
    int letGo(int result); /* releases the handle when `result` is RETRY_INTERRUPTED; answers `result` */
    struct Close {
        void operator()(sqlite3 *db) const;
    };

    std::unique_ptr<sqlite3, Close> handle_; /* released, not closed, after an interrupted pause */
};

/* One value for a `?`. A text is not copied: it outlives the statement. */
struct Param {
    Param(const char *param_name, std::string_view param_text) : name(param_name), text(param_text), is_text(true) {}
    Param(const char *param_name, int param_number) : name(param_name), number(param_number) {}

    const char *name; /* as the bind message tells it */
    std::string_view text;
    int number = 0;
    bool is_text = false;
};

/* One prepared statement, finalized when its owner goes. It must go before its connection closes: sqlite3_close answers
 * busy while one lives, and the busy loop has no limit. */
class ResponderStatement {
public:
    /* Asked before each retry of a busy step; anything but 0 ends the step with that result. */
    using BeforeRetry = std::function<int()>;

    /* Returns 0; -1 after logging "Unable to prepare SQL statement for query '%s': %s" and finalizing;
     * RETRY_INTERRUPTED. */
    int prepare(ResponderDb &db, const char *sql);

    /* Binds `params` to 1, 2, ... and stops at the first that SQLite refuses: -1, and "Unable to bind parameter %s: %s"
     * is logged. Finalizing is left to the caller. */
    int bind(const std::vector<Param> &params);

    /* Indexes start at 1; the result is SQLite's code. An empty text is bound as an empty text, never as NULL. A length
     * that no int holds is passed on as INT_MAX, which SQLite answers with "string or blob too big". */
    int bindText(int index, std::string_view text);
    int bindInt(int index, int value);

    /* Resets after every busy answer, before the pause. Returns SQLITE_ROW, SQLITE_DONE or an error code, for the
     * caller to judge; what `before_retry` said; RETRY_INTERRUPTED. */
    int step(const BeforeRetry &before_retry = [] { return 0; });

    /* The text of column `index`, from 0; null for NULL. Valid until the statement moves on. */
    const char *columnText(int index) const;

    void finalize() { stmt_.reset(); }

private:
    struct Finalize {
        void operator()(sqlite3_stmt *stmt) const { sqlite3_finalize(stmt); }
    };
    int abandon(); /* after an interrupted pause: lets both handles go */

    ResponderDb *db_ = nullptr;
    std::unique_ptr<sqlite3_stmt, Finalize> stmt_;
};

/* Prepares `sql`, binds `params` in order, steps once, finalizes. Returns the step's result code, for the caller to
 * judge and to word; -1 when prepare or bind failed (logged at LOG_ERR); RETRY_INTERRUPTED. With `restart`, a step that
 * finds the database busy while this transaction has only read calls it between two tries, with no statement alive, and
 * then prepares and binds anew; anything but 0 from `restart` is the result. */
int run_statement(ResponderDb &db, const char *sql, const std::vector<Param> &params,
                  const std::function<int()> &restart = nullptr);

#endif
