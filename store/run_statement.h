#ifndef ARSP_STORE_RUN_STATEMENT_H
#define ARSP_STORE_RUN_STATEMENT_H

#include <functional>
#include <string_view>
#include <vector>

#include "store/responder_db.h"

namespace arsp {

/* The value of one `?`. A text is not copied and must outlive the statement. */
struct Param {
    Param(const char *param_name, std::string_view param_text) : name(param_name), text(param_text), is_text(true) {}
    Param(const char *param_name, int param_number) : name(param_name), number(param_number) {}

    const char *name; /* for the bind message */
    std::string_view text;
    int number = 0;
    bool is_text = false;
};

/* Outcome of one statement. */
enum class [[nodiscard]] StepResult{
    done,       /* SQLITE_DONE */
    refused,    /* any other result of the step; the caller logs it in its own words, or ignores it */
    failed,     /* prepare, bind or the restart failed and was logged */
    interrupted /* a busy pause was interrupted: log, finalize and close nothing */
};

/* Whether the statement was not executed: the caller gives the transaction up. */
[[nodiscard]] constexpr bool gave_up(StepResult result)
{
    return result == StepResult::failed || result == StepResult::interrupted;
}

/* Binds `params` to the parameters 1, 2, ... and stops at the first that SQLite refuses. A text longer than INT_MAX is
 * bound with that length, which SQLite refuses as "string or blob too big". Returns 0; or -1 after logging "Unable to
 * bind parameter %s: %s" at LOG_ERR. Leaves finalizing to the caller. */
[[nodiscard]] int bind_params(ResponderDb &db, ResponderStatement &stmt, const std::vector<Param> &params);

/* Prepares `sql`, binds `params` in order, steps until the database is not busy, and finalizes. Logs failures of
 * prepare and bind at LOG_ERR.
 *
 * When the database is busy and the transaction has only read, `restart`, unless null, is called before the next
 * attempt, with the statement finalized; the statement is then prepared and bound again. `restart` returns 0; or -1
 * after logging. */
StepResult run_statement(ResponderDb &db, const char *sql, const std::vector<Param> &params,
                         const std::function<int()> &restart = nullptr);

} // namespace arsp

#endif
