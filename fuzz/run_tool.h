#ifndef ARSP_FUZZ_RUN_TOOL_H
#define ARSP_FUZZ_RUN_TOOL_H

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
#include "store/schema.h"
#include "support/conf.h"
#include "support/log.h"
#include "tests/unit/support/syslog_capture.h"

/* Runs of the tool in the process of a target, in a private root. A program that includes this header replaces
 * system(), fsync() and fdatasync(). */

namespace arsp {

namespace fs = std::filesystem;

inline const std::string MAILNAMES = "/var/qmail/mailnames";

inline std::string read_file(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/* Makes a file in memory, which no path names, the standard stream `number` of this process. */
inline void redirect(int number)
{
    const int fd = memfd_create("stream", MFD_CLOEXEC);
    expect(fd >= 0 && dup2(fd, number) == number, "a standard stream cannot be redirected");
    close(fd);
}

inline void fill(int number, std::string_view bytes)
{
    expect(ftruncate(number, 0) == 0 &&
               pwrite(number, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()),
           "a standard stream cannot be written");
}

inline std::string content(int number)
{
    const off_t size = lseek(number, 0, SEEK_END);
    expect(size >= 0, "a standard stream was closed");
    std::string bytes(static_cast<std::size_t>(size), '\0');
    expect(pread(number, bytes.data(), bytes.size(), 0) == size, "a standard stream cannot be read");
    return bytes;
}

inline int lowest_free_descriptor()
{
    const int fd = fcntl(STDERR_FILENO, F_DUPFD, 0);
    close(fd);
    return fd;
}

/* Keeps the capabilities that the tool needs to write in the private root and drops those that reach other processes,
 * and through them the root of the machine. */
inline void drop_capabilities()
{
    constexpr std::uint32_t KEPT = 1U << CAP_CHOWN | 1U << CAP_DAC_OVERRIDE | 1U << CAP_FOWNER | 1U << CAP_FSETID;
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct rights[_LINUX_CAPABILITY_U32S_3] = {{KEPT, KEPT, 0}, {0, 0, 0}};
    expect(syscall(SYS_capset, &header, rights) == 0, "the capabilities cannot be dropped");
}

/* Prepares the process for run_tool(). Ends it outside a private root. */
inline void prepare_runs()
{
    if (access("/.private-root", F_OK) != 0) {
        std::fprintf(stderr, "This program only runs in a private root: scripts/fuzz\n");
        std::exit(1);
    }
    drop_capabilities();
    redirect(STDIN_FILENO);
    redirect(STDOUT_FILENO);
    write_file("/etc/kel/kel.conf", "QUARN_MAILNAMES_D " + MAILNAMES + "\n"); /* read once, by the first run */
}

/* One run of the tool. */
struct Run {
    std::vector<std::string> arguments; /* without the program's name */
    int status = 0;
    std::string output;
    std::vector<SyslogRecord> log;
};

/* Does what the tool's main() does. */
inline void run_tool(Run &run, std::string_view standard_input)
{
    std::string program = "/usr/sbin/arspctl";
    std::vector<char *> argv = {program.data()};
    for (std::string &argument : run.arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    fill(STDIN_FILENO, standard_input);
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

/* A connection to the database that the tool does not use. */
class Connection {
public:
    explicit Connection(int flags = SQLITE_OPEN_READONLY)
    {
        sqlite3 *handle = nullptr;
        if (sqlite3_open_v2(RESPONDER_DB_PATH, &handle, flags, nullptr) != SQLITE_OK) {
            sqlite3_close(handle);
            handle = nullptr;
        }
        handle_.reset(handle);
    }
    bool opened() const { return handle_ != nullptr; }

    /* Runs a statement with texts as its parameters. Returns its rows: "|" follows each value, a line feed each row. */
    std::string rows(const char *sql, const std::vector<std::string> &values = {}) const
    {
        sqlite3_stmt *stmt = nullptr;
        expect(sqlite3_prepare_v2(handle_.get(), sql, -1, &stmt, nullptr) == SQLITE_OK, sqlite3_errmsg(handle_.get()));
        for (std::size_t i = 0; i < values.size(); ++i)
            sqlite3_bind_text(stmt, static_cast<int>(i) + 1, values[i].data(), static_cast<int>(values[i].size()),
                              SQLITE_STATIC);
        std::string rows;
        int step = SQLITE_ROW;
        while ((step = sqlite3_step(stmt)) == SQLITE_ROW) {
            for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
                const auto *bytes = static_cast<const char *>(sqlite3_column_blob(stmt, i));
                rows.append(bytes, static_cast<std::size_t>(sqlite3_column_bytes(stmt, i))).append("|");
            }
            rows += '\n';
        }
        sqlite3_finalize(stmt);
        expect(step == SQLITE_DONE, "the database cannot be used");
        return rows;
    }

private:
    struct Close {
        void operator()(sqlite3 *db) const { sqlite3_close(db); }
    };
    std::unique_ptr<sqlite3, Close> handle_;
};

/* Starts a program without a shell and returns its wait status. */
inline int start_program(const std::string &line)
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

} // namespace arsp

/* Copies without a shell, which would run whatever the quotes and dollar signs of the arguments make of the command
 * line, with the rights of this process, and would take a hundred times as long. libFuzzer calls the function, too, and
 * starts this program again for each attempt to merge corpora. */
extern "C" int system(const char *command)
{
    using namespace arsp;
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

#endif
