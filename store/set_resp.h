#ifndef ARSP_STORE_SET_RESP_H
#define ARSP_STORE_SET_RESP_H

#include "store/autoresponder_row.h"

namespace arsp {

/* The command --set-resp: reads the body from standard input, ignores `row.body`, and replaces the row of `row.mn` in a
 * transaction of its own. Returns 0; or -1 after logging at LOG_ERR (in silence after an interrupted pause), with the
 * former row unchanged. Throws std::bad_alloc. */
[[nodiscard]] int set_resp(AutoresponderRow row);

} // namespace arsp

#endif
