#ifndef ARSP_TESTS_UNIT_STORE_CHILD_WITHOUT_PAUSES_H
#define ARSP_TESTS_UNIT_STORE_CHILD_WITHOUT_PAUSES_H

#include <cstdio>
#include <string>

#include <unistd.h>

#include "store/responder_db.h"
#include "tests/unit/store/pause_capture.h"
#include "tests/unit/support/child_process.h"
#include "tests/unit/support/syslog_capture.h"

/* An abandoned connection leaks, so such a test needs a process of its own, whose exit no leak check examines. Returns
 * the result of `call` in a child whose pauses all fail, and the state of the connection `db` afterwards. */
template <typename Call>
std::string in_child_with_failing_pauses(const ResponderDb &db, Call call)
{
    return run_in_child([&] {
               pause_capture.on_pause = interrupted;
               const int result = static_cast<int>(call());
               std::printf("%d, %s, %zu records", result, db.errorText(), syslog_capture.records.size());
               std::fflush(nullptr);
               _exit(0);
           })
        .out;
}

#endif
