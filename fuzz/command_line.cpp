/* Whole command lines: does what the tool's main() does, in this process and in a private root, each time from the same
 * database and files. The input is text: a line for each argument (a NUL byte in it stands for a line feed), a line "&"
 * between two runs of the tool, and after a line "|" the standard input of all runs. */

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <fcntl.h>
#include <linux/capability.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include "cli/run.h"
#include "fuzz/check.h"
#include "store/init_db.h"
#include "store/schema.h"
#include "support/conf.h"
#include "support/log.h"
#include "tests/unit/support/syslog_capture.h"

using namespace arsp;

namespace {

namespace fs = std::filesystem;

const std::string MAILNAMES = "/var/qmail/mailnames";

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

std::string read_file(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/* One run of the tool. */
struct Run {
    std::vector<std::string> arguments; /* without the program's name */
    int status = 0;
    std::string output;
    std::vector<SyslogRecord> log;
};

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

/* Makes a file in memory, which no path names, the standard stream `number` of this process. */
void redirect(int number)
{
    const int fd = memfd_create("stream", MFD_CLOEXEC);
    expect(fd >= 0 && dup2(fd, number) == number, "a standard stream cannot be redirected");
    close(fd);
}

void fill(int number, std::string_view bytes)
{
    expect(ftruncate(number, 0) == 0 &&
               pwrite(number, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()),
           "a standard stream cannot be written");
}

std::string content(int number)
{
    const off_t size = lseek(number, 0, SEEK_END);
    expect(size >= 0, "a standard stream was closed");
    std::string bytes(static_cast<std::size_t>(size), '\0');
    expect(pread(number, bytes.data(), bytes.size(), 0) == size, "a standard stream cannot be read");
    return bytes;
}

int lowest_free_descriptor()
{
    const int fd = fcntl(STDERR_FILENO, F_DUPFD, 0);
    close(fd);
    return fd;
}

/* A separate connection that reads the rows that the tool has left. */
class Observer {
public:
    Observer()
    {
        sqlite3 *handle = nullptr;
        if (sqlite3_open_v2(RESPONDER_DB_PATH, &handle, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
            sqlite3_close(handle);
            handle = nullptr;
        }
        handle_.reset(handle);
    }
    bool opened() const { return handle_ != nullptr; }

    /* Every value of every row, each followed by a blank. `mn` is bound to each parameter. */
    std::string all(const char *sql, const std::string &mn) const
    {
        sqlite3_stmt *stmt = nullptr;
        expect(sqlite3_prepare_v2(handle_.get(), sql, -1, &stmt, nullptr) == SQLITE_OK, sqlite3_errmsg(handle_.get()));
        for (int i = sqlite3_bind_parameter_count(stmt); i > 0; --i)
            sqlite3_bind_text(stmt, i, mn.data(), static_cast<int>(mn.size()), SQLITE_STATIC);
        std::string values;
        int step = SQLITE_ROW;
        while ((step = sqlite3_step(stmt)) == SQLITE_ROW) {
            for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
                const auto *bytes = static_cast<const char *>(sqlite3_column_blob(stmt, i));
                values.append(bytes, static_cast<std::size_t>(sqlite3_column_bytes(stmt, i))).append(" ");
            }
        }
        sqlite3_finalize(stmt);
        expect(step == SQLITE_DONE, "the database cannot be read");
        return values;
    }

    /* All rows of a mailbox. */
    std::string mailbox(const std::string &mn) const
    {
        return all("SELECT * FROM autoresponder WHERE mn=?", mn) + all("SELECT * FROM attachments WHERE mn=?", mn) +
               all("SELECT * FROM resp_freq WHERE mn=?", mn);
    }

private:
    struct Close {
        void operator()(sqlite3 *db) const { sqlite3_close(db); }
    };
    std::unique_ptr<sqlite3, Close> handle_;
};

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

void perform(Run &run)
{
    std::string program = "/usr/sbin/arspctl";
    std::vector<char *> argv = {program.data()};
    for (std::string &argument : run.arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    fill(STDOUT_FILENO, "");
    lseek(STDIN_FILENO, 0, SEEK_SET);
    lseek(STDOUT_FILENO, 0, SEEK_SET);
    syslog_capture = {};
    const int free_descriptor = lowest_free_descriptor();

    log_init(nullptr, LOG_ERR, LOG_MAIL, LOG_PERROR, "arspctl");
    conf_load();
    run.status = run_command_line(static_cast<int>(argv.size()) - 1, argv.data());

    run.output = content(STDOUT_FILENO);
    run.log = syslog_capture.records;
    expect(lowest_free_descriptor() == free_descriptor, "a descriptor was left open");
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
    const Observer database;
    if (const std::string *name = mailname_of(run, "--set-resp"); name != nullptr) {
        expect_equal(database.all("SELECT body FROM autoresponder WHERE mn=?", lower_case(*name)), standard_input + " ",
                     "the body that was stored");
        const std::string type = database.all("SELECT content_type FROM autoresponder WHERE mn=?", lower_case(*name));
        expect(type == "text/plain " || type == "text/html ", "the content type that was stored");
    }
    if (const std::string *name = mailname_of(run, "--del-resp"); name != nullptr)
        expect_equal(database.mailbox(lower_case(*name)), "", "what is left of a deleted autoresponder");
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
    const Observer database;
    if (!may_touch_bystander(input)) {
        expect(database.opened(), "the database is gone");
        expect_equal(database.mailbox(BYSTANDER), start().bystander, "the rows of another mailbox");
        expect_equal(read_file(BYSTANDER_FILE), "9 to 17\n", "the attachment of another mailbox");
    }
    if (database.opened())
        expect_equal(database.all("PRAGMA integrity_check", ""), "ok ", "integrity_check");
}

/* Keeps the capabilities that the tool needs to write in the private root and drops those that reach other processes,
 * and through them the root of the machine. */
void drop_capabilities()
{
    constexpr std::uint32_t KEPT = 1U << CAP_CHOWN | 1U << CAP_DAC_OVERRIDE | 1U << CAP_FOWNER | 1U << CAP_FSETID;
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct rights[_LINUX_CAPABILITY_U32S_3] = {{KEPT, KEPT, 0}, {0, 0, 0}};
    expect(syscall(SYS_capset, &header, rights) == 0, "the capabilities cannot be dropped");
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
    start().bystander = Observer().mailbox(BYSTANDER);
    write_file("/etc/kel/kel.conf", "QUARN_MAILNAMES_D " + MAILNAMES + "\n"); /* read once, by the first run */
    Run help = {{"--help"}, 0, "", {}};
    perform(help);
    start().help_page = help.output;
}

} // namespace

namespace {

/* Starts a program without a shell and returns its wait status. */
int start_program(const std::string &line)
{
    std::istringstream words(line);
    std::vector<std::string> arguments(std::istream_iterator<std::string>(words), {});
    std::vector<char *> argv;
    for (std::string &argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    int status = 0;
    expect(posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) == 0 && waitpid(pid, &status, 0) == pid,
           "libFuzzer cannot start itself");
    return status;
}

} // namespace

/* Copies without a shell, which would run whatever the quotes and dollar signs of the arguments make of the command
 * line, with the rights of this process, and would take a hundred times as long. libFuzzer calls the function, too, and
 * starts this program again for each attempt to merge corpora. */
extern "C" int system(const char *command)
{
    constexpr int REFUSED = 1 << 8; /* the wait status of exit(1) */
    constexpr std::string_view BEFORE = "/bin/cp \"";
    const std::string_view line = command;
    if (line.starts_with(program_invocation_name))
        return start_program(command);
    const std::size_t between = line.find("\" \"" + MAILNAMES + "/");
    expect(line.starts_with(BEFORE) && line.ends_with('"') && between != std::string_view::npos, "the copy's command");
    const std::string source(line.substr(BEFORE.size(), between - BEFORE.size()));
    std::string target(line.substr(between + 3, line.size() - 1 - (between + 3)));
    if ((source + target).find_first_of("\"$`\\") != std::string::npos || source.starts_with('-'))
        return REFUSED;
    std::error_code error;
    if (!fs::is_regular_file(source, error) || fs::file_size(source, error) > 100000)
        return REFUSED;
    if (fs::is_directory(target, error))
        target += "/" + source.substr(source.rfind('/') + 1);
    return fs::copy_file(source, target, fs::copy_options::overwrite_existing, error) ? 0 : REFUSED;
}

/* No target checks what is on the disk. */
extern "C" int fsync(int)
{
    return 0;
}

extern "C" int fdatasync(int)
{
    return 0;
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    if (access("/.private-root", F_OK) != 0) {
        std::fprintf(stderr, "This program only runs in a private root: scripts/fuzz\n");
        std::exit(1);
    }
    drop_capabilities();
    redirect(STDIN_FILENO);
    redirect(STDOUT_FILENO);
    make_start();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    Input input = read_input({reinterpret_cast<const char *>(data), size});
    restore();
    fill(STDIN_FILENO, input.standard_input);
    for (Run &run : input.runs) {
        perform(run);
        check_report(run);
        check_effect(run, input.standard_input);
    }
    check_database(input);
    return 0;
}
