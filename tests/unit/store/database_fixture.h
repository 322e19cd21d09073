#ifndef ARSP_TESTS_UNIT_STORE_DATABASE_FIXTURE_H
#define ARSP_TESTS_UNIT_STORE_DATABASE_FIXTURE_H

#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "store/responder_db.h"
#include "tests/unit/store/pause_capture.h"
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/scratch_dir.h"
#include "tests/unit/support/syslog_capture.h"

/* A connection of another program to a database. It does not wait for locks. */
class Other {
public:
    explicit Other(const std::string &path)
    {
        if (sqlite3_open(path.c_str(), &handle_) != SQLITE_OK)
            throw std::runtime_error("cannot open " + path);
    }
    Other(const Other &) = delete;
    Other &operator=(const Other &) = delete;
    ~Other() { sqlite3_close(handle_); }

    /* Executes `sql` and returns SQLite's result code. */
    int exec(const std::string &sql) { return sqlite3_exec(handle_, sql.c_str(), nullptr, nullptr, nullptr); }

    /* Returns every value that `sql` selects, separated by "|"; after a failure SQLite's error text. */
    std::string values(const char *sql)
    {
        std::string text;
        char *error = nullptr;
        const auto add = [](void *into, int count, char **values, char **) {
            std::string &all = *static_cast<std::string *>(into);
            for (int i = 0; i < count; ++i)
                all.append(all.empty() ? "" : "|").append(values[i] != nullptr ? values[i] : "NULL");
            return 0;
        };
        if (sqlite3_exec(handle_, sql, add, &text, &error) != SQLITE_OK)
            text = error;
        sqlite3_free(error);
        return text;
    }

private:
    sqlite3 *handle_ = nullptr;
};

/* Gives a connection a statement that prevents closing. */
inline int lose_statement(sqlite3 *db, const char **, const sqlite3_api_routines *)
{
    sqlite3_stmt *lost = nullptr;
    return sqlite3_prepare_v2(db, "SELECT 1", -1, &lost, nullptr);
}

/* Does so to each new connection of the process. */
inline void keep_connections_open()
{
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(lose_statement));
}

/* Captures log records and pauses. */
class StoreTest : public testing::Test {
protected:
    using Texts = std::vector<std::string>;
    using Pauses = std::vector<long long>;

    void SetUp() override
    {
        capture_syslog();
        pause_capture = {};
    }
    void TearDown() override { pause_capture = {}; }

    /* The texts of the records at LOG_ERR. */
    static Texts errors()
    {
        Texts texts;
        for (const SyslogRecord &record : syslog_capture.records) {
            if (record.priority == LOG_ERR)
                texts.push_back(record.text);
        }
        return texts;
    }

    /* Runs `call` in a child process in which every pause is interrupted. Returns its result, the error text of `db`
     * after it, and the number of records. Abandoned connections leak: the child ends without a leak check. */
    template <typename Call>
    static std::string with_failing_pauses(const ResponderDb &db, Call call)
    {
        const auto body = [&] {
            pause_capture.on_pause = interrupted;
            const int result = static_cast<int>(call());
            std::printf("%d, %s, %zu records", result, db.errorText(), syslog_capture.records.size());
            std::fflush(nullptr);
            _exit(0);
        };
        return run_in_child(body).out;
    }
};

/* A database `path_` with the empty table t (x), the connection `db_` to it, and `other_`, that of another program. */
class DatabaseTest : public StoreTest {
protected:
    void SetUp() override
    {
        StoreTest::SetUp();
        ASSERT_EQ(other_.exec("CREATE TABLE t (x)"), SQLITE_OK);
        ASSERT_EQ(db_.open(path_.c_str()), 0);
    }

    /* Executes `sql`, which must succeed, on `db_`. */
    void run(const char *sql) { ASSERT_EQ(db_.exec(sql, message_), SQLITE_OK) << message_.get(); }

    /* Executes `sql` on `other_` in the pause of that number, counted from 1. */
    void in_pause(size_t number, const char *sql)
    {
        pause_capture.on_pause = [this, number, sql] {
            if (pause_capture.pauses.size() == number) {
                EXPECT_EQ(other_.exec(sql), SQLITE_OK);
            }
            return 0;
        };
    }

    ScratchDir dir_;
    const std::string path_ = dir_ / "test.db";
    Other other_{path_};
    ResponderDb db_;
    arsp::SqliteText message_;
};

#endif
