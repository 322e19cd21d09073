#ifndef ARSP_STORE_ATTACHMENT_ROW_H
#define ARSP_STORE_ATTACHMENT_ROW_H

#include <functional>
#include <string_view>

#include "store/run_statement.h"

namespace arsp {

/* Registers the attachment `filename` for the mail name `mn`, inside the caller's transaction. Logs, returns and
 * restarts as run_statement does. */
StepResult replace_attachment_row(ResponderDb &db, std::string_view mn, std::string_view filename,
                                  const std::function<int()> &restart = nullptr);

} // namespace arsp

#endif
