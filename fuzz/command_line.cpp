/* Whole command lines: does what the tool's main() does, in this process and in a private root, each time from the same
 * database and files. The input is text: a line for each argument (a NUL byte in it stands for a line feed), a line "&"
 * between two runs of the tool, and after a line "|" the standard input of all runs. */

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <sqlite3.h>

#include "fuzz/check.h"
#include "fuzz/run_tool.h"
#include "store/init_db.h"
#include "store/schema.h"

using namespace arsp;

namespace {

/* Unless an input names this mailbox, nothing of it may change. */
const std::string BYSTANDER = "bystander@example.org";
const fs::path BYSTANDER_FILE = MAILNAMES + "/example.org/bystander/@attachments/hours.txt";

constexpr char ROWS[] =
    "INSERT INTO autoresponder VALUES ('bystander@example.org','k','subj','s','r','f','text/html','UTF-8','body',1,2,"
    "'bystander@example.org');"
    "INSERT INTO autoresponder VALUES ('anna@example.org','','no','s','','','text/plain','UTF-8','body',10,1000,"
    "'anna@example.org');"
    "INSERT INTO autoresponder VALUES ('alias@example.org','','no','s','','','text/plain','UTF-8','body',10,1000,"
    "'anna@example.org');"
    "INSERT INTO attachments VALUES ('bystander@example.org','hours.txt');"
    "INSERT INTO attachments VALUES ('anna@example.org','old.txt');"
    "INSERT INTO resp_freq VALUES ('bystander@example.org','a@example.net',1,2);"
    "INSERT INTO resp_freq VALUES ('anna@example.org','a@example.net',1,2);"
    "INSERT INTO extra_headers VALUES ('X-Loop','yes');";

struct Input {
    std::vector<Run> runs;
    std::string standard_input;
};

Input read_input(std::string_view bytes)
{
    Input input = {{{}}, ""};
    while (!bytes.empty()) {
        std::string line(take_line(bytes));
        if (line == "|") {
            input.standard_input = bytes;
            break;
        }
        std::replace(line.begin(), line.end(), '\0', '\n');
        if (line == "&")
            input.runs.emplace_back();
        else
            input.runs.back().arguments.push_back(line);
    }
    return input;
}

/* All rows of a mailbox. */
std::string mailbox_rows(const Connection &database, const std::string &mn)
{
    return database.rows("SELECT * FROM autoresponder WHERE mn=?", {mn}) +
           database.rows("SELECT * FROM attachments WHERE mn=?", {mn}) +
           database.rows("SELECT * FROM resp_freq WHERE mn=?", {mn});
}

/* The state that every input starts from. */
struct Start {
    std::string database;
    std::string passwd = read_file("/etc/passwd");
    std::string bystander;
    std::string help_page;
};

Start &start()
{
    static Start state;
    return state;
}

void restore()
{
    std::error_code ignored;
    for (const fs::directory_entry &entry : fs::directory_iterator(MAILNAMES))
        fs::remove_all(entry.path(), ignored);
    fs::create_directories(BYSTANDER_FILE.parent_path());
    write_file(BYSTANDER_FILE, "9 to 17\n");
    fs::create_directories(fs::path(MAILNAMES + "/example.org/anna/@attachments"));
    write_file(MAILNAMES + "/example.org/anna/@attachments/old.txt", "old\n");
    fs::create_directories(fs::path(RESPONDER_DB_PATH).parent_path());
    fs::remove(std::string(RESPONDER_DB_PATH) + "-journal", ignored);
    write_file(RESPONDER_DB_PATH, start().database);
    if (access("/etc/passwd", F_OK) != 0)
        write_file("/etc/passwd", start().passwd);
}

void check_report(const Run &run)
{
    expect(run.status == 0 || run.status == 1, "the exit status is neither 0 nor 1");
    if (run.status == 0)
        expect(run.output.empty(), "a success prints something");
    else if (!run.output.empty())
        expect(run.output == start().help_page || (run.output.starts_with("Error: ") && run.output.ends_with('\n')),
               "standard output is neither the help page nor an error");
    else
        expect(!run.log.empty(), "a failure without a message");
}

/* Returns the argument after a first argument `command` and "--mailname", unless another argument may select another
 * command. */
const std::string *mailname_of(const Run &run, std::string_view command)
{
    const std::vector<std::string> &words = run.arguments;
    if (run.status != 0 || words.size() < 3 || words[0] != command || words[1] != "--mailname")
        return nullptr;
    const bool sure = std::none_of(words.begin() + 1, words.end(), [&](const std::string &word) {
        return word.starts_with("--i") || word.starts_with("--set") ||
               (command != "--del-resp" && word.starts_with("--d")) || word.starts_with("--a");
    });
    return sure ? &words[2] : nullptr;
}

void check_effect(const Run &run, const std::string &standard_input)
{
    const Connection database;
    if (const std::string *name = mailname_of(run, "--set-resp"); name != nullptr) {
        expect_equal(database.rows("SELECT body FROM autoresponder WHERE mn=?", {lower_case(*name)}),
                     standard_input + "|\n", "the body that was stored");
        const std::string type =
            database.rows("SELECT content_type FROM autoresponder WHERE mn=?", {lower_case(*name)});
        expect(type == "text/plain|\n" || type == "text/html|\n", "the content type that was stored");
    }
    if (const std::string *name = mailname_of(run, "--del-resp"); name != nullptr)
        expect_equal(mailbox_rows(database, lower_case(*name)), "", "what is left of a deleted autoresponder");
}

/* Whether the input may name the bystander: by its name, by "..", or by --init-db. */
bool may_touch_bystander(const Input &input)
{
    return std::any_of(input.runs.begin(), input.runs.end(), [](const Run &run) {
        return std::any_of(run.arguments.begin(), run.arguments.end(), [](const std::string &argument) {
            const std::string word = lower_case(argument);
            return word.find("bystander") != std::string::npos || word.find("..") != std::string::npos ||
                   word.starts_with("--i");
        });
    });
}

void check_database(const Input &input)
{
    const Connection database;
    if (!may_touch_bystander(input)) {
        expect(database.opened(), "the database is gone");
        expect_equal(mailbox_rows(database, BYSTANDER), start().bystander, "the rows of another mailbox");
        expect_equal(read_file(BYSTANDER_FILE), "9 to 17\n", "the attachment of another mailbox");
    }
    if (database.opened())
        expect_equal(database.rows("PRAGMA integrity_check"), "ok|\n", "integrity_check");
}

void make_start()
{
    expect(init_responder_db() == 0, "no database can be made");
    sqlite3 *database = nullptr;
    expect(sqlite3_open(RESPONDER_DB_PATH, &database) == SQLITE_OK &&
               sqlite3_exec(database, ROWS, nullptr, nullptr, nullptr) == SQLITE_OK &&
               sqlite3_close(database) == SQLITE_OK,
           "the rows cannot be made");
    start().database = read_file(RESPONDER_DB_PATH);
    start().bystander = mailbox_rows(Connection(), BYSTANDER);
    Run help = {{"--help"}, 0, "", {}};
    run_tool(help, "");
    start().help_page = help.output;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    prepare_runs();
    make_start();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    Input input = read_input({reinterpret_cast<const char *>(data), size});
    restore();
    for (Run &run : input.runs) {
        run_tool(run, input.standard_input);
        check_report(run);
        check_effect(run, input.standard_input);
    }
    check_database(input);
    return 0;
}
