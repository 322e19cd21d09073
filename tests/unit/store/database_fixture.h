#ifndef ARSP_TESTS_UNIT_STORE_DATABASE_FIXTURE_H
#define ARSP_TESTS_UNIT_STORE_DATABASE_FIXTURE_H

#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "store/responder_db.h"
#include "tests/unit/store/pause_capture.h"
#include "tests/unit/support/scratch_dir.h"
#include "tests/unit/support/syslog_capture.h"

/* Another connection to a database, of somebody who never waits. */
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

    /* Executes `sql` and answers SQLite's result code. */
    int exec(const char *sql) { return sqlite3_exec(handle_, sql, nullptr, nullptr, nullptr); }

    /* Every value that `sql` answers, separated by "|"; of what fails, its error text. */
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

/* A database `path_` with the empty table t (x), a connection `db_` to it, and `other_`, that of somebody else. */
class DatabaseTest : public testing::Test {
protected:
    using Records = std::vector<SyslogRecord>;
    using Pauses = std::vector<long long>;

    void SetUp() override
    {
        capture_syslog();
        pause_capture = {};
        ASSERT_EQ(other_.exec("CREATE TABLE t (x)"), SQLITE_OK);
        ASSERT_EQ(db_.open(path_.c_str()), 0);
    }
    void TearDown() override { pause_capture = {}; }

    /* Lets `other_` execute `sql` in the pause of that number, from 1. */
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
};

#endif
