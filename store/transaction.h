#ifndef ARSP_STORE_TRANSACTION_H
#define ARSP_STORE_TRANSACTION_H

#include "store/responder_db.h"

namespace arsp {

/* How the work inside a transaction wants it to end. */
enum class Ending {
    commit,    /* END, be it with a failure as the result */
    give_up,   /* close the connection, which discards the transaction */
    leave_open /* neither: the connection's owner decides */
};

struct Outcome {
    Ending ending;
    int result; /* of the whole, 0 for success */
};

constexpr Outcome COMMITTED = {Ending::commit, 0};
constexpr Outcome GIVEN_UP = {Ending::give_up, -1};

/* Calls `work` with `borrowed`, which stays open, or, when that is null, with a connection of its own that is opened
 * before and closed after it; what such work has committed is flushed. Returns the result of `work`; or -1 when opening
 * or flushing failed (logged; the rows are written then), or when a pause in closing was interrupted. */
template <typename Work>
int with_connection(ResponderDb *borrowed, Work work)
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

/* Runs `work`, which returns an Outcome, between BEGIN and END. Returns the outcome's result, or -1 when BEGIN or END
 * failed (logged). A transaction that is not ended closes the connection, unless its outcome says to leave it open. */
template <typename Work>
int in_transaction(ResponderDb &db, Work work)
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

/* The frame of a command: `work`, which takes the connection and returns an Outcome, in a transaction on a connection
 * of its own. Returns what with_connection and in_transaction return. */
template <typename Work>
int in_own_transaction(Work work)
{
    return with_connection(nullptr, [&](ResponderDb &db) { return in_transaction(db, [&] { return work(db); }); });
}

} // namespace arsp

#endif
