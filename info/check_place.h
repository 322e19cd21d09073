#ifndef ARSP_INFO_CHECK_PLACE_H
#define ARSP_INFO_CHECK_PLACE_H

#include "info/failure.h"
#include "info/findings.h"
#include "info/rights.h"

namespace arsp {

/* Checks type, owner and mode of the database and its directory, and whether a journal was left behind. */
void check_place(const MailUser &mail_user, Findings &findings);

/* Adds the finding of a database that cannot be used, unless check_place has made it. */
void add_database_failure(const MailUser &mail_user, const DatabaseFailure &failure, Findings &findings);

} // namespace arsp

#endif
