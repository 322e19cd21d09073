#include "store/busy_retry.h"

#include <ctime>

#include <sqlite3.h>

namespace arsp {

namespace {

constexpr long STEP = 10'000;              /* ns */
constexpr long ONE_SECOND = 1'000'000'000; /* ns */

} // namespace

bool BusyRetry::again(int rc)
{
    const timespec pause = {pause_ / ONE_SECOND, pause_ % ONE_SECOND};
    if (pause_ > 0 && nanosleep(&pause, nullptr) != 0) {
        interrupted_ = true;
        return false;
    }
    pause_ += STEP;
    return rc == SQLITE_BUSY;
}

} // namespace arsp
