#ifndef ARSP_INFO_REPAIR_H
#define ARSP_INFO_REPAIR_H

#include <string>
#include <string_view>
#include <vector>

#include "info/rights.h"

namespace arsp {

/* Makes the command lines that repair findings, for root's shell.
 *
 * The mail user may exchange any directory on a path in the mail tree between the check and the repair. So commands on
 * what the mail user owns run with the rights of that user, where they harm nothing else; root's rights are taken only
 * for names in directories of root. */
class Repair {
public:
    explicit Repair(const MailUser &mail_user) : mail_user_(mail_user) {}

    /* Runs the command `words` with the rights of the mail user. */
    std::string asMailUser(const std::vector<std::string> &words) const;

    /* Runs the SQL statements on the database with the rights of the mail user. */
    std::string sql(const std::string &statements) const;

    /* Runs both, the second only after success of the first. */
    static std::string both(const std::string &first, const std::string &second);

    /* Renames what lies at `path`, which the mail user may rename. */
    std::string setAside(const std::string &path) const;

    /* Renames what lies at `path`, the database or its directory, and makes a new database. */
    static std::string newDatabase(const std::string &path);

    /* Puts what the link of root's leads to into its place: the directory of the database, or the database. */
    static std::string replaceDirectoryLink();
    std::string replaceDatabaseLink() const;

    /* Sets owner or mode as --init-db does. */
    std::string directoryOwner() const;
    static std::string directoryMode();
    std::string databaseOwner() const;
    std::string databaseMode() const;

    /* Rolls the transaction of an interrupted command back, wherever a link leads to its journal. */
    std::string rollBack() const;

    /* Does so after giving the journal at the database's name to the mail user. */
    std::string journal() const;

private:
    MailUser mail_user_;
};

/* SQL that is true for the rows whose column holds these bytes. Short for long values, which a command line cannot
 * hold: they are compared by their length and their beginning. */
std::string sql_equals(const std::string &column, std::string_view bytes);

/* SQL for the column without what makes a header line end: each control byte becomes a blank, and the text ends before
 * its first NUL byte. `bytes` is the value of the column. */
std::string sql_without_control_bytes(const std::string &column, std::string_view bytes);

/* "UID:GID", as chown takes it. */
std::string owner_text(uid_t uid, gid_t gid);

/* The directory of the database. */
std::string database_directory();

} // namespace arsp

#endif
