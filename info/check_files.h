#ifndef ARSP_INFO_CHECK_FILES_H
#define ARSP_INFO_CHECK_FILES_H

#include "info/check_rows.h"
#include "info/findings.h"
#include "info/rights.h"

namespace arsp {

/* Checks the files of the rows, and the attachment directories of all mailboxes in the mail tree. Runs with the rights
 * of the mail user. Opens directories only, and follows the links that arspctl follows.
 *
 * Links elsewhere in a mailbox are not reported: mail programs make them, and arspctl never passes through them. */
void check_files(const MailUser &mail_user, const AttachmentRows &rows, Findings &findings);

} // namespace arsp

#endif
