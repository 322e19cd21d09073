#ifndef ARSP_INFO_CHECK_H
#define ARSP_INFO_CHECK_H

#include "info/rights.h"

namespace arsp {

/* Checks the database, its place, the attachment files and their directories, and prints a line for each finding, worst
 * first, and a summary. Returns 0 if there are none but notes, otherwise 1. Throws Failure when it cannot check. */
int check_everything(const MailUser &mail_user, bool json);

} // namespace arsp

#endif
