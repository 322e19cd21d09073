#ifndef ARSP_TESTS_UNIT_STORE_RESPONDER_FIXTURE_H
#define ARSP_TESTS_UNIT_STORE_RESPONDER_FIXTURE_H

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <sys/syslog.h>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "store/init_db.h"
#include "store/responder_db.h"
#include "tests/unit/support/syslog_capture.h"

/* What happens to the connections that the code under test opens by itself; SQLite then refuses by itself. */
struct SqliteHooks {
    std::function<void(sqlite3 *)> on_open = nullptr;
    /* Asked while a statement is prepared, as sqlite3_set_authorizer tells: SQLITE_TRANSACTION with "BEGIN" or
     * "COMMIT", SQLITE_DELETE with a table, ... Anything but SQLITE_OK makes the preparing fail. */
    std::function<int(sqlite3 *, int action, const std::string &what)> on_prepare = nullptr;
};

inline SqliteHooks sqlite_hooks;

inline int ask_hook(void *db, int action, const char *what, const char *, const char *, const char *)
{
    return sqlite_hooks.on_prepare(static_cast<sqlite3 *>(db), action, what != nullptr ? what : "");
}

inline int install_hooks(sqlite3 *db, const char **, const sqlite3_api_routines *)
{
    if (sqlite_hooks.on_prepare)
        sqlite3_set_authorizer(db, ask_hook, db);
    if (sqlite_hooks.on_open)
        sqlite_hooks.on_open(db);
    return SQLITE_OK;
}

/* The responder database of the private root, with all that the mailbox user@example.org can have: an autoresponder, a
 * counter, and the attachment old.pdf with its file. sales@example.org has an autoresponder that user@example.org owns.
 */
class ResponderTest : public testing::Test {
protected:
    using Texts = std::vector<std::string>;

    void SetUp() override
    {
        capture_syslog();
        ASSERT_EQ(init_responder_db(), 0);
        ASSERT_EQ(db_.open(), 0);
        run("INSERT INTO autoresponder (mn, real_owner) VALUES ('user@example.org', 'user@example.org'), "
            "('sales@example.org', 'user@example.org');"
            "INSERT INTO attachments VALUES ('user@example.org', 'old.pdf');"
            "INSERT INTO resp_freq VALUES ('user@example.org', 'x@example.net', 1, 7)");
        std::filesystem::create_directories(DIRECTORY);
        std::ofstream(DIRECTORY + "/old.pdf") << "content";
        syslog_capture.records.clear();
        sqlite3_auto_extension(reinterpret_cast<void (*)()>(install_hooks));
    }
    void TearDown() override
    {
        sqlite3_reset_auto_extension();
        sqlite_hooks = {};
        db_.close();
        std::filesystem::remove(arsp::RESPONDER_DB_PATH);
        std::filesystem::remove_all("/var/qmail/mailnames/example.org");
    }

    void run(const std::string &script)
    {
        arsp::SqliteText message;
        ASSERT_EQ(db_.exec(script.c_str(), message), SQLITE_OK) << message.get();
    }

    /* How many rows the tables autoresponder, attachments and resp_freq have: "2 1 1" at first. */
    std::string row_counts()
    {
        ResponderStatement stmt;
        stmt.prepare(db_, "SELECT (SELECT count(*) FROM autoresponder) || ' ' || (SELECT count(*) FROM attachments) || "
                          "' ' || (SELECT count(*) FROM resp_freq)");
        stmt.step();
        return stmt.columnText(0);
    }

    static bool old_file_is_there() { return std::filesystem::exists(DIRECTORY + "/old.pdf"); }

    /* The records at LOG_ERR; the priorities of the others are those that the tool drops. */
    static Texts errors()
    {
        Texts texts;
        for (const SyslogRecord &record : syslog_capture.records) {
            if (record.priority == LOG_ERR)
                texts.push_back(record.text);
        }
        return texts;
    }

    /* From now on a transaction is open already when somebody comes to begin his own. */
    static void begin_beforehand()
    {
        sqlite_hooks.on_open = [](sqlite3 *db) { sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr); };
    }

    /* From now on no statement can be prepared that does `action` to `what`. */
    static void refuse_preparing(int action, const std::string &what)
    {
        sqlite_hooks.on_prepare = [=](sqlite3 *, int asked, const std::string &of) {
            return asked == action && of == what ? SQLITE_DENY : SQLITE_OK;
        };
    }

    /* From now on texts longer than `longest` bytes are refused, once a statement that does `action` to `what` is
     * prepared. */
    static void limit_texts(int longest, int action, const std::string &what)
    {
        sqlite_hooks.on_prepare = [=](sqlite3 *db, int asked, const std::string &of) {
            if (asked == action && of == what)
                sqlite3_limit(db, SQLITE_LIMIT_LENGTH, longest);
            return SQLITE_OK;
        };
    }

    inline static const std::string DIRECTORY = "/var/qmail/mailnames/example.org/user/@attachments";

    ResponderDb db_;
};

#endif
