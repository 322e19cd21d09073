#ifndef ARSP_INFO_CHECK_ROWS_H
#define ARSP_INFO_CHECK_ROWS_H

#include <map>
#include <string>
#include <vector>

#include "info/database.h"
#include "info/findings.h"
#include "info/rights.h"

namespace arsp {

/* A row of attachments. */
struct AttachmentRow {
    std::string mn, name;
};

/* The addresses whose attachment directories concern the database: mail names and owners, each with the attachments
 * that lie in its directory. */
using AttachmentRows = std::map<std::string, std::vector<AttachmentRow>>;

/* Checks the structure of the file and every row. Throws DatabaseFailure where the rows cannot be read. */
AttachmentRows check_rows(const MailUser &mail_user, Database &db, Findings &findings);

} // namespace arsp

#endif
