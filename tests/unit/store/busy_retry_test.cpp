#include "store/busy_retry.h"

#include <string>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "tests/unit/store/database_fixture.h"

using namespace arsp;

namespace {

class BusyRetryTest : public StoreTest {
protected:
    /* Retries a call that is busy `times` times and then returns `last`. Returns the last result, or -2 after an
     * interrupted pause. */
    int busy(int times, int last = SQLITE_OK)
    {
        BusyRetry retry;
        int rc = SQLITE_OK;
        calls_ = 0;
        do {
            order_ += 'c';
            rc = calls_++ < times ? SQLITE_BUSY : last;
        } while (retry.again(rc));
        return retry.interrupted() ? -2 : rc;
    }

    std::string order_; /* of calls ("c") and, where a test notes them, pauses ("p") */
    int calls_ = 0;
};

TEST_F(BusyRetryTest, PausesGrowByTenMicrosecondsFromZeroInEachLoopAndOneFollowsTheLastAttempt)
{
    pause_capture.on_pause = [this] {
        order_ += 'p';
        return 0;
    };
    EXPECT_EQ(busy(4, SQLITE_DONE), SQLITE_DONE);
    EXPECT_EQ(order_, "ccpcpcpcp");
    EXPECT_EQ(busy(1), SQLITE_OK);
    EXPECT_EQ(order_, "ccpcpcpcpccp");
    EXPECT_EQ(pause_capture.pauses, (Pauses{10'000, 20'000, 30'000, 40'000, 10'000}));
}

TEST_F(BusyRetryTest, OnlyBusyIsRetried)
{
    for (const int rc :
         {SQLITE_OK, SQLITE_LOCKED, SQLITE_ERROR, SQLITE_ROW, SQLITE_DONE, SQLITE_IOERR, SQLITE_FULL, -1}) {
        EXPECT_EQ(busy(0, rc), rc);
        EXPECT_EQ(calls_, 1) << rc;
    }
    EXPECT_EQ(pause_capture.pauses, Pauses{});
}

TEST_F(BusyRetryTest, AttemptsHaveNoLimitAndPausesNoCap)
{
    EXPECT_EQ(busy(250'000), SQLITE_OK);
    EXPECT_EQ(calls_, 250'001);
    ASSERT_EQ(pause_capture.pauses.size(), 250'000U);
    for (size_t i = 0; i < pause_capture.pauses.size(); ++i) /* past 1 and 2 seconds, where the nanoseconds carry */
        ASSERT_EQ(pause_capture.pauses[i], 10'000LL * static_cast<long long>(i + 1));
}

TEST_F(BusyRetryTest, InterruptedPauseEndsTheLoopAndReplacesTheResult)
{
    pause_capture.on_pause = interrupted;
    EXPECT_EQ(busy(100), -2);
    EXPECT_EQ(calls_, 2);
    EXPECT_EQ(busy(1, SQLITE_DONE), -2);
}

} // namespace
