#include "store/set_resp.h"

#include "store/transaction.h"
#include "support/standard_input.h"

using namespace arsp;

int arsp::set_resp(AutoresponderRow row)
{
    InputText body;
    /* Read before the database is opened: a slow writer of the body must not hold a lock. */
    if (read_standard_input(body) != 0)
        return -1;
    row.body = body.view();
    return in_own_transaction([&](ResponderDb &db) { return replace_autoresponder_row(db, row, Ending::give_up); });
}
