/* Another program of the panel: calls the store library as its command line says, step by step, and prints the name and
 * the result of each step. A step is a name and its arguments; "," separates two steps. CONNECTION is "none" or
 * "borrowed", the program's own connection; functions without CONNECTION take the own one.
 *
 *   open, close                    the own connection
 *   sql TEXT                       runs TEXT on it; the result is SQLite's code
 *   longest BYTES                  limits the texts of all connections opened later
 *   memory BYTES                   limits SQLite's memory
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
 * An argument or a VALUE "#N" stands for a text of N bytes. */
#include <cstdio>
#include <cstdlib>
#include <list>
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

using Texts = std::vector<const char *>;

ResponderDb own_connection;
int longest_text = -1;

/* Every `step`-th text from `first` on. */
Texts every(std::size_t step, const Texts &texts, std::size_t first)
{
    Texts found;
    for (std::size_t i = first; i < texts.size(); i += step)
        found.push_back(texts[i]);
    return found;
}

int count(const Texts &texts)
{
    return static_cast<int>(texts.size());
}

const std::map<std::string, const char *AutoresponderRecord::*> TEXT_FIELDS = {
    {"keystr", &AutoresponderRecord::keystr},
    {"key_where", &AutoresponderRecord::key_where},
    {"subject", &AutoresponderRecord::subject},
    {"reply_to", &AutoresponderRecord::reply_to},
    {"content_type", &AutoresponderRecord::content_type},
    {"charset", &AutoresponderRecord::charset},
    {"body", &AutoresponderRecord::body},
    {"forward_to", &AutoresponderRecord::forward_to},
    {"owner_local_part", &AutoresponderRecord::owner_local_part}};

/* A record with the fields that the texts from the third on change; "unset" sets all to their initial values. */
AutoresponderRecord record(const Texts &texts)
{
    AutoresponderRecord record = {};
    record.caller_data[0] = record.caller_data[1] = reinterpret_cast<const void *>(1); /* reading there crashes */
    record.keystr = "holiday";
    record.key_where = "subj";
    record.subject = "Away";
    record.reply_to = "desk@example.org";
    record.content_type = "text/html";
    record.charset = "KOI8-R";
    record.body = "Back soon.";
    record.ans_freq = 3;
    record.ans_limit = 400;
    record.forward_to = "deputy@example.org";
    record.owner_local_part = "Owner";
    for (const char *text : every(1, texts, 2)) {
        const std::string word = text;
        const std::string field = word.substr(0, word.find('='));
        const char *value = text + field.size() + 1;
        if (field == "unset")
            record = {};
        else if (field == "ans_freq")
            record.ans_freq = std::atoi(value);
        else if (field == "ans_limit")
            record.ans_limit = std::atoi(value);
        else
            record.*TEXT_FIELDS.at(field) = value;
    }
    return record;
}

/* SQLite calls it for each connection that it opens. */
int limit_texts(sqlite3 *db, const char **, const sqlite3_api_routines *)
{
    sqlite3_limit(db, SQLITE_LIMIT_LENGTH, longest_text);
    return SQLITE_OK;
}

int run_sql(const char *sql)
{
    SqliteText message;
    return own_connection.exec(sql, message);
}

int limit_longest(const char *bytes)
{
    longest_text = std::atoi(bytes);
    return sqlite3_auto_extension(reinterpret_cast<void (*)()>(limit_texts));
}

const std::map<std::string, int (*)(ResponderDb *, const Texts &)> WITH_CONNECTION = {
    {"store_autoresponder_record",
     [](ResponderDb *db, const Texts &texts) {
         return store_autoresponder_record(db, texts[0], texts[1], record(texts));
     }},
    {"store_attachment_records",
     [](ResponderDb *db, const Texts &texts) {
         return store_attachment_records(db, texts[0], texts[1], texts.data() + 2, count(texts) - 2);
     }},
    {"remove_autoresponder_record",
     [](ResponderDb *db, const Texts &texts) { return remove_autoresponder_record(db, texts[0], texts[1]); }},
    {"remove_attachment_records",
     [](ResponderDb *db, const Texts &texts) { return remove_attachment_records(db, texts[0], texts[1]); }},
    {"delete_extra_headers", [](ResponderDb *db, const Texts &) { return delete_extra_headers(db); }},
    {"import_extra_headers_json",
     [](ResponderDb *db, const Texts &texts) { return import_extra_headers_json(db, texts[0]); }},
    {"store_extra_headers",
     [](ResponderDb *db, const Texts &texts) {
         const Texts values = every(2, texts, 1);
         return store_extra_headers(db, every(2, texts, 0).data(), values.data(), count(values));
     }},
};

const std::map<std::string, int (*)(ResponderDb &, const Texts &)> ON_OWN_CONNECTION = {
    {"open", [](ResponderDb &db, const Texts &) { return db.open(); }},
    {"close", [](ResponderDb &db, const Texts &) { return db.close(); }},
    {"sql", [](ResponderDb &, const Texts &texts) { return run_sql(texts[0]); }},
    {"longest", [](ResponderDb &, const Texts &texts) { return limit_longest(texts[0]); }},
    {"memory",
     [](ResponderDb &, const Texts &texts) { return sqlite3_hard_heap_limit64(std::atol(texts[0])) < 0 ? -1 : 0; }},
    {"replace_autoresponder_record",
     [](ResponderDb &db, const Texts &texts) {
         return replace_autoresponder_record(db, texts[0], texts[1], record(texts));
     }},
    {"replace_attachment_records",
     [](ResponderDb &db, const Texts &texts) {
         return replace_attachment_records(db, texts[0], texts[1], texts.data() + 2, count(texts) - 2);
     }},
    {"delete_autoresponder_record",
     [](ResponderDb &db, const Texts &texts) { return delete_autoresponder_record(db, texts[0], texts[1]); }},
    {"delete_attachment_records",
     [](ResponderDb &db, const Texts &texts) { return delete_attachment_records(db, texts[0], texts[1]); }},
    {"replace_extra_headers",
     [](ResponderDb &db, const Texts &texts) {
         const Texts values = every(2, texts, 1);
         return replace_extra_headers(db, every(2, texts, 0).data(), values.data(), count(values));
     }},
};

int run(const std::string &name, const Texts &texts)
{
    if (ON_OWN_CONNECTION.contains(name))
        return ON_OWN_CONNECTION.at(name)(own_connection, texts);
    ResponderDb *connection = std::string(texts.at(0)) == "borrowed" ? &own_connection : nullptr;
    return WITH_CONNECTION.at(name)(connection, every(1, texts, 1));
}

/* Replaces "#N" at the start or after "=". */
std::string expanded(const std::string &word)
{
    const std::size_t place = word.find("=#") + 1;
    return word[place] == '#' ? word.substr(0, place) + std::string(std::stoul(word.substr(place + 1)), 'x') : word;
}

} // namespace

int main(int argc, char *argv[])
{
    log_init(nullptr, LOG_ERR, LOG_MAIL, 0, "outside");
    std::list<std::string> words;
    std::string name;
    Texts texts;
    for (int i = 1; i <= argc; ++i) {
        if (i == argc || std::string(argv[i]) == ",") {
            if (!name.empty())
                std::printf("%s %d\n", name.c_str(), run(name, texts));
            name.clear();
            texts.clear();
        } else if (name.empty()) {
            name = argv[i];
        } else {
            texts.push_back(words.emplace_back(expanded(argv[i])).c_str());
        }
    }
}
