/* Records the tool's calls to SQLite, and brings SQLite into a state in which it refuses one of them by itself. The
 * errors that the tool sees are thus SQLite's own.
 *   SQLITE_SHIM_LOG    the file that receives a line for each call, and for each pause of the tool
 *   SQLITE_SHIM_FAULT  one or more of these, separated by commas:
 *                      "open": no memory for a handle
 *                      "exec": no memory for the script, nor for its error message
 *                      "prepare WORD": a limit on the length of statements that begin with WORD
 *                      "begun": a transaction is open when the tool begins its own
 *                      "bind FIRST": no parameter from that index on
 *                      "close TIMES": a statement is alive, for that many attempts to close
 *                      "pause": interrupted at once */

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <sqlite3.h>

namespace {

int depth = 0; /* SQLite's functions call each other by the same names; only the outermost call is the tool's */

struct Nested {
    Nested() { ++depth; }
    Nested(const Nested &) = delete;
    Nested &operator=(const Nested &) = delete;
    ~Nested() { --depth; }
};

__attribute__((format(printf, 1, 2))) void note(const char *format, ...)
{
    const char *path = std::getenv("SQLITE_SHIM_LOG");
    if (path == nullptr || depth != 1)
        return;
    va_list args;
    va_start(args, format);
    const int log = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    vdprintf(log, format, args);
    close(log);
    va_end(args);
}

/* Returns what follows `name` in the requested faults, or null if that fault is not requested. */
const char *fault(const char *name)
{
    const size_t length = std::strlen(name);
    const char *wanted = std::getenv("SQLITE_SHIM_FAULT");
    while (wanted != nullptr && depth == 1) {
        if (std::strncmp(wanted, name, length) == 0 && std::strchr(" ,", wanted[length]) != nullptr)
            return wanted[length] == ' ' ? wanted + length + 1 : "";
        wanted = std::strchr(wanted, ',');
        wanted = wanted != nullptr ? wanted + 1 : nullptr;
    }
    return nullptr;
}

template <typename Function>
Function *real(Function * /*shim*/, const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

/* SQLite gets no more memory than it has, as long as this object lives. */
struct NoMemory {
    NoMemory() { sqlite3_hard_heap_limit64(sqlite3_memory_used() + 1); }
    NoMemory(const NoMemory &) = delete;
    NoMemory &operator=(const NoMemory &) = delete;
    ~NoMemory() { sqlite3_hard_heap_limit64(0); }
};

/* After an interrupted pause the tool releases nothing; that is not a leak. */
__attribute__((constructor)) void expect_leaks()
{
    const char *wanted = std::getenv("SQLITE_SHIM_FAULT");
    if (wanted == nullptr || std::strstr(wanted, "pause") == nullptr)
        return;
    if (void *disable = dlsym(RTLD_DEFAULT, "__lsan_disable"); disable != nullptr)
        reinterpret_cast<void (*)()>(disable)();
}

} // namespace

#define REAL(name) real(name, #name)

extern "C" {

int nanosleep(const timespec *length, timespec *rest) /* SQLite itself sleeps by usleep */
{
    const Nested nested;
    note("pause %ld\n", length->tv_sec * 1'000'000'000 + length->tv_nsec);
    if (fault("pause") == nullptr)
        return REAL(nanosleep)(length, rest);
    errno = EINTR;
    return -1;
}

int sqlite3_open_v2(const char *path, sqlite3 **db, int flags, const char *vfs)
{
    const Nested nested;
    note("open %s\n", path);
    if (fault("open") == nullptr)
        return REAL(sqlite3_open_v2)(path, db, flags, vfs);
    sqlite3_initialize();
    const NoMemory no_memory;
    return REAL(sqlite3_open_v2)(path, db, flags, vfs);
}

int sqlite3_busy_timeout(sqlite3 *db, int ms)
{
    const Nested nested;
    note("busy_timeout %d\n", ms);
    const int result = REAL(sqlite3_busy_timeout)(db, ms);
    if (fault("begun") != nullptr)
        sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
    return result;
}

int sqlite3_prepare_v2(sqlite3 *db, const char *sql, int length, sqlite3_stmt **stmt, const char **rest)
{
    const Nested nested;
    const char *word = fault("prepare");
    const bool refused = word != nullptr && std::strncmp(sql, word, std::strlen(word)) == 0;
    const int limit = refused ? sqlite3_limit(db, SQLITE_LIMIT_SQL_LENGTH, 1) : 0;
    const int result = REAL(sqlite3_prepare_v2)(db, sql, length, stmt, rest);
    if (refused)
        sqlite3_limit(db, SQLITE_LIMIT_SQL_LENGTH, limit);
    note("prepare %s = %d\n", sql, result);
    return result;
}

static int parameter(int index)
{
    const char *first = fault("bind");
    return first != nullptr && index >= std::atoi(first) ? index + 1000 : index;
}

int sqlite3_bind_text(sqlite3_stmt *stmt, int index, const char *text, int length, void (*destroy)(void *))
{
    const Nested nested;
    const int result = REAL(sqlite3_bind_text)(stmt, parameter(index), text, length, destroy);
    note("bind_text %d = %d\n", index, result);
    return result;
}

int sqlite3_bind_int(sqlite3_stmt *stmt, int index, int value)
{
    const Nested nested;
    const int result = REAL(sqlite3_bind_int)(stmt, parameter(index), value);
    note("bind_int %d = %d\n", index, result);
    return result;
}

int sqlite3_step(sqlite3_stmt *stmt)
{
    const Nested nested;
    const int result = REAL(sqlite3_step)(stmt);
    note("step = %d\n", result);
    return result;
}

int sqlite3_reset(sqlite3_stmt *stmt)
{
    const Nested nested;
    note("reset\n");
    return REAL(sqlite3_reset)(stmt);
}

int sqlite3_finalize(sqlite3_stmt *stmt)
{
    const Nested nested;
    note("finalize\n");
    return REAL(sqlite3_finalize)(stmt);
}

int sqlite3_exec(sqlite3 *db, const char *sql, int (*callback)(void *, int, char **, char **), void *arg, char **text)
{
    const Nested nested;
    if (fault("exec") == nullptr) {
        const int result = REAL(sqlite3_exec)(db, sql, callback, arg, text);
        note("exec %s = %d\n", sql, result);
        return result;
    }
    const NoMemory no_memory;
    return REAL(sqlite3_exec)(db, sql, callback, arg, text);
}

const char *sqlite3_errmsg(sqlite3 *db)
{
    const Nested nested;
    note("errmsg\n");
    return REAL(sqlite3_errmsg)(db);
}

int sqlite3_close(sqlite3 *db)
{
    const Nested nested;
    static sqlite3_stmt *alive = nullptr;
    static int tries = 0;
    if (const char *times = fault("close"); times != nullptr && db != nullptr) {
        if (tries == 0)
            REAL(sqlite3_prepare_v2)(db, "SELECT 1", -1, &alive, nullptr);
        if (tries == std::atoi(times)) {
            REAL(sqlite3_finalize)(alive);
            alive = nullptr;
        }
        ++tries;
    }
    const int result = REAL(sqlite3_close)(db);
    if (db != nullptr)
        note("close = %d\n", result);
    return result;
}
}
