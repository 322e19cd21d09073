/* Sequences of up to six commands on one database, with the mail side between them. After each command the database,
 * the attachments' files, the status and the records are compared with the model's. The input is text: a line for each
 * command or act of the mail side. It has a letter for what is done, one for the mailbox, one for a second operand, and
 * a text (a NUL byte in it stands for a line feed):
 *
 *   i             --init-db
 *   sMO WORDS|..  --set-resp; the owner; options, each a letter and a value; standard input
 *   dM            --del-resp
 *   aMSNAME       --add-attach; the source; --filename
 *   rM.NAME       --del-attach; any letter; --filename
 *   h..N=V N=V    --set-extra-headers; any two letters; the headers
 *   b..N=V        the same with a malformed document
 *   cM.SENDER     the mail side counts a reply
 *   oMO           the mail side changes the owner of a row
 *   wM.NAME       the mail side writes a file beside the attachments; m makes a directory, l a link, u unlinks
 *   n             the mail side opens the database again
 *   x             an administrator deletes the database
 *
 * Lines with another first letter do nothing. */

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include <pwd.h>
#include <sys/stat.h>

#include "fuzz/check.h"
#include "fuzz/mail_side.h"
#include "fuzz/model.h"
#include "fuzz/run_tool.h"
#include "fuzz/step.h"
#include "store/init_db.h"
#include "store/schema.h"

using namespace arsp;

namespace {

constexpr int MOST_COMMANDS = 6;

constexpr const char *SOURCES[] = {"/tmp/one.txt", "/tmp/below/two.txt", "/tmp/missing", "/tmp/below", nullptr};

struct TextOption {
    char letter;
    const char *name;
    Column column;
    const char *initial;
};
constexpr TextOption OPTIONS[] = {{'k', "--key-str", KEYSTR, ""},
                                  {'w', "--key-where", KEY_WHERE, "no"},
                                  {'j', "--subj", SUBJECT, "Re: <request_subject>"},
                                  {'r', "--reply-to", REPLY_TO, ""},
                                  {'f', "--forward-to", FORWARD_TO, ""},
                                  {'t', "--content-type", CONTENT_TYPE, "text/plain"},
                                  {'c', "--charset", CHARSET, "UTF-8"},
                                  {'q', "--ans-freq", ANS_FREQ, "10"},
                                  {'l', "--ans-limit", ANS_LIMIT, "1000"}};

std::vector<std::string> words_of(std::string_view text)
{
    std::vector<std::string> words;
    while (!text.empty()) {
        const std::string_view word = text.substr(0, text.find(' '));
        text.remove_prefix(std::min(word.size() + 1, text.size()));
        if (!word.empty())
            words.emplace_back(word);
    }
    return words;
}

/* The canonical text of a number that the option accepts, or "!invalid". */
std::string number_rule(std::string token)
{
    if (token.starts_with('+') && !token.starts_with("+-"))
        token.erase(0, 1);
    std::int32_t value = 0;
    const auto [end, error] = std::from_chars(token.data(), token.data() + token.size(), value);
    return error == std::errc() && end == token.data() + token.size() ? std::to_string(value) : "!invalid";
}

/* A command line with its standard input, and what the model makes of it. */
struct Command {
    std::vector<std::string> arguments;
    std::string standard_input;
    bool refused = false; /* by the command line's rules */
    std::optional<Expected> expected = Expected();

    /* An empty value is an argument of its own, as the parser requires. */
    void add(const std::string &name, const char *value)
    {
        if (value == nullptr)
            refused = true;
        else if (*value == '\0')
            arguments.insert(arguments.end(), {name, ""});
        else
            arguments.push_back(name + "=" + value);
    }
    std::string add(const std::string &name, const Address &address)
    {
        add(name, address.given);
        refused = refused || address.stored == nullptr;
        return address.stored == nullptr ? "" : address.stored;
    }
};

AutoresponderValues add_options(Command &command, std::string_view text)
{
    AutoresponderValues values;
    for (const TextOption &option : OPTIONS)
        values[option.column] = option.initial;
    std::string seen;
    for (const std::string &word : words_of(text)) {
        const auto *option = std::find_if(std::begin(OPTIONS), std::end(OPTIONS),
                                          [&](const TextOption &candidate) { return candidate.letter == word[0]; });
        if (option == std::end(OPTIONS))
            continue;
        const std::string given = word.substr(1);
        command.add(option->name, given.c_str());
        std::string &value = values[option->column];
        value = given;
        if (option->column == CONTENT_TYPE)
            value = content_type_rule(given);
        else if (option->column == ANS_FREQ || option->column == ANS_LIMIT)
            value = number_rule(given);
        command.refused = command.refused || value == "!invalid" || seen.find(word[0]) != std::string::npos;
        seen += word[0];
    }
    return values;
}

void set_resp(Command &command, const Step &step, Model &model)
{
    const std::size_t bar = std::min(step.text.find('|'), step.text.size());
    command.arguments = {"--set-resp"};
    command.standard_input = step.text.substr(std::min(bar + 1, step.text.size()));
    AutoresponderValues values = add_options(command, step.text.substr(0, bar));
    values[MN] = command.add("--mailname", pick(ADDRESSES, step.mailbox));
    values[REAL_OWNER] = command.add("--real-owner", pick(ADDRESSES, step.operand));
    values[BODY] = command.standard_input;
    if (!command.refused)
        command.expected = model.setResp(values);
}

void add_attach(Command &command, const Step &step, Model &model)
{
    const char *source = pick(SOURCES, step.operand);
    command.arguments = {"--add-attach"};
    const std::string mn = command.add("--mailname", pick(ADDRESSES, step.mailbox));
    command.add("--filename", step.text.c_str());
    command.add("--source", source);
    if (command.refused)
        return;
    std::optional<std::string> content;
    if (fs::is_regular_file(source))
        content = read_file(source);
    command.expected = model.addAttach(mn, step.text, source, content);
}

void set_extra_headers(Command &command, const Step &step, Model &model)
{
    std::vector<std::pair<std::string, std::string>> headers;
    std::string json = "{";
    for (const std::string &word : words_of(step.text)) {
        const std::size_t equals = std::min(word.find('='), word.size());
        const std::string name = word.substr(0, equals);
        const std::string value = word.substr(std::min(equals + 1, word.size()));
        json += (headers.empty() ? "" : ",") + json_string(name) + ":" + json_string(value);
        headers.emplace_back(utf8(name), utf8(value));
    }
    command.arguments = {"--set-extra-headers"};
    const bool malformed = step.verb == 'b';
    command.standard_input = malformed ? json : json + "}";
    command.expected = model.setExtraHeaders(malformed ? std::nullopt : std::optional(headers));
}

/* The command of a step, which the model then has carried out; nothing for an act of the mail side. */
std::optional<Command> make_command(const Step &step, Model &model)
{
    const Address &mailbox = pick(ADDRESSES, step.mailbox);
    Command command;
    switch (step.verb) {
    case 'i':
        command.arguments = {"--init-db"};
        command.expected = model.initDb();
        break;
    case 's':
        set_resp(command, step, model);
        break;
    case 'd':
        command.arguments = {"--del-resp"};
        if (const std::string mn = command.add("--mailname", mailbox); !command.refused)
            command.expected = model.delResp(mn);
        break;
    case 'a':
        add_attach(command, step, model);
        break;
    case 'r':
        command.arguments = {"--del-attach"};
        command.add("--filename", step.text.c_str());
        if (const std::string mn = command.add("--mailname", mailbox); !command.refused)
            command.expected = model.delAttach(mn, step.text);
        break;
    case 'h':
    case 'b':
        set_extra_headers(command, step, model);
        break;
    default:
        return std::nullopt;
    }
    return command;
}

/* Owner, group and mode of an existing path. */
std::string rights(const std::string &path)
{
    struct stat status = {};
    expect(lstat(path.c_str(), &status) == 0, "a file is missing");
    char text[64];
    std::snprintf(text, sizeof text, "%u:%u %o", status.st_uid, status.st_gid, status.st_mode & 07777);
    return text;
}

std::string mail_user()
{
    const passwd *user = getpwnam(MAIL_USER);
    return std::to_string(user->pw_uid) + ":" + std::to_string(user->pw_gid);
}

/* A line for each file: path, owner, mode of a directory, kind, content. Files are copied with the mode of their
 * source, so only the modes of directories are compared. */
std::string stored_files()
{
    std::map<std::string, std::string> lines; /* by path */
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(MAILNAMES)) {
        const std::string path = entry.path();
        const std::string owner_and_mode = rights(path);
        std::string &line = lines[path.substr(MAILNAMES.size())];
        line = owner_and_mode.substr(0, owner_and_mode.find(' '));
        if (entry.is_symlink())
            line += " l " + fs::read_symlink(entry).string();
        else if (entry.is_directory())
            line = owner_and_mode + " d ";
        else
            line += " f " + read_file(path);
    }
    std::string files;
    for (const auto &[place, line] : lines)
        files += place + " " + line + "\n";
    return files;
}

std::string model_files(const ModelTree &tree)
{
    std::string files;
    for (const auto &[place, entry] : tree.entries()) {
        if (!place.empty())
            files += place + " " + (entry.of_mail_user ? mail_user() : "0:0") + (entry.kind == 'd' ? " 700 " : " ") +
                     entry.kind + " " + entry.content + "\n";
    }
    return files;
}

void check_run(const Run &run, const Command &command)
{
    const Expected expected = command.refused ? Expected{1, {}} : *command.expected;
    expect_equal(std::to_string(run.status), std::to_string(expected.status), "exit status");
    expect(command.refused ? run.output.starts_with("Error: ") : run.output.empty(), "standard output");
    expect(run.log.size() == expected.records.size(), "number of records");
    for (std::size_t i = 0; i < run.log.size(); ++i)
        expect(run.log[i].priority == LOG_ERR && run.log[i].text.starts_with(expected.records[i]), "record");
}

void check_state(const Run &run, const Model &model)
{
    const fs::path directory = fs::path(RESPONDER_DB_PATH).parent_path();
    if (run.arguments[0] == "--init-db") {
        expect_equal(rights(RESPONDER_DB_PATH), mail_user() + " 600", "rights of the database");
        expect_equal(rights(directory), mail_user().substr(0, mail_user().find(':')) + ":0 755",
                     "rights of the database's directory");
    }
    for (const fs::directory_entry &entry : fs::directory_iterator(directory))
        expect(entry.path() == RESPONDER_DB_PATH, "a file is left beside the database");
    const Connection database;
    if (model.database->has_tables) {
        expect_equal(stored_rows(database), model.database->text(), "the rows that a new reader reads");
        expect_equal(database.rows("PRAGMA integrity_check"), "ok|\n", "integrity_check");
    } else if (database.opened()) {
        expect_equal(database.rows("SELECT count(*) FROM sqlite_schema"), "0|\n", "tables that only --init-db makes");
    }
    expect_equal(stored_files(), model_files(model.tree), "the files of the attachments");
}

std::string &start_database()
{
    static std::string bytes;
    return bytes;
}

void restore()
{
    for (const fs::directory_entry &entry : fs::directory_iterator(MAILNAMES))
        fs::remove_all(entry.path());
    for (const fs::directory_entry &entry : fs::directory_iterator(fs::path(RESPONDER_DB_PATH).parent_path()))
        fs::remove_all(entry.path());
    write_file(RESPONDER_DB_PATH, start_database());
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    prepare_runs();
    expect(init_responder_db() == 0, "no database can be made");
    start_database() = read_file(RESPONDER_DB_PATH);
    write_file("/tmp/one.txt", "one\n");
    fs::create_directories("/tmp/below");
    write_file("/tmp/below/two.txt", "two\n");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    restore();
    Model model;
    MailSide mail_side(model);
    int commands = 0;
    for (const Step &step : read_steps({reinterpret_cast<const char *>(data), size})) {
        const std::optional<Command> command = make_command(step, model);
        if (!command) {
            mail_side.act(step);
            continue;
        }
        if (!command->expected)
            continue;
        if (++commands > MOST_COMMANDS)
            break;
        Run run = {command->arguments, 0, "", {}};
        run_tool(run, command->standard_input);
        check_run(run, *command);
        check_state(run, model);
        mail_side.check();
    }
    return 0;
}
