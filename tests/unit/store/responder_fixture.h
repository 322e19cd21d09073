#ifndef ARSP_TESTS_UNIT_STORE_RESPONDER_FIXTURE_H
#define ARSP_TESTS_UNIT_STORE_RESPONDER_FIXTURE_H

#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include "store/init_db.h"
#include "tests/unit/store/database_fixture.h"

/* Called while a statement is prepared on a connection that the code under test opens, with the arguments of
 * sqlite3_set_authorizer: SQLITE_TRANSACTION with "COMMIT", SQLITE_DELETE with a table, ... Any result but SQLITE_OK
 * makes preparing fail. */
inline std::function<int(sqlite3 *, int action, const std::string &what)> on_prepare;

inline int call_on_prepare(void *db, int action, const char *what, const char *, const char *, const char *)
{
    return on_prepare(static_cast<sqlite3 *>(db), action, what != nullptr ? what : "");
}

inline int install_on_prepare(sqlite3 *db, const char **, const sqlite3_api_routines *)
{
    return on_prepare ? sqlite3_set_authorizer(db, call_on_prepare, db) : SQLITE_OK;
}

/* The responder database of the private root. user@example.org has an autoresponder, a counter, and the attachment
 * old.pdf with its file; sales@example.org has an autoresponder that user@example.org owns. */
class ResponderTest : public StoreTest {
protected:
    void SetUp() override
    {
        StoreTest::SetUp();
        ASSERT_EQ(init_responder_db(), 0);
        ASSERT_EQ(db_.open(), 0);
        run("INSERT INTO autoresponder (mn, real_owner) VALUES ('user@example.org', 'user@example.org'), "
            "('sales@example.org', 'user@example.org');"
            "INSERT INTO attachments VALUES ('user@example.org', 'old.pdf');"
            "INSERT INTO resp_freq VALUES ('user@example.org', 'x@example.net', 1, 7)");
        std::filesystem::create_directories(DIRECTORY);
        std::ofstream(DIRECTORY + "/old.pdf") << "content";
        sqlite3_auto_extension(reinterpret_cast<void (*)()>(install_on_prepare));
    }
    void TearDown() override
    {
        sqlite3_reset_auto_extension();
        on_prepare = nullptr;
        db_.close();
        std::filesystem::remove(arsp::RESPONDER_DB_PATH);
        std::filesystem::remove_all("/var/qmail/mailnames/example.org");
        StoreTest::TearDown();
    }

    void run(const std::string &script)
    {
        arsp::SqliteText message;
        ASSERT_EQ(db_.exec(script.c_str(), message), SQLITE_OK) << message.get();
    }

    /* The numbers of rows in autoresponder, attachments and resp_freq, initially "2|1|1". */
    static std::string row_counts()
    {
        return Other(arsp::RESPONDER_DB_PATH)
            .values("SELECT (SELECT count(*) FROM autoresponder), (SELECT count(*) FROM attachments), "
                    "(SELECT count(*) FROM resp_freq)");
    }

    static bool old_file_exists() { return std::filesystem::exists(DIRECTORY + "/old.pdf"); }

    /* From now on a statement that does `action` to `what` refuses to bind texts longer than `longest` bytes. */
    static void limit_texts(int longest, int action, const std::string &what)
    {
        on_prepare = [=](sqlite3 *db, int prepared_action, const std::string &of) {
            if (prepared_action == action && of == what)
                sqlite3_limit(db, SQLITE_LIMIT_LENGTH, longest);
            return SQLITE_OK;
        };
    }

    inline static const std::string DIRECTORY = "/var/qmail/mailnames/example.org/user/@attachments";

    ResponderDb db_;
};

#endif
