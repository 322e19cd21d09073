#include "info/export.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "info/database.h"
#include "info/export_target.h"
#include "info/failure.h"
#include "info/output.h"
#include "info/printable.h"
#include "info/records.h"
#include "info/rights.h"
#include "store/schema.h"

namespace arsp {

namespace {

constexpr std::size_t ARGUMENT_MAX = 128 * 1024 - 64; /* bytes: the kernel's limit for one argument, less the option */
constexpr char RESTORE_SCRIPT[] = "restore.sh";

constexpr char SCRIPT_HEAD[] = R"sh(#!/bin/sh
# Puts autoresponders, attachments and extra headers back with arspctl. Run it as root. It stops at the first failure
# and may be run again. Autoresponders of the same mail names are replaced. Answer counters are not restored.
set -eu
LC_ALL=C
export LC_ALL
CDPATH='' cd -P -- "$(dirname -- "$0")"
say() {
  printf '%s\n' "$1"
}
)sh";

std::set<std::string> find_addresses(const ExportOptions &options, Database &db)
{
    std::set<std::string> found;
    for (const std::string &address : options.addresses)
        found.insert(find_mail_name(db, address));
    return found;
}

/* One export: what is written, what the script does, and what it cannot do. */
class Export {
public:
    Export(const ExportOptions &options, Database &db)
        : options_(options), db_(db), domain_(lower_case(options.domain)), addresses_(find_addresses(options, db)),
          target_(options.directory)
    {
    }

    void run();
    bool isComplete() const { return not_restored_.empty(); }

private:
    using Names = std::vector<std::string>;

    struct Copy {
        std::string name; /* of the attachment */
        std::string file; /* in the target */
        struct stat status;
        Descriptor from, to;
    };

    bool isWhole() const { return options_.addresses.empty() && options_.domain.empty(); }
    bool isChosen(const std::string &mn) const;
    std::map<std::string, Names> readAttachments();
    void skip(const std::string &text);
    void skipAttachment(const std::string &mn, const std::string &name, const std::string &reason);
    void exportAutoresponder(const Autoresponder &row, const Names &attachments);
    void exportFiles(const Autoresponder &row, const std::string &body, const Names &attachments);
    bool openAttachment(const Autoresponder &row, const AttachmentFolder &folder, Copy &copy);
    void copyAttachment(const Autoresponder &row, const Copy &copy);
    void exportHeaders();
    void showProgress(bool last) const;
    void step(const std::string &text, const std::string &command);

    const ExportOptions &options_;
    Database &db_;
    const std::string domain_;
    const std::set<std::string> addresses_;
    ExportTarget target_; /* made when all addresses have been found */
    std::string script_ = SCRIPT_HEAD;
    std::string not_restored_;
    std::int64_t autoresponders_ = 0; /* exported */
    std::int64_t attachments_ = 0;    /* exported */
    std::int64_t copies_ = 0;         /* numbers given to attachments, exported or not */
    std::int64_t seen_ = 0;           /* autoresponders, exported or not */
    std::int64_t total_ = 0;
    const bool terminal_ = isatty(STDERR_FILENO) != 0;
};

/* A line of progress, which the next line that is written covers. */
void Export::showProgress(bool last) const
{
    constexpr std::int64_t MAILBOXES_BETWEEN = 100;
    if (terminal_ && (last || seen_ % MAILBOXES_BETWEEN == 0))
        std::fprintf(stderr, "%lld of %lld mailboxes%s", static_cast<long long>(seen_), static_cast<long long>(total_),
                     last ? "\n" : "\r");
}

void Export::skip(const std::string &text)
{
    complain("not restored: " + text);
    not_restored_ += printable(text) + "\n";
}

void Export::skipAttachment(const std::string &mn, const std::string &name, const std::string &reason)
{
    skip(mn + ": attachment " + name + ": " + reason);
}

void Export::step(const std::string &text, const std::string &command)
{
    script_ += "say " + shell_quoted(printable(text)) + "\n" + command + "\n";
}

bool Export::isChosen(const std::string &mn) const
{
    return isWhole() || addresses_.count(mn) != 0 || (!domain_.empty() && mn.substr(mn.find('@') + 1) == domain_);
}

/* The names of the files that can be exported, by mail name. */
std::map<std::string, Export::Names> Export::readAttachments()
{
    std::map<std::string, Names> attachments;
    Query rows(db_, "SELECT t.mn,t.filename,a.mn IS NULL FROM attachments t LEFT JOIN autoresponder a ON a.mn=t.mn");
    while (rows.next()) {
        const bool text = rows.type(1) == SQLITE_TEXT; /* before text(), which may convert the value */
        const std::string mn(rows.text(0));
        const std::string name(rows.text(1));
        if (!isChosen(mn))
            continue;
        if (rows.number(2) != 0)
            skipAttachment(mn, name, "no autoresponder");
        else if (!text)
            skipAttachment(mn, name, "its name is no text");
        else
            attachments[mn].push_back(name);
    }
    return attachments;
}

std::string numbered(const char *directory, std::int64_t number)
{
    const std::string digits = std::to_string(number);
    return directory + std::string(digits.size() < 8 ? 8 - digits.size() : 0, '0') + digits;
}

/* The reason why --set-resp cannot store the row as it is; empty if it can. */
std::string refusal(const Autoresponder &row)
{
    if (!is_stored_address(row.mn))
        return "its mail name is refused";
    if (!is_stored_address(row.real_owner))
        return "its owner " + row.real_owner + " is refused";
    if (!row.all_text)
        return "a text is NULL or of another type";
    if (row.content_type != "text/plain" && row.content_type != "text/html")
        return "its content type " + row.content_type + " is refused";
    if (!row.ans_freq.valid || !row.ans_limit.valid)
        return "a number is not one of 32 bits";
    for (const std::string *text :
         {&row.subject, &row.charset, &row.key_where, &row.keystr, &row.forward_to, &row.reply_to}) {
        if (text->find('\0') != std::string::npos)
            return "a text holds a NUL byte";
        if (text->size() > ARGUMENT_MAX)
            return "a text is too long for an argument";
    }
    return "";
}

/* An option with a value that may be empty or begin with a hyphen. */
std::string option(const std::string &name, const std::string &value)
{
    return value.empty() ? " --" + name + " ''" : " --" + name + "=" + shell_quoted(value);
}

void Export::exportAutoresponder(const Autoresponder &row, const Names &attachments)
{
    const std::string reason = refusal(row);
    if (!reason.empty()) {
        skip(row.mn + ": " + reason);
        for (const std::string &name : attachments)
            skipAttachment(row.mn, name, "its mailbox is not restored");
        return;
    }
    const std::string file = numbered("bodies/", ++autoresponders_);
    step(row.mn, "arspctl --set-resp" + option("mailname", row.mn) + option("real-owner", row.real_owner) +
                     option("subj", row.subject) + option("content-type", row.content_type) +
                     option("charset", row.charset) + option("key-where", row.key_where) +
                     option("key-str", row.keystr) + option("ans-freq", row.ans_freq.text) +
                     option("ans-limit", row.ans_limit.text) + option("forward-to", row.forward_to) +
                     option("reply-to", row.reply_to) + " <" + file);
    exportFiles(row, file, attachments);
}

/* Makes the files of a mailbox in batches, for which it takes root's rights once. */
void Export::exportFiles(const Autoresponder &row, const std::string &body, const Names &attachments)
{
    constexpr std::size_t COPIES_AT_ONCE = 64; /* each takes two descriptors */
    std::optional<AttachmentFolder> folder;
    if (!attachments.empty())
        folder.emplace(row.real_owner);
    Descriptor body_file;
    auto name = attachments.begin();
    do {
        std::vector<Copy> copies;
        for (; name != attachments.end() && copies.size() < COPIES_AT_ONCE; ++name) {
            Copy copy = {*name, {}, {}, {}, {}};
            if (openAttachment(row, *folder, copy))
                copies.push_back(std::move(copy));
        }
        {
            const RootRights root;
            if (!body_file)
                body_file = target_.create(root, body);
            for (Copy &copy : copies)
                copy.to = target_.create(root, copy.file, (copy.status.st_mode & 0666) | 0600); /* cp takes it over */
        }
        for (const Copy &copy : copies)
            copyAttachment(row, copy);
    } while (name != attachments.end());
    target_.write(body_file.get(), body, row.body);
}

bool Export::openAttachment(const Autoresponder &row, const AttachmentFolder &folder, Copy &copy)
{
    if (!is_file_name(copy.name) || copy.name.find_first_of("\"$`\\") != std::string::npos) {
        skipAttachment(row.mn, copy.name, "--add-attach cannot take its name");
        return false;
    }
    copy.from = folder.open(copy.name, copy.status);
    if (!copy.from) {
        skipAttachment(row.mn, copy.name, errno == EINVAL ? "it is not a regular file" : std::strerror(errno));
        return false;
    }
    copy.file = numbered("attachments/", ++copies_);
    return true;
}

void Export::copyAttachment(const Autoresponder &row, const Copy &copy)
{
    if (!copy_data(copy.from.get(), copy.to.get(), copy.status)) {
        const std::string problem = std::string("cannot copy it: ") + std::strerror(errno);
        if (errno == ENOSPC || errno == EDQUOT)
            throw Failure(row.mn + ": attachment " + copy.name + ": " + problem);
        target_.remove(copy.file);
        return skipAttachment(row.mn, copy.name, problem);
    }
    ++attachments_;
    step(row.mn + ": " + copy.name, "arspctl --add-attach" + option("mailname", row.mn) +
                                        option("filename", copy.name) + option("source", copy.file));
}

void Export::exportHeaders()
{
    std::string members;
    Query rows(db_, "SELECT name,value FROM extra_headers ORDER BY rowid");
    while (rows.next()) {
        const bool text = rows.type(0) == SQLITE_TEXT && rows.type(1) == SQLITE_TEXT; /* before text() */
        const std::string name(rows.text(0));
        const std::string value(rows.text(1));
        if (!text || (name + value).find('\0') != std::string::npos || !is_utf8(name) || !is_utf8(value)) {
            skip("extra header " + name + ": its name or value is no UTF-8 text");
            continue;
        }
        members +=
            (members.empty() ? "  " : ",\n  ") + nlohmann::json(name).dump() + ": " + nlohmann::json(value).dump();
    }
    target_.write("headers.json", members.empty() ? "{}\n" : "{\n" + members + "\n}\n");
    step("extra headers", "arspctl --set-extra-headers <headers.json");
}

void Export::run()
{
    target_.makeDirectory("bodies");
    target_.makeDirectory("attachments");
    const std::string database = RESPONDER_DB_PATH;
    script_ += "if [ ! -e " + database + " ]; then\n  say 'a new database'\n  arspctl --init-db\nfi\n";
    std::map<std::string, Names> attachments = readAttachments();
    for (Query all(db_, "SELECT 1 FROM autoresponder"); all.next();)
        ++total_; /* SQLite's count(*) cannot be stopped in a tree whose pages lie below themselves */
    Query rows(db_, std::string(SELECT_AUTORESPONDERS) + "ORDER BY mn");
    for (; rows.next(); ++seen_) {
        const Autoresponder row = read_autoresponder(rows);
        showProgress(false);
        if (isChosen(row.mn))
            exportAutoresponder(row, attachments[row.mn]);
    }
    if (isWhole())
        exportHeaders();
    showProgress(true);
    script_ += "say " +
               shell_quoted("restored: " + std::to_string(autoresponders_) + " autoresponders, " +
                            std::to_string(attachments_) + " attachments") +
               "\n";
    if (!not_restored_.empty())
        target_.write("NOT-RESTORED", not_restored_);
    target_.complete(RESTORE_SCRIPT, script_);
    print(std::to_string(autoresponders_) + " autoresponders and " + std::to_string(attachments_) +
          " attachments exported; answer counters are not" + (isWhole() ? "" : ", nor are the extra headers") + "\n");
}

} // namespace

int export_everything(const ExportOptions &options)
{
    Database db = Database::openFile().copyToMemory();
    Export job(options, db);
    job.run();
    finish_output();
    return job.isComplete() ? 0 : 1;
}

} // namespace arsp
