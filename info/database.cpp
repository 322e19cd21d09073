#include "info/database.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "info/failure.h"
#include "store/schema.h"
#include "support/c_handles.h"

namespace arsp {

namespace {

constexpr int BUSY_TIMEOUT = 5000;            /* ms */
constexpr time_t READING_LIMIT = 20;          /* seconds */
constexpr int STEPS_BETWEEN_CHECKS = 100000;  /* of SQLite's virtual machine */
constexpr std::uint64_t SMALLEST_ROW = 8;     /* bytes that a row of any table takes in the file, at least */
constexpr std::uint64_t READS_OF_A_VALUE = 4; /* at most, by one query */
constexpr std::uint64_t OWN_ROWS = 1 << 16; /* bytes allowed for what SQLite itself returns, such as a PRAGMA's rows */
constexpr std::uint64_t LARGEST_COPY = 1U << 30U; /* bytes */

/* Replaces open() in SQLite: creates nothing, opens nothing but regular files, and so never waits for a pipe. */
int open_regular_file(const char *path, int flags, int)
{
    if ((flags & O_CREAT) != 0) {
        errno = EACCES;
        return -1;
    }
    Descriptor file(open(path, flags | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (!file || fstat(file.get(), &status) != 0)
        return -1;
    if (!S_ISREG(status.st_mode)) {
        errno = EACCES;
        return -1;
    }
    return file.release();
}

time_t seconds()
{
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec;
}

/* The finding that an error of SQLite's makes; null for one that says nothing about the database. */
const char *finding_of(int rc)
{
    switch (rc & 0xff) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_TOOBIG:
        return "db-damaged";
    case SQLITE_READONLY: /* a hot journal has to be rolled back first, which takes a writer */
        return "db-journal";
    case SQLITE_CANTOPEN:
        return "db-unreadable";
    case SQLITE_ERROR: /* a statement of arspinfo's own does not fit the tables */
        return "db-schema";
    default:
        return nullptr;
    }
}

[[noreturn]] void throw_overlap()
{
    throw DatabaseFailure("db-damaged",
                          std::string("cannot read ") + RESPONDER_DB_PATH + ": it has more rows than room");
}

/* The statements of the schema that make objects. */
std::vector<std::string_view> expected_objects()
{
    std::vector<std::string_view> objects;
    std::string_view script = RESPONDER_DB_SCHEMA;
    while (!script.empty()) {
        const std::size_t end = std::min(script.find(';'), script.size() - 1);
        if (script.starts_with("CREATE"))
            objects.push_back(script.substr(0, end));
        script.remove_prefix(end + 1);
    }
    return objects;
}

} // namespace

Database::~Database() = default;

/* Reports what SQLite has no words for. Returns the status of the file. */
struct stat Database::checkFile()
{
    const std::string path = RESPONDER_DB_PATH;
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0)
        throw DatabaseFailure(errno == ENOENT ? "db-missing" : "db-unreadable",
                              "cannot open " + path + ": " + std::strerror(errno));
    if (!S_ISREG(status.st_mode))
        throw DatabaseFailure("db-type", path + " is no regular file");
    const Descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file)
        throw DatabaseFailure("db-unreadable", "cannot open " + path + ": " + std::strerror(errno));
    constexpr std::size_t VERSIONS = 18; /* offset of the versions for writing and reading; 2 with a write-ahead log */
    char header[VERSIONS + 2] = {};
    if (pread(file.get(), header, sizeof header, 0) == sizeof header && std::strcmp(header, "SQLite format 3") == 0 &&
        (header[VERSIONS] == 2 || header[VERSIONS + 1] == 2))
        throw DatabaseFailure("db-wal", path + " uses a write-ahead log, which only a writer can read");
    return status;
}

Database Database::openFile()
{
    const struct stat status = checkFile();
    Database db;
    sqlite3_vfs *default_vfs = sqlite3_vfs_find(nullptr);
    if (default_vfs == nullptr)
        db.fail(SQLITE_NOMEM); /* SQLite cannot start */
    default_vfs->xSetSystemCall(default_vfs, "open", reinterpret_cast<sqlite3_syscall_ptr>(open_regular_file));
    db.vfs_ = std::make_unique<ResponderVfs>();
    db.limits_ = std::make_unique<Limits>();
    db.limits_->file_size = static_cast<std::uint64_t>(std::max<off_t>(status.st_size, 0));
    sqlite3 *handle = nullptr;
    const int rc =
        sqlite3_open_v2(RESPONDER_DB_PATH, &handle, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOMUTEX, db.vfs_->name());
    db.handle_.reset(handle);
    db.require(rc);
    sqlite3_busy_timeout(handle, BUSY_TIMEOUT);
    db.harden();
    db.execute("BEGIN");
    db.checkSchema();
    return db;
}

Database Database::copyToMemory()
{
    if (size() > LARGEST_COPY)
        throw Failure(std::string(RESPONDER_DB_PATH) + " is too large to be copied to memory");
    Database copy;
    sqlite3 *memory = nullptr;
    const int rc = sqlite3_open_v2(":memory:", &memory, SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOMUTEX, nullptr);
    copy.handle_.reset(memory);
    copy.require(rc);
    sqlite3_int64 length = 0;
    unsigned char *bytes = sqlite3_serialize(handle(), "main", &length, 0);
    if (bytes == nullptr)
        fail(sqlite3_errcode(handle()) == SQLITE_OK ? SQLITE_NOMEM : sqlite3_errcode(handle()));
    finish();
    copy.limits_ = std::move(limits_);
    copy.require(sqlite3_deserialize(memory, "main", bytes, length, length,
                                     SQLITE_DESERIALIZE_FREEONCLOSE | SQLITE_DESERIALIZE_READONLY));
    copy.harden();
    return copy;
}

void Database::harden()
{
    sqlite3 *db = handle_.get();
    sqlite3_db_config(db, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(db, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
    sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
    sqlite3_limit(db, SQLITE_LIMIT_ATTACHED, 0);
    sqlite3_limit(db, SQLITE_LIMIT_COLUMN, 64);
    sqlite3_limit(db, SQLITE_LIMIT_EXPR_DEPTH, 64);
    /* No value is longer than the file that holds it. */
    sqlite3_limit(db, SQLITE_LIMIT_LENGTH,
                  static_cast<int>(std::clamp<std::uint64_t>(limits_->file_size, 1 << 20, INT_MAX)));
    limits_->deadline = seconds() + READING_LIMIT;
    sqlite3_progress_handler(db, STEPS_BETWEEN_CHECKS, isOverdue, limits_.get());
    execute("PRAGMA cell_size_check=ON");
}

int Database::isOverdue(void *limits)
{
    return seconds() >= static_cast<Limits *>(limits)->deadline;
}

void Database::checkSchema()
{
    std::vector<std::string_view> expected = expected_objects();
    Query objects(*this, "SELECT sql FROM sqlite_schema WHERE tbl_name COLLATE NOCASE IN "
                         "('attachments','autoresponder','resp_freq','extra_headers') AND sql IS NOT NULL");
    bool foreign = false;
    while (objects.next()) {
        const auto known = std::find(expected.begin(), expected.end(), objects.text(0));
        if (known == expected.end())
            foreign = true;
        else
            expected.erase(known);
    }
    Query encoding(*this, "PRAGMA encoding");
    encoding.next(); /* there is one row */
    if (foreign || !expected.empty() || encoding.text(0) != "UTF-8")
        throw DatabaseFailure("db-schema", std::string(RESPONDER_DB_PATH) + " has not the tables of arspctl --init-db");
}

void Database::finish()
{
    execute("END");
}

void Database::execute(const char *sql)
{
    require(sqlite3_exec(handle_.get(), sql, nullptr, nullptr, nullptr));
}

void Database::require(int rc) const
{
    if (rc != SQLITE_OK)
        fail(rc);
}

void Database::fail(int rc) const
{
    const int primary = rc & 0xff;
    std::string text = std::string("cannot read ") + RESPONDER_DB_PATH + ": ";
    if (primary == SQLITE_INTERRUPT)
        text += "it takes too long";
    else if (primary == SQLITE_READONLY)
        text += "an interrupted command left a journal that must be rolled back first";
    else
        text += sqlite3_errcode(handle_.get()) == SQLITE_OK ? sqlite3_errstr(rc) : sqlite3_errmsg(handle_.get());
    const char *code = finding_of(rc);
    if (code == nullptr)
        throw Failure(text);
    throw DatabaseFailure(code, text);
}

Query::Query(Database &db, const std::string &sql) : db_(db)
{
    sqlite3_stmt *stmt = nullptr;
    const int rc = sqlite3_prepare_v2(db.handle_.get(), sql.c_str(), -1, &stmt, nullptr);
    stmt_.reset(stmt);
    db.require(rc);
}

Query &Query::bind(std::string_view text)
{
    db_.require(
        sqlite3_bind_text(stmt_.get(), ++parameters_, text.data(), static_cast<int>(text.size()), SQLITE_STATIC));
    return *this;
}

bool Query::next()
{
    const int rc = sqlite3_step(stmt_.get());
    if (rc == SQLITE_DONE)
        return false;
    if (rc != SQLITE_ROW)
        db_.fail(rc);
    if (++rows_ * SMALLEST_ROW > db_.size() + OWN_ROWS)
        throw_overlap();
    return true;
}

std::string_view Query::text(int column)
{
    const auto *bytes = reinterpret_cast<const char *>(sqlite3_column_text(stmt_.get(), column));
    if (bytes == nullptr)
        return {};
    const auto length = static_cast<std::size_t>(sqlite3_column_bytes(stmt_.get(), column));
    bytes_ += length;
    if (bytes_ > READS_OF_A_VALUE * db_.size() + OWN_ROWS)
        throw_overlap();
    return {bytes, length};
}

std::int64_t Query::number(int column) const
{
    return sqlite3_column_int64(stmt_.get(), column);
}

int Query::type(int column) const
{
    return sqlite3_column_type(stmt_.get(), column);
}

} // namespace arsp
