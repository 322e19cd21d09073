#ifndef ARSP_INFO_DATABASE_H
#define ARSP_INFO_DATABASE_H

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <string_view>

#include <sqlite3.h>
#include <sys/stat.h>

#include "store/responder_vfs.h"

namespace arsp {

/* The database, read only and taken for hostile: the mail user may have put anything into its place.
 *
 * Nothing in it runs code (no triggers, views or extensions; only the tables of RESPONDER_DB_SCHEMA are read), a file
 * that is not regular is not waited for, and reading ends after READING_LIMIT seconds and after more rows or bytes than
 * the file can hold. Nothing is created, changed or rolled back.
 *
 * What is wrong with the database is thrown as DatabaseFailure; what says nothing about it, such as a lock that another
 * process keeps or a lack of memory, as Failure. */
class Database {
public:
    /* Opens the file and begins a transaction, which holds a shared lock until finish() or the end of the object:
     * arspctl waits meanwhile. Checks that the four tables and their indexes are those of arspctl --init-db. */
    static Database openFile();

    /* Copies the whole file into memory and releases its lock: for work that takes longer than arspctl may wait. */
    Database copyToMemory();

    Database(Database &&) noexcept = default;
    ~Database();

    /* Ends the transaction, and with it the lock. All queries must have ended. */
    void finish();

    sqlite3 *handle() const { return handle_.get(); }

    /* Bytes of the file. */
    std::uint64_t size() const { return limits_->file_size; }

private:
    friend class Query;

    struct Close {
        void operator()(sqlite3 *db) const { sqlite3_close(db); } /* ignored: nothing was written */
    };

    /* What may still be read; at a fixed address, since SQLite's progress handler refers to it. */
    struct Limits {
        std::uint64_t file_size = 0;
        time_t deadline = 0; /* seconds of the monotonic clock */
    };

    Database() = default;
    static struct stat checkFile();
    void checkSchema();
    void harden();
    void execute(const char *sql);
    [[noreturn]] void fail(int rc) const;
    void require(int rc) const; /* fails unless it is SQLITE_OK */
    static int isOverdue(void *limits);

    std::unique_ptr<ResponderVfs> vfs_;
    std::unique_ptr<Limits> limits_;
    std::unique_ptr<sqlite3, Close> handle_;
};

/* One statement, finalized at the end of its scope. */
class Query {
public:
    Query(Database &db, const std::string &sql);

    /* Binds the next parameter as a text, whose bytes stay where they are. */
    Query &bind(std::string_view text);

    /* Fetches the next row; false after the last one. */
    bool next();

    /* A column of the row: its bytes, until the next call; empty for NULL. */
    std::string_view text(int column);
    std::int64_t number(int column) const;
    int type(int column) const; /* SQLITE_NULL, SQLITE_TEXT ... as stored */

private:
    struct Finalize {
        void operator()(sqlite3_stmt *stmt) const { sqlite3_finalize(stmt); } /* ignored: next() has reported it */
    };

    Database &db_;
    std::unique_ptr<sqlite3_stmt, Finalize> stmt_;
    int parameters_ = 0;
    std::uint64_t rows_ = 0;
    std::uint64_t bytes_ = 0; /* handed out so far */
};

} // namespace arsp

#endif
