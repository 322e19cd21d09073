#include "store/run_statement.h"

#include <algorithm>
#include <climits>

#include <sys/syslog.h>

#include "store/busy_retry.h"
#include "support/log.h"

namespace arsp {

namespace {

int prepare_and_bind(ResponderDb &db, ResponderStatement &stmt, const char *sql, const std::vector<Param> &params)
{
    return stmt.prepare(db, sql) == 0 ? bind_params(db, stmt, params) : -1;
}

} // namespace

int bind_params(ResponderDb &db, ResponderStatement &stmt, const std::vector<Param> &params)
{
    constexpr std::size_t LONGEST = INT_MAX;
    int index = 0;
    for (const Param &param : params) {
        ++index;
        const int length = static_cast<int>(std::min(param.text.size(), LONGEST));
        const int rc =
            param.is_text ? stmt.bindText(index, param.text.data(), length) : stmt.bindInt(index, param.number);
        if (rc != SQLITE_OK) {
            log_message(LOG_ERR, "Unable to bind parameter %s: %s", param.name, db.errorText());
            return -1;
        }
    }
    return 0;
}

StepResult run_statement(ResponderDb &db, const char *sql, const std::vector<Param> &params,
                         const std::function<int()> &restart)
{
    ResponderStatement stmt;
    BusyRetry retry;
    int rc = prepare_and_bind(db, stmt, sql, params);
    if (rc == 0) {
        rc = stmt.stepOnce();
        while (retry.again(rc)) {
            if (restart && db.hasOnlyRead()) {
                stmt.finalize();
                rc = restart() == 0 ? prepare_and_bind(db, stmt, sql, params) : -1;
                if (rc != 0)
                    break;
            }
            rc = stmt.stepOnce();
        }
        if (retry.interrupted())
            stmt.abandon();
    }
    stmt.finalize(); /* before the caller logs: its message shows the error text of this moment */
    if (db.interrupted())
        return StepResult::interrupted;
    switch (rc) {
    case SQLITE_DONE:
        return StepResult::done;
    case -1:
        return StepResult::failed;
    default:
        return StepResult::refused;
    }
}

} // namespace arsp
