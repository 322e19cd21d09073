/* Another program of the panel: calls the store library as its command line says, one step after the other, and prints
 * the name and the result of each. A step is a name and its arguments; a "," stands between two steps. CONNECTION is
 * "none" or "borrowed", which is the program's own connection; the functions without CONNECTION always take that one.
 *
 *   open, close                    the own connection
 *   sql TEXT                       runs TEXT on it; the result is SQLite's code
 *   longest BYTES                  no connection opened from now on takes longer texts
 *   memory BYTES                   SQLite gets no more memory than this
 *   store_autoresponder_record CONNECTION LOCAL DOMAIN [FIELD=VALUE]...
 *   replace_autoresponder_record LOCAL DOMAIN [FIELD=VALUE]...
 *   store_attachment_records CONNECTION LOCAL DOMAIN [FILE]...
 *   replace_attachment_records LOCAL DOMAIN [FILE]...
 *   remove_autoresponder_record, remove_attachment_records CONNECTION LOCAL DOMAIN
 *   delete_autoresponder_record, delete_attachment_records LOCAL DOMAIN
 *   delete_extra_headers CONNECTION
 *   import_extra_headers_json CONNECTION TEXT
 *   store_extra_headers CONNECTION [NAME VALUE]...
 *   replace_extra_headers [NAME VALUE]...
 *
 * An argument "#N" of a function of the library stands for a text of N bytes. */
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include <sqlite3.h>
#include <syslog.h>

#include "store/extra_headers.h"
#include "store/records.h"
#include "support/log.h"

using namespace arsp;

namespace {

using Words = std::deque<std::string>;

ResponderDb own_connection;
int longest_text = -1;

std::string take(Words &words)
{
    const std::string word = words.at(0);
    words.pop_front();
    return word;
}

std::string take_text(Words &words)
{
    const std::string word = take(words);
    return word.starts_with('#') ? std::string(std::stoul(word.substr(1)), 'x') : word;
}

ResponderDb *take_connection(Words &words)
{
    return take(words) == "borrowed" ? &own_connection : nullptr;
}

std::vector<std::string> take_texts(Words &words)
{
    std::vector<std::string> texts;
    while (!words.empty())
        texts.push_back(take_text(words));
    return texts;
}

std::vector<const char *> every(std::size_t step, const std::vector<std::string> &texts, std::size_t first = 0)
{
    std::vector<const char *> pointers;
    for (std::size_t i = first; i < texts.size(); i += step)
        pointers.push_back(texts[i].c_str());
    return pointers;
}

/* A mailbox, taken from `words` as its local part and its domain. */
struct Mailbox {
    explicit Mailbox(Words &words) : local_part(take_text(words)), domain(take_text(words)) {}

    std::string local_part;
    std::string domain;
};

/* A record, with those fields changed that `words` name. */
class Record {
public:
    explicit Record(Words &words)
    {
        while (!words.empty()) {
            const std::string word = take(words);
            Words value = {word.substr(word.find('=') + 1)};
            fields_.at(word.substr(0, word.find('='))) = take_text(value);
        }
    }

    AutoresponderRecord lent() const
    {
        AutoresponderRecord record = {};
        record.caller_data[0] = record.caller_data[1] = reinterpret_cast<const void *>(1); /* reading there crashes */
        record.keystr = text("keystr");
        record.key_where = text("key_where");
        record.subject = text("subject");
        record.reply_to = text("reply_to");
        record.content_type = text("content_type");
        record.charset = text("charset");
        record.body = text("body");
        record.ans_freq = std::atoi(text("ans_freq"));
        record.ans_limit = std::atoi(text("ans_limit"));
        record.forward_to = text("forward_to");
        record.owner_local_part = text("owner_local_part");
        return record;
    }

private:
    const char *text(const char *field) const { return fields_.at(field).c_str(); }

    std::map<std::string, std::string> fields_ = {{"keystr", "holiday"},         {"key_where", "subj"},
                                                  {"subject", "Away"},           {"reply_to", "desk@example.org"},
                                                  {"content_type", "text/html"}, {"charset", "KOI8-R"},
                                                  {"body", "Back soon."},        {"ans_freq", "3"},
                                                  {"ans_limit", "400"},          {"forward_to", "deputy@example.org"},
                                                  {"owner_local_part", "Owner"}};
};

/* SQLite calls it with each connection that it opens. */
int limit_texts(sqlite3 *db, const char **, const sqlite3_api_routines *)
{
    sqlite3_limit(db, SQLITE_LIMIT_LENGTH, longest_text);
    return SQLITE_OK;
}

/* Name and value pairs. */
struct Headers {
    explicit Headers(Words &words) : texts(take_texts(words)) {}

    std::vector<std::string> texts;
    std::vector<const char *> names = every(2, texts);
    std::vector<const char *> values = every(2, texts, 1);
    int count = static_cast<int>(values.size());
};

/* Attachments of a mailbox. */
struct Files {
    explicit Files(Words &words) : texts(take_texts(words)) {}

    std::vector<std::string> texts;
    std::vector<const char *> names = every(1, texts);
    int count = static_cast<int>(names.size());
};

const std::map<std::string, int (*)(Words &)> STEPS = {
    {"open", [](Words &) { return own_connection.open(); }},
    {"close", [](Words &) { return own_connection.close(); }},
    {"sql",
     [](Words &words) {
         SqliteText message;
         return own_connection.exec(take(words).c_str(), message);
     }},
    {"longest",
     [](Words &words) {
         longest_text = std::stoi(take(words));
         return sqlite3_auto_extension(reinterpret_cast<void (*)()>(limit_texts));
     }},
    {"memory", [](Words &words) { return sqlite3_hard_heap_limit64(std::stol(take(words))) < 0 ? -1 : 0; }},
    {"store_autoresponder_record",
     [](Words &words) {
         ResponderDb *db = take_connection(words);
         const Mailbox box(words);
         const Record record(words);
         return store_autoresponder_record(db, box.local_part.c_str(), box.domain.c_str(), record.lent());
     }},
    {"replace_autoresponder_record",
     [](Words &words) {
         const Mailbox box(words);
         const Record record(words);
         return replace_autoresponder_record(own_connection, box.local_part.c_str(), box.domain.c_str(), record.lent());
     }},
    {"store_attachment_records",
     [](Words &words) {
         ResponderDb *db = take_connection(words);
         const Mailbox box(words);
         const Files files(words);
         return store_attachment_records(db, box.local_part.c_str(), box.domain.c_str(), files.names.data(),
                                         files.count);
     }},
    {"replace_attachment_records",
     [](Words &words) {
         const Mailbox box(words);
         const Files files(words);
         return replace_attachment_records(own_connection, box.local_part.c_str(), box.domain.c_str(),
                                           files.names.data(), files.count);
     }},
    {"remove_autoresponder_record",
     [](Words &words) {
         ResponderDb *db = take_connection(words);
         const Mailbox box(words);
         return remove_autoresponder_record(db, box.local_part.c_str(), box.domain.c_str());
     }},
    {"delete_autoresponder_record",
     [](Words &words) {
         const Mailbox box(words);
         return delete_autoresponder_record(own_connection, box.local_part.c_str(), box.domain.c_str());
     }},
    {"remove_attachment_records",
     [](Words &words) {
         ResponderDb *db = take_connection(words);
         const Mailbox box(words);
         return remove_attachment_records(db, box.local_part.c_str(), box.domain.c_str());
     }},
    {"delete_attachment_records",
     [](Words &words) {
         const Mailbox box(words);
         return delete_attachment_records(own_connection, box.local_part.c_str(), box.domain.c_str());
     }},
    {"delete_extra_headers", [](Words &words) { return delete_extra_headers(take_connection(words)); }},
    {"import_extra_headers_json",
     [](Words &words) {
         ResponderDb *db = take_connection(words);
         return import_extra_headers_json(db, take(words));
     }},
    {"store_extra_headers",
     [](Words &words) {
         ResponderDb *db = take_connection(words);
         const Headers headers(words);
         return store_extra_headers(db, headers.names.data(), headers.values.data(), headers.count);
     }},
    {"replace_extra_headers",
     [](Words &words) {
         const Headers headers(words);
         return replace_extra_headers(own_connection, headers.names.data(), headers.values.data(), headers.count);
     }},
};

void run(Words words)
{
    const std::string name = take(words);
    const int result = STEPS.at(name)(words);
    std::printf("%s %d\n", name.c_str(), result);
}

} // namespace

int main(int argc, char *argv[])
{
    log_init(nullptr, LOG_ERR, LOG_MAIL, 0, "outside");
    Words step;
    for (int i = 1; i <= argc; ++i) {
        if (i < argc && std::string(argv[i]) != ",") {
            step.emplace_back(argv[i]);
        } else if (!step.empty()) {
            run(step);
            step.clear();
        }
    }
}
