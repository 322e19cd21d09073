#ifndef ARSP_STORE_TRANSACTION_H
#define ARSP_STORE_TRANSACTION_H

#include "store/responder_db.h"

namespace arsp {

/* How a transaction ends; its work decides. */
enum class Ending {
    commit,    /* END, also when the result is a failure */
    give_up,   /* close the connection, which discards the transaction */
    leave_open /* neither: the owner of the connection decides */
};

/* What the work of a transaction returns. */
struct [[nodiscard]] Outcome {
    Ending ending;
    int result; /* 0 for success */
};

constexpr Outcome COMMITTED = {Ending::commit, 0};
constexpr Outcome GIVEN_UP = {Ending::give_up, -1};

/* Calls `work` with `borrowed`, which stays open; or, if `borrowed` is null, opens a connection, calls `work` with it,
 * flushes its commits after a success, and closes it. Returns the result of `work`; or -1 when opening or flushing
 * failed, which is logged (a failure to flush leaves the rows written), or when a pause in closing was interrupted. */
template <typename Work>
[[nodiscard]] int with_connection(ResponderDb *borrowed, Work work)
{
    if (borrowed != nullptr)
        return work(*borrowed);
    ResponderDb own;
    if (own.open() != 0)
        return -1;
    int result = work(own);
    if (result == 0)
        result = own.flushDirectory();
    return own.close() == 0 ? result : -1;
}

/* Runs `work`, which returns an Outcome, between BEGIN and END. Returns the outcome's result; or -1 when BEGIN or END
 * failed, which is logged and closes the connection. */
template <typename Work>
[[nodiscard]] int in_transaction(ResponderDb &db, Work work)
{
    Outcome outcome = GIVEN_UP;
    if (db.begin() == 0)
        outcome = work();
    if (outcome.ending == Ending::commit && db.end() != 0)
        outcome = GIVEN_UP;
    if (outcome.ending == Ending::give_up)
        db.close();
    return outcome.result;
}

/* The frame of a command: runs `work`, which takes the connection and returns an Outcome, in a transaction on a new
 * connection. Returns what with_connection and in_transaction return. */
template <typename Work>
[[nodiscard]] int in_own_transaction(Work work)
{
    return with_connection(nullptr, [&](ResponderDb &db) { return in_transaction(db, [&] { return work(db); }); });
}

} // namespace arsp

#endif
