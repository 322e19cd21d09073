#include "info/check_rows.h"

#include <algorithm>
#include <set>
#include <utility>

#include "info/printable.h"
#include "info/records.h"
#include "info/repair.h"
#include "store/attachment_copy.h"
#include "store/attachment_dir.h"
#include "store/schema.h"

namespace arsp {

namespace {

/* The beginning of a value, for a meaning. */
std::string excerpt(const std::string &value)
{
    constexpr std::size_t SHOWN = 100; /* bytes */
    return value.size() <= SHOWN ? value : value.substr(0, SHOWN) + "...";
}

/* RFC 5322: printable ASCII without the colon. */
bool is_header_name(const std::string &name)
{
    return !name.empty() &&
           std::all_of(name.begin(), name.end(), [](char byte) { return byte > ' ' && byte < '\x7F' && byte != ':'; });
}

class RowCheck {
public:
    RowCheck(const MailUser &mail_user, Database &db, Findings &findings)
        : repair_(mail_user), db_(db), findings_(findings)
    {
    }

    void checkIntegrity();
    void readAttachments();
    void checkAutoresponders();
    void checkCounters();
    void checkHeaders();

    AttachmentRows takeAttachments() { return std::move(by_directory_); }

private:
    void checkOwner(const Autoresponder &row);
    void checkValues(const Autoresponder &row);
    void checkHeader(const Header &header, bool twice);
    std::string setColumn(const std::string &mn, const std::string &column, const std::string &value) const;
    std::string moveAttachments(const Autoresponder &row) const;

    Repair repair_;
    Database &db_;
    Findings &findings_;
    std::map<std::string, std::vector<std::string>> names_; /* of the attachments of each mail name */
    AttachmentRows by_directory_;
};

/* One message is enough: the repair is the same for all. */
void RowCheck::checkIntegrity()
{
    Query lines(db_, "PRAGMA integrity_check(1)");
    lines.next(); /* there is at least one row */
    if (lines.text(0) == "ok")
        return;
    const std::string message(lines.text(0));
    const bool of_index = message.find(" missing from index ") != std::string::npos ||
                          message.starts_with("wrong # of entries in index ");
    findings_.add(Severity::error, "db-damaged", RESPONDER_DB_PATH, "is damaged: " + excerpt(message),
                  of_index ? repair_.sql("REINDEX") : Repair::newDatabase(RESPONDER_DB_PATH));
}

void RowCheck::readAttachments()
{
    Query rows(db_, "SELECT t.mn,t.filename,a.mn IS NULL FROM attachments t LEFT JOIN autoresponder a ON a.mn=t.mn "
                    "ORDER BY t.mn,t.filename");
    while (rows.next()) {
        const std::string mn(rows.text(0));
        const std::string name(rows.text(1));
        if (rows.number(2) == 0)
            names_[mn].push_back(name);
        else {
            findings_.add(Severity::warning, "attachment-orphan", mn,
                          "has the attachment " + excerpt(name) + " and no autoresponder",
                          repair_.sql("DELETE FROM attachments WHERE " + sql_equals("mn", mn) + " AND " +
                                      sql_equals("filename", name)));
        }
    }
}

void RowCheck::checkAutoresponders()
{
    Query rows(db_, SELECT_AUTORESPONDERS);
    while (rows.next()) {
        const Autoresponder row = read_autoresponder(rows);
        if (is_stored_address(row.mn)) {
            by_directory_[row.mn];
            checkOwner(row);
            checkValues(row);
        } else { /* the repair deletes the row */
            findings_.add(Severity::error, "mailname-refused", row.mn, "is no mail name that --set-resp stores",
                          repair_.sql("DELETE FROM autoresponder WHERE " + sql_equals("mn", row.mn)));
        }
    }
}

std::string RowCheck::setColumn(const std::string &mn, const std::string &column, const std::string &value) const
{
    return repair_.sql("UPDATE autoresponder SET " + column + "=" + value + " WHERE " + sql_equals("mn", mn));
}

/* Copies the attachments to the mail name's own directory, and makes the mail name its own owner. The files of the
 * former owner stay: other mail names may use them. */
std::string RowCheck::moveAttachments(const Autoresponder &row) const
{
    const std::string to = AttachmentDir(row.mn).path();
    std::vector<std::string> copy = {"cp", "-t", to, "--"};
    const auto names = names_.find(row.mn);
    if (names != names_.end()) {
        for (const std::string &name : names->second) {
            if (is_file_name(name))
                copy.push_back(AttachmentDir(row.real_owner).pathOf(name));
        }
    }
    std::string set_owner = setColumn(row.mn, "real_owner", "mn");
    if (copy.back() == "--")
        return set_owner;
    return Repair::both(
        Repair::both(repair_.asMailUser({"mkdir", "-p", "-m", "0700", "--", to}), repair_.asMailUser(copy)), set_owner);
}

void RowCheck::checkOwner(const Autoresponder &row)
{
    const std::string &owner = row.real_owner;
    const bool stored = is_stored_address(owner);
    if (is_harmful_owner(owner)) {
        findings_.add(Severity::error, "owner-harmful", row.mn,
                      "has the owner " + excerpt(owner) + ", which --add-attach refuses",
                      setColumn(row.mn, "real_owner", "mn"));
    } else if (!stored) {
        findings_.add(Severity::error, "owner-refused", row.mn,
                      "has the owner " + excerpt(owner) + ", which is no address that --set-resp stores",
                      setColumn(row.mn, "real_owner", "mn"));
    } else if (owner != row.mn) {
        findings_.add(Severity::note, "owner-differs", row.mn,
                      "has the owner " + owner + ": --del-attach leaves the files of attachments in " +
                          AttachmentDir(owner).path(),
                      moveAttachments(row));
    }
    std::vector<AttachmentRow> &rows = by_directory_[stored ? owner : row.mn]; /* as after the repair */
    for (const std::string &name : names_[row.mn])
        rows.push_back({row.mn, name});
}

void RowCheck::checkValues(const Autoresponder &row)
{
    const auto warn = [&](const char *code, const std::string &meaning, const char *column, const char *value) {
        findings_.add(Severity::warning, code, row.mn, meaning, setColumn(row.mn, column, value));
    };
    if (row.content_type != "text/plain" && row.content_type != "text/html")
        warn("content-type", "has the content type " + excerpt(row.content_type), "content_type", "'text/plain'");
    if (row.key_where != "no" && row.key_where != "subj" && row.key_where != "body")
        warn("trigger-word", "looks for its trigger in " + excerpt(row.key_where), "key_where", "'no'");
    if (!row.ans_freq.valid)
        warn("number", "has the daily limit " + excerpt(row.ans_freq.text), "ans_freq", "10");
    if (!row.ans_limit.valid)
        warn("number", "has the old limit " + excerpt(row.ans_limit.text), "ans_limit", "1000");

    const std::pair<const char *, const std::string *> header_texts[] = {{"subject", &row.subject},
                                                                         {"reply_to", &row.reply_to},
                                                                         {"forward_to", &row.forward_to},
                                                                         {"charset", &row.charset}};
    for (const auto &[column, text] : header_texts) {
        if (has_control_bytes(*text)) {
            findings_.add(Severity::error, "header-injection", row.mn,
                          std::string("has line feeds or control bytes in ") + column + ": " + excerpt(*text),
                          setColumn(row.mn, column, sql_without_control_bytes(column, *text)));
        }
    }
}

void RowCheck::checkCounters()
{
    Query rows(db_, "SELECT mn,count(*) FROM resp_freq r WHERE NOT EXISTS "
                    "(SELECT 1 FROM autoresponder a WHERE a.mn=r.mn) GROUP BY mn");
    while (rows.next()) {
        const std::string mn(rows.text(0));
        findings_.add(Severity::note, "counter-orphan", mn,
                      "has answer counters (" + std::to_string(rows.number(1)) + ") and no autoresponder",
                      repair_.sql("DELETE FROM resp_freq WHERE " + sql_equals("mn", mn)));
    }
}

void RowCheck::checkHeader(const Header &header, bool twice)
{
    const std::string row = " WHERE rowid=" + std::to_string(header.rowid) + " AND " + sql_equals("name", header.name);
    if (!is_header_name(header.name)) {
        findings_.add(Severity::error, "header-name", header.name, "is no name of a header",
                      repair_.sql("DELETE FROM extra_headers" + row));
    } else if (twice) {
        findings_.add(Severity::warning, "header-twice", header.name, "is given more than once",
                      repair_.sql("DELETE FROM extra_headers" + row));
    }
    if (has_control_bytes(header.value)) {
        findings_.add(
            Severity::error, "header-value", header.name, "has line feeds or control bytes: " + excerpt(header.value),
            repair_.sql("UPDATE extra_headers SET value=" + sql_without_control_bytes("value", header.value) + row));
    }
}

void RowCheck::checkHeaders()
{
    std::set<std::string> names; /* their case does not matter */
    for (const Header &header : read_headers(db_))
        checkHeader(header, !names.insert(lower_case(header.name)).second);
    if (names.count("auto-submitted") == 0) {
        findings_.add(Severity::note, "auto-submitted", "Auto-Submitted",
                      "is not among the extra headers: replies can start a loop",
                      repair_.sql("INSERT INTO extra_headers VALUES('Auto-Submitted','auto-replied')"));
    }
}

} // namespace

AttachmentRows check_rows(const MailUser &mail_user, Database &db, Findings &findings)
{
    RowCheck check(mail_user, db, findings);
    check.checkIntegrity();
    check.readAttachments();
    check.checkAutoresponders();
    check.checkCounters();
    check.checkHeaders();
    return check.takeAttachments();
}

} // namespace arsp
