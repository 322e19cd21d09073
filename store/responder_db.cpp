#include "store/responder_db.h"

#include <new>

#include <sys/stat.h>
#include <sys/syslog.h>

#include "store/busy_retry.h"
#include "store/responder_vfs.h"
#include "store/run_statement.h"
#include "support/flush.h"
#include "support/log.h"

using namespace arsp;

namespace {

constexpr int BUSY_TIMEOUT = 50; /* ms that SQLite itself waits inside each call */

/* Returns 0, also when SQLite refuses for another reason than SQLITE_BUSY; or -1 after an interrupted pause. */
int close_handle(sqlite3 *handle)
{
    BusyRetry retry;
    int rc = SQLITE_OK;
    do
        rc = sqlite3_close(handle);
    while (retry.again(rc));
    return retry.interrupted() ? -1 : 0;
}

/* Runs BEGIN or END. `failure` is the message for a step that does not return SQLITE_DONE. */
int run_transaction_statement(ResponderDb &db, const char *sql, const char *failure)
{
    const StepResult result = run_statement(db, sql, {});
    if (result == StepResult::refused)
        log_message(LOG_ERR, "%s: %s", failure, db.errorText());
    return result == StepResult::done ? 0 : -1;
}

/* Empties `owner` and closes or finalizes nothing. */
template <typename Owner>
void release_unclosed(Owner &owner)
{
    static_cast<void>(owner.release());
}

} // namespace

ResponderDb::ResponderDb() = default;
ResponderDb::~ResponderDb() = default;

void ResponderDb::Close::operator()(sqlite3 *db) const
{
    close_handle(db); /* ignored: a destructor returns nothing */
}

int ResponderDb::open(const char *path)
{
    interrupted_ = false;
    handle_.reset();
    vfs_.reset(new (std::nothrow) ResponderVfs);
    const char *vfs = vfs_ ? vfs_->name() : nullptr;
    sqlite3 *handle = nullptr;
    int rc = SQLITE_NOMEM;
    if (vfs != nullptr) {
        const mode_t old_umask = umask(077); /* the file is private from its first moment */
        rc = sqlite3_open_v2(path, &handle, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, vfs);
        umask(old_umask);
    }
    handle_.reset(handle);
    if (rc != SQLITE_OK) {
        log_message(LOG_ERR, "Unable to open database %s: %s", path, errorText());
        close();
        return -1;
    }
    sqlite3_busy_timeout(handle_.get(), BUSY_TIMEOUT);
    return 0;
}

int ResponderDb::close()
{
    if (close_handle(handle_.get()) != 0)
        return abandon();
    release_unclosed(handle_); /* closed above */
    vfs_.reset();
    return 0;
}

int ResponderDb::begin()
{
    return run_transaction_statement(*this, "BEGIN TRANSACTION;", "Unable to begin sqlite transaction");
}

int ResponderDb::end()
{
    return run_transaction_statement(*this, "END TRANSACTION;", "Unable to end sqlite transaction");
}

int ResponderDb::flushDirectory()
{
    return handle_ ? flush_directory(vfs_->directory()) : 0;
}

int ResponderDb::execOnce(const char *sql, SqliteText &message)
{
    char *text = nullptr;
    message.reset(); /* the text of the attempt before */
    const int rc = sqlite3_exec(handle_.get(), sql, nullptr, nullptr, &text);
    message.reset(text);
    return rc;
}

int ResponderDb::abandon()
{
    release_unclosed(handle_);
    release_unclosed(vfs_);
    interrupted_ = true;
    return -1;
}

int ResponderDb::exec(const char *sql, SqliteText &message)
{
    BusyRetry retry;
    int rc = SQLITE_OK;
    do
        rc = execOnce(sql, message);
    while (retry.again(rc));
    return retry.interrupted() ? abandon() : rc;
}

int ResponderDb::execScript(const char *path, const char *script, SqliteText &message)
{
    BusyRetry retry;
    int rc = execOnce(script, message);
    while (retry.again(rc)) {
        const bool in_transaction = sqlite3_get_autocommit(handle_.get()) == 0;
        if (in_transaction && (close() != 0 || open(path) != 0))
            return -1;
        rc = execOnce(script, message);
    }
    return retry.interrupted() ? abandon() : rc;
}

const char *ResponderDb::errorText() const
{
    return handle_ ? sqlite3_errmsg(handle_.get()) : "general DB errror";
}

int ResponderStatement::prepare(ResponderDb &db, const char *sql)
{
    db_ = &db;
    BusyRetry retry;
    int rc = SQLITE_OK;
    do {
        sqlite3_stmt *stmt = nullptr;
        rc = sqlite3_prepare_v2(db.handle_.get(), sql, -1, &stmt, nullptr);
        stmt_.reset(stmt);
    } while (retry.again(rc));
    if (retry.interrupted())
        return abandon();
    if (rc != SQLITE_OK) {
        log_message(LOG_ERR, "Unable to prepare SQL statement for query '%s': %s", sql, db.errorText());
        finalize();
        return -1;
    }
    return 0;
}

int ResponderStatement::bindText(int index, const char *text, int length)
{
    return sqlite3_bind_text(stmt_.get(), index, text != nullptr ? text : "", length, SQLITE_STATIC);
}

int ResponderStatement::bindInt(int index, int value)
{
    return sqlite3_bind_int(stmt_.get(), index, value);
}

int ResponderStatement::stepOnce()
{
    const int rc = sqlite3_step(stmt_.get());
    if (rc == SQLITE_BUSY)
        sqlite3_reset(stmt_.get());
    return rc;
}

int ResponderStatement::step()
{
    BusyRetry retry;
    int rc = SQLITE_OK;
    do
        rc = stepOnce();
    while (retry.again(rc));
    return retry.interrupted() ? abandon() : rc;
}

int ResponderStatement::abandon()
{
    release_unclosed(stmt_);
    return db_->abandon();
}

const char *ResponderStatement::columnText(int index) const
{
    return reinterpret_cast<const char *>(sqlite3_column_text(stmt_.get(), index));
}
