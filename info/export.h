#ifndef ARSP_INFO_EXPORT_H
#define ARSP_INFO_EXPORT_H

#include <string>
#include <vector>

namespace arsp {

/* Options of arspinfo export. */
struct ExportOptions {
    std::string directory;
    std::vector<std::string> addresses; /* empty: all */
    std::string domain;                 /* empty: all */
};

/* Writes bodies, attachments and headers to a new directory, and last a script that puts them back with arspctl.
 * Attachments are read with the rights that the process has, and written with root's if become_mail_user kept them.
 * Returns 0; or 1 if the script cannot restore everything, having listed what on standard error and in NOT-RESTORED.
 * Throws Failure; what was written until then has no restore.sh. */
int export_everything(const ExportOptions &options);

} // namespace arsp

#endif
