#ifndef ARSP_STORE_SET_RESP_H
#define ARSP_STORE_SET_RESP_H

#include "store/autoresponder_row.h"

namespace arsp {

/* The command --set-resp: reads the body from standard input, whatever `row.body` holds, and replaces the row of
 * `row.mn` in a transaction of its own; every other table stays as it is. Returns 0; or -1, logged at LOG_ERR (in
 * silence after an interrupted pause), with the former row intact. Throws std::bad_alloc when the body does not fit
 * into memory. */
int set_resp(AutoresponderRow row);

} // namespace arsp

#endif
