#include "info/show.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <vector>

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "info/output.h"
#include "info/printable.h"
#include "info/records.h"
#include "support/files.h"

namespace arsp {

namespace {

struct Counter {
    std::string sender;
    std::int64_t replies;
    std::int64_t since; /* seconds since 1970 */
};

struct Attachment {
    std::string name;
    std::string path;
    std::string problem; /* empty if the file exists */
    struct stat status;
};

struct Mailbox {
    Autoresponder row;
    std::string directory; /* of the attachments */
    std::vector<Attachment> attachments;
    std::vector<Counter> counters;
    std::vector<Header> headers;
};

Mailbox read_mailbox(const std::string &address)
{
    Mailbox mailbox;
    Database db = Database::openFile();
    {
        const std::string mn = find_mail_name(db, address);
        Query row(db, std::string(SELECT_AUTORESPONDERS) + "WHERE mn=?1");
        row.bind(mn).next();
        mailbox.row = read_autoresponder(row);
        Query files(db, "SELECT filename FROM attachments WHERE mn=?1 ORDER BY filename");
        files.bind(mailbox.row.mn);
        while (files.next())
            mailbox.attachments.push_back({std::string(files.text(0)), {}, {}, {}});
        Query counters(db, "SELECT email,num,time_resp FROM resp_freq WHERE mn=?1 ORDER BY email");
        counters.bind(mailbox.row.mn);
        while (counters.next())
            mailbox.counters.push_back({std::string(counters.text(0)), counters.number(1), counters.number(2)});
        mailbox.headers = read_headers(db);
    }
    db.finish();

    const AttachmentFolder folder(mailbox.row.real_owner);
    mailbox.directory = folder.path();
    for (Attachment &attachment : mailbox.attachments) {
        attachment.path = folder.pathOf(attachment.name);
        if (folder.status(attachment.name, attachment.status) != 0)
            attachment.problem = errno == ENOENT ? "missing" : std::strerror(errno);
    }
    return mailbox;
}

std::string user_name(uid_t uid)
{
    const passwd *user = getpwuid(uid);
    return user != nullptr ? user->pw_name : std::to_string(uid);
}

std::string group_name(gid_t gid)
{
    const group *entry = getgrgid(gid);
    return entry != nullptr ? entry->gr_name : std::to_string(gid);
}

std::string time_text(time_t seconds)
{
    tm parts = {};
    std::array<char, 64> text = {};
    if (localtime_r(&seconds, &parts) == nullptr)
        return std::to_string(seconds); /* a year beyond the range of int */
    std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S %z", &parts);
    return text.data();
}

void field(const char *name, std::string_view value)
{
    const std::string label = std::string(name) + ":";
    print(label + std::string(16 - label.size(), ' ') + printable(value) + "\n");
}

/* The lines of a body, each escaped and after "  | ", so that no line of it passes for one of this page. */
void print_body(std::string_view body)
{
    field("Body", std::to_string(body.size()) + " bytes");
    while (!body.empty()) {
        const std::size_t end = std::min(body.find('\n'), body.size());
        std::string_view line = body.substr(0, end);
        if (line.ends_with('\r'))
            line.remove_suffix(1);
        print("  | " + printable(line) + "\n");
        body.remove_prefix(std::min(end + 1, body.size()));
    }
}

std::string describe_trigger(const Autoresponder &row)
{
    if (row.key_where == "subj")
        return "subject contains: " + row.keystr;
    if (row.key_where == "body")
        return "body contains: " + row.keystr;
    return row.key_where == "no" ? "every message" : "every message (unknown place " + row.key_where + ")";
}

std::string describe_file(const Attachment &attachment)
{
    if (!attachment.problem.empty())
        return attachment.problem;
    const struct stat &status = attachment.status;
    std::string text = std::to_string(status.st_size) + " bytes, " + user_name(status.st_uid) + ":" +
                       group_name(status.st_gid) + ", " + mode_text(status.st_mode) + ", " + time_text(status.st_mtime);
    return S_ISREG(status.st_mode) ? text : text + ", " + file_type_name(status.st_mode);
}

void print_text(const Mailbox &mailbox)
{
    const Autoresponder &row = mailbox.row;
    field("Mail name", row.mn);
    field("Owner", row.real_owner);
    field("Subject", row.subject);
    field("Content type", row.content_type);
    field("Charset", row.charset);
    field("Trigger", describe_trigger(row));
    field("Daily limit", row.ans_freq.text);
    field("Old limit", row.ans_limit.text);
    field("Forward to", row.forward_to);
    field("Reply-To", row.reply_to);
    print_body(row.body);
    field("Attachments", std::to_string(mailbox.attachments.size()) + " in " + mailbox.directory);
    for (const Attachment &attachment : mailbox.attachments)
        print("  " + printable(attachment.name) + ": " + printable(describe_file(attachment)) + "\n");
    field("Counters", std::to_string(mailbox.counters.size()));
    for (const Counter &counter : mailbox.counters)
        print("  " + printable(counter.sender) + ": " + std::to_string(counter.replies) + " since " +
              time_text(counter.since) + "\n");
    field("Extra headers", std::to_string(mailbox.headers.size()));
    for (const Header &header : mailbox.headers)
        print("  " + printable(header.name) + ": " + printable(header.value) + "\n");
}

nlohmann::ordered_json attachment_json(const Attachment &attachment)
{
    nlohmann::ordered_json json = {{"filename", json_text(attachment.name)}, {"path", json_text(attachment.path)}};
    if (!attachment.problem.empty()) {
        json["problem"] = json_text(attachment.problem);
        return json;
    }
    json["type"] = file_type_name(attachment.status.st_mode);
    json["size"] = attachment.status.st_size;
    json["owner"] = json_text(user_name(attachment.status.st_uid));
    json["group"] = json_text(group_name(attachment.status.st_gid));
    json["mode"] = mode_text(attachment.status.st_mode);
    json["mtime"] = attachment.status.st_mtime;
    return json;
}

/* A number as stored; what is no 32-bit integer as a text, NULL as null. */
nlohmann::ordered_json number_json(const StoredNumber &number)
{
    if (number.valid)
        return std::stol(number.text);
    return number.text.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(json_text(number.text));
}

void print_json(const Mailbox &mailbox)
{
    const Autoresponder &row = mailbox.row;
    nlohmann::ordered_json json = {
        {"mailname", json_text(row.mn)},           {"owner", json_text(row.real_owner)},
        {"subject", json_text(row.subject)},       {"content_type", json_text(row.content_type)},
        {"charset", json_text(row.charset)},       {"key_where", json_text(row.key_where)},
        {"key_str", json_text(row.keystr)},        {"ans_freq", number_json(row.ans_freq)},
        {"ans_limit", number_json(row.ans_limit)}, {"forward_to", json_text(row.forward_to)},
        {"reply_to", json_text(row.reply_to)},     {"body", json_text(row.body)},
    };
    json["attachments"] = nlohmann::ordered_json::array();
    for (const Attachment &attachment : mailbox.attachments)
        json["attachments"].push_back(attachment_json(attachment));
    json["counters"] = nlohmann::ordered_json::array();
    for (const Counter &counter : mailbox.counters)
        json["counters"].push_back(
            {{"sender", json_text(counter.sender)}, {"replies", counter.replies}, {"since", counter.since}});
    json["extra_headers"] = nlohmann::ordered_json::array();
    for (const Header &header : mailbox.headers)
        json["extra_headers"].push_back({{"name", json_text(header.name)}, {"value", json_text(header.value)}});
    print(json.dump(2, ' ', true) + "\n");
}

} // namespace

void show_autoresponder(const std::string &address, ShowFormat format)
{
    const Mailbox mailbox = read_mailbox(address);
    if (format == ShowFormat::body)
        print(mailbox.row.body);
    else if (format == ShowFormat::json)
        print_json(mailbox);
    else
        print_text(mailbox);
    finish_output();
}

} // namespace arsp
