#include "store/busy_retry.h"

#include <sqlite3.h>

namespace arsp {

namespace {

constexpr long STEP = 10'000;              /* ns */
constexpr long ONE_SECOND = 1'000'000'000; /* ns */

} // namespace

bool BusyRetry::again(int rc)
{
    if ((pause_.tv_sec > 0 || pause_.tv_nsec > 0) && nanosleep(&pause_, nullptr) != 0) {
        interrupted_ = true;
        return false;
    }
    pause_.tv_nsec += STEP;
    if (pause_.tv_nsec >= ONE_SECOND) { /* nanosleep rejects a full second of nanoseconds */
        pause_.tv_nsec -= ONE_SECOND;
        pause_.tv_sec += 1;
    }
    return rc == SQLITE_BUSY;
}

} // namespace arsp
