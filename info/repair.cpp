#include "info/repair.h"

#include <cstdlib>

#include "info/printable.h"
#include "store/schema.h"
#include "support/c_handles.h"

namespace arsp {

namespace {

/* A literal of SQL. No byte of it needs a quote in a shell. */
std::string blob_literal(std::string_view bytes)
{
    std::string out = "x'";
    for (const char byte : bytes)
        append_hex(out, byte);
    return out + "'";
}

std::vector<std::string> renaming(const std::string &path)
{
    return {"mv", "-T", "--backup=numbered", path, path + ".set-aside"};
}

std::string as_blob(const std::string &column)
{
    return "CAST(" + column + " AS BLOB)";
}

} // namespace

std::string Repair::asMailUser(const std::vector<std::string> &words) const
{
    std::vector<std::string> command = {"setpriv", std::string("--reuid=") + MAIL_USER,
                                        "--regid=" + std::to_string(mail_user_.gid), "--clear-groups"};
    command.insert(command.end(), words.begin(), words.end());
    return shell_command(command);
}

std::string Repair::sql(const std::string &statements) const
{
    return asMailUser({"sqlite3", "-cmd", ".timeout 5000", RESPONDER_DB_PATH, statements});
}

std::string Repair::both(const std::string &first, const std::string &second)
{
    return first + " && " + second;
}

std::string Repair::setAside(const std::string &path) const
{
    return asMailUser(renaming(path));
}

std::string Repair::newDatabase(const std::string &path)
{
    return both(shell_command(renaming(path)), shell_command({"arspctl", "--init-db"}));
}

std::string Repair::replaceDirectoryLink()
{
    const std::string path = database_directory();
    const CString target(realpath(path.c_str(), nullptr));
    return target ? both(shell_command({"rm", path}), shell_command({"mv", "-T", target.get(), path}))
                  : newDatabase(path);
}

std::string Repair::replaceDatabaseLink() const
{
    const CString target(realpath(RESPONDER_DB_PATH, nullptr));
    if (!target)
        return newDatabase(RESPONDER_DB_PATH);
    return both(rollBack(), /* a journal stays behind: without it half a transaction would remain */
                asMailUser({"mv", "-T", target.get(), RESPONDER_DB_PATH}));
}

std::string Repair::directoryOwner() const
{
    return shell_command({"chown", "-h", owner_text(mail_user_.uid, 0), database_directory()});
}

std::string Repair::directoryMode()
{
    return shell_command({"chmod", "0755", database_directory()});
}

std::string Repair::databaseOwner() const
{
    return shell_command({"chown", "-h", owner_text(mail_user_.uid, mail_user_.gid), RESPONDER_DB_PATH});
}

std::string Repair::databaseMode() const
{
    return asMailUser({"chmod", "0600", RESPONDER_DB_PATH});
}

std::string Repair::rollBack() const
{
    return sql("BEGIN IMMEDIATE;PRAGMA user_version=0;COMMIT");
}

std::string Repair::journal() const
{
    const std::string path = std::string(RESPONDER_DB_PATH) + "-journal";
    return both(shell_command({"chown", "-h", owner_text(mail_user_.uid, mail_user_.gid), path}), rollBack());
}

std::string sql_equals(const std::string &column, std::string_view bytes)
{
    constexpr std::size_t COMPARED = 512; /* bytes */
    if (bytes.size() <= COMPARED)
        return as_blob(column) + "=" + blob_literal(bytes);
    return "length(" + as_blob(column) + ")=" + std::to_string(bytes.size()) + " AND substr(" + as_blob(column) +
           ",1," + std::to_string(COMPARED) + ")=" + blob_literal(bytes.substr(0, COMPARED));
}

std::string sql_without_control_bytes(const std::string &column, std::string_view bytes)
{
    std::string sql = column;
    const std::size_t nul = bytes.find('\0');
    if (nul != std::string_view::npos)
        sql = "CAST(substr(" + as_blob(column) + ",1," + std::to_string(nul) + ") AS TEXT)";
    bytes = bytes.substr(0, nul);
    for (const char control : std::string("\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0a\x0b\x0c\x0d\x0e\x0f\x10\x11\x12"
                                          "\x13\x14\x15\x16\x17\x18\x19\x1a\x1b\x1c\x1d\x1e\x1f\x7f")) {
        if (bytes.find(control) != std::string_view::npos) {
            sql.insert(0, "replace(")
                .append(",char(")
                .append(std::to_string(static_cast<int>(control)))
                .append("),' ')");
        }
    }
    return sql;
}

std::string owner_text(uid_t uid, gid_t gid)
{
    return std::to_string(uid) + ":" + std::to_string(gid);
}

std::string database_directory()
{
    const std::string path = RESPONDER_DB_PATH;
    return path.substr(0, path.rfind('/'));
}

} // namespace arsp
