#ifndef ARSP_FUZZ_MAIL_SIDE_H
#define ARSP_FUZZ_MAIL_SIDE_H

#include <climits>
#include <filesystem>
#include <memory>
#include <string>

#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include "fuzz/check.h"
#include "fuzz/model.h"
#include "fuzz/run_tool.h"
#include "fuzz/step.h"
#include "store/schema.h"

namespace arsp {

/* The text that ModelDatabase::text() states. */
inline std::string stored_rows(const Connection &connection)
{
    return connection.rows("SELECT * FROM autoresponder ORDER BY mn") + "attachments\n" +
           connection.rows("SELECT * FROM attachments ORDER BY mn, filename") + "resp_freq\n" +
           connection.rows("SELECT * FROM resp_freq ORDER BY mn, email") + "extra_headers\n" +
           connection.rows("SELECT * FROM extra_headers ORDER BY rowid");
}

/* Owners that the mail side writes into a row, harmful ones among them. */
constexpr const char *OWNERS[] = {"bob@example.net", "anna@example.org", "nobody", "", "..@example.org", "x@..", "$x@y",
                                  "a\"b@example.org"};

constexpr char LINK_TARGET[] = "a.txt"; /* in the same directory; it need not exist */

/* The program that sends the replies. It keeps its connection, also to a database that --init-db has replaced, until it
 * writes. */
class MailSide {
public:
    explicit MailSide(Model &model) : model_(model) { connect(); }

    void act(const Step &step)
    {
        const char *stored = pick(ADDRESSES, step.mailbox).stored;
        const std::string mn = stored == nullptr ? "nobody@example.org" : stored;
        if (step.verb == 'x') { /* an administrator's error rather than an act of the mail side */
            unlink(RESPONDER_DB_PATH);
            model_.database = std::make_shared<ModelDatabase>(ModelDatabase{.has_tables = false});
        } else if (step.verb == 'c' || step.verb == 'o' || step.verb == 'n') {
            if (database_ != model_.database || step.verb == 'n')
                connect();
            writeRow(step, mn);
        } else {
            changeFile(step.verb, Model::attachmentDir(mn), step.text);
        }
    }

    /* Compares the rows that the connection shows with those of the database that it opened. */
    void check() const
    {
        if (database_ != nullptr)
            expect_equal(stored_rows(*connection_), database_->text(), "the rows that the mail side reads");
    }

private:
    void connect()
    {
        connection_ = std::make_unique<Connection>(SQLITE_OPEN_READWRITE);
        database_ = model_.database->has_tables ? model_.database : nullptr;
    }

    void writeRow(const Step &step, const std::string &mn)
    {
        if (database_ == nullptr || !database_->autoresponder.contains(mn))
            return;
        AutoresponderValues &values = database_->autoresponder.at(mn);
        if (step.verb == 'o') {
            values[REAL_OWNER] = pick(OWNERS, step.operand);
            connection_->rows("UPDATE autoresponder SET real_owner=? WHERE mn=?", {values[REAL_OWNER], mn});
        } else if (step.verb == 'c') {
            const std::string sender = step.text + "@example.com";
            const std::string now = std::to_string(++time_);
            auto &[replies, time] = database_->resp_freq[{mn, sender}];
            if (replies < std::stoi(values[ANS_FREQ]))
                ++replies;
            time = time_;
            connection_->rows("REPLACE INTO resp_freq VALUES (?,?,?,?)", {mn, sender, std::to_string(replies), now});
        }
    }

    void changeFile(char verb, const std::string &dir, const std::string &name)
    {
        const std::string place = dir + "/" + name;
        const std::string path = MAILNAMES + place;
        if (!model_.tree.isA('d', dir) || name.empty() || name.find('/') != std::string::npos || name == "." ||
            name == ".." || name.size() > NAME_MAX)
            return;
        const bool exists = model_.tree.contains(place);
        if (verb == 'u' && exists && !model_.tree.isA('d', place)) {
            fs::remove(path);
            model_.tree.remove(place);
        }
        if (exists)
            return;
        if (verb == 'w') {
            write_file(path, name);
            model_.tree.make(place, {'f', name, true});
        } else if (verb == 'm') {
            expect(mkdir(path.c_str(), 0700) == 0, "the mail side cannot make a directory");
            model_.tree.make(place, {'d', "", true});
        } else if (verb == 'l') {
            fs::create_symlink(LINK_TARGET, path);
            model_.tree.make(place, {'l', LINK_TARGET, true});
        } else {
            return;
        }
        const passwd *user = getpwnam(MAIL_USER);
        expect(lchown(path.c_str(), user->pw_uid, user->pw_gid) == 0, "the mail side owns no file");
    }

    Model &model_;
    std::unique_ptr<Connection> connection_;
    std::shared_ptr<ModelDatabase> database_; /* null: without tables, which the mail side cannot use */
    int time_ = 0;
};

} // namespace arsp

#endif
