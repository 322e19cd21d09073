#include "store/responder_db.h"

#include <algorithm>
#include <climits>

#include <sys/syslog.h>

#include "support/log.h"

namespace {

constexpr int BUSY_TIMEOUT = 50; /* ms that SQLite itself waits inside each call */

int close_handle(sqlite3 *handle)
{
    return retry_while_busy([handle] { return sqlite3_close(handle); });
}

/* Runs a statement that opens or ends a transaction; `refused` words a step that does not get done. */
int run_transaction_statement(ResponderDb &db, const char *sql, const char *refused)
{
    const int result = run_statement(db, sql, {});
    if (result < 0)
        return result;
    if (result != SQLITE_DONE) {
        log_message(LOG_ERR, "%s: %s", refused, db.errorText());
        return -1;
    }
    return 0;
}

} // namespace

void ResponderDb::Close::operator()(sqlite3 *db) const
{
    static_cast<void>(close_handle(db)); /* a destructor has nobody to tell */
}

int ResponderDb::open(const char *path)
{
    sqlite3 *handle = nullptr;
    const int result = sqlite3_open(path, &handle);
    handle_.reset(handle);
    if (result != SQLITE_OK) {
        log_message(LOG_ERR, "Unable to open database %s: %s", path, errorText());
        static_cast<void>(close()); /* opening has failed already */
        return -1;
    }
    sqlite3_busy_timeout(handle_.get(), BUSY_TIMEOUT);
    return 0;
}

int ResponderDb::close()
{
    const int result = close_handle(handle_.release());
    return result == RETRY_INTERRUPTED ? RETRY_INTERRUPTED : 0;
}

int ResponderDb::begin()
{
    return run_transaction_statement(*this, "BEGIN TRANSACTION;", "Unable to begin sqlite transaction");
}

int ResponderDb::end()
{
    return run_transaction_statement(*this, "END TRANSACTION;", "Unable to end sqlite transaction");
}

int ResponderDb::execOnce(const char *sql, SqliteText &message)
{
    char *text = nullptr;
    message.reset(); /* every failed try makes a text of its own */
    const int answer = sqlite3_exec(handle_.get(), sql, nullptr, nullptr, &text);
    message.reset(text);
    return answer;
}

int ResponderDb::letGo(int result)
{
    if (result == RETRY_INTERRUPTED)
        static_cast<void>(handle_.release());
    return result;
}

int ResponderDb::exec(const char *sql, SqliteText &message)
{
    return letGo(retry_while_busy([&] { return execOnce(sql, message); }));
}

int ResponderDb::execScript(const char *path, const char *script, SqliteText &message)
{
    return letGo(retry_while_busy([&] { return execOnce(script, message); },
                                  [&] {
                                      if (sqlite3_get_autocommit(handle_.get()) != 0)
                                          return 0; /* busy before its BEGIN was done */
                                      const int closed = close();
                                      return closed == 0 ? open(path) : closed;
                                  }));
}

const char *ResponderDb::errorText() const
{
    return handle_ ? sqlite3_errmsg(handle_.get()) : "general DB errror";
}

int ResponderStatement::prepare(ResponderDb &db, const char *sql)
{
    db_ = &db;
    const int result = retry_while_busy([&] {
        sqlite3_stmt *stmt = nullptr;
        const int answer = sqlite3_prepare_v2(db.handle_.get(), sql, -1, &stmt, nullptr);
        stmt_.reset(stmt);
        return answer;
    });
    if (result == RETRY_INTERRUPTED)
        return abandon();
    if (result != SQLITE_OK) {
        log_message(LOG_ERR, "Unable to prepare SQL statement for query '%s': %s", sql, db.errorText());
        finalize();
        return -1;
    }
    return 0;
}

int ResponderStatement::bind(const std::vector<Param> &params)
{
    int index = 0;
    for (const Param &param : params) {
        ++index;
        const int result = param.is_text ? bindText(index, param.text) : bindInt(index, param.number);
        if (result != SQLITE_OK) {
            log_message(LOG_ERR, "Unable to bind parameter %s: %s", param.name, db_->errorText());
            return -1;
        }
    }
    return 0;
}

int ResponderStatement::bindText(int index, std::string_view text)
{
    constexpr std::size_t LONGEST = INT_MAX;
    const char *bytes = text.data() != nullptr ? text.data() : ""; /* SQLite takes a null pointer for NULL */
    return sqlite3_bind_text(stmt_.get(), index, bytes, static_cast<int>(std::min(text.size(), LONGEST)),
                             SQLITE_STATIC);
}

int ResponderStatement::bindInt(int index, int value)
{
    return sqlite3_bind_int(stmt_.get(), index, value);
}

int ResponderStatement::step(const BeforeRetry &before_retry)
{
    const int result = retry_while_busy(
        [this] {
            const int answer = sqlite3_step(stmt_.get());
            if (answer == SQLITE_BUSY)
                sqlite3_reset(stmt_.get());
            return answer;
        },
        before_retry);
    return result == RETRY_INTERRUPTED ? abandon() : result;
}

const char *ResponderStatement::columnText(int index) const
{
    return reinterpret_cast<const char *>(sqlite3_column_text(stmt_.get(), index));
}

int ResponderStatement::abandon()
{
    static_cast<void>(stmt_.release());
    return db_->letGo(RETRY_INTERRUPTED);
}

int run_statement(ResponderDb &db, const char *sql, const std::vector<Param> &params,
                  const std::function<int()> &restart)
{
    ResponderStatement stmt;
    const auto prepare_and_bind = [&] {
        const int prepared = stmt.prepare(db, sql);
        return prepared == 0 ? stmt.bind(params) : prepared;
    };
    int result = prepare_and_bind();
    if (result == 0) {
        result = stmt.step([&] {
            if (!restart || !db.hasOnlyRead())
                return 0;
            stmt.finalize();
            const int restarted = restart();
            return restarted == 0 ? prepare_and_bind() : restarted;
        });
    }
    stmt.finalize(); /* before the caller judges the step: its message shows the error text of this moment */
    return result;
}
