#include "store/busy_retry.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sqlite3.h>

#include "tests/unit/store/pause_capture.h"

using namespace arsp;

namespace {

using Pauses = std::vector<long long>;

class BusyRetryTest : public testing::Test {
protected:
    void SetUp() override { pause_capture = {}; }
    void TearDown() override { pause_capture = {}; }

    /* Retries a call that is busy `times` times and then returns `last`. Returns the last result, or -2 after an
     * interrupted pause. */
    int busy(int times, int last = SQLITE_OK)
    {
        BusyRetry retry;
        int rc = SQLITE_OK;
        do {
            order_ += 'c';
            rc = calls_++ < times ? SQLITE_BUSY : last;
        } while (retry.again(rc));
        return retry.interrupted() ? -2 : rc;
    }

    std::string order_; /* of calls ("c") and, where a test notes them, pauses ("p") */
    int calls_ = 0;
};

TEST_F(BusyRetryTest, ResultOtherThanBusyEndsTheLoopWithoutAPause)
{
    EXPECT_EQ(busy(0), SQLITE_OK);
    EXPECT_EQ(calls_, 1);
    EXPECT_EQ(pause_capture.pauses, Pauses{});
}

TEST_F(BusyRetryTest, PausesGrowByTenMicrosecondsAndOneFollowsTheLastAttempt)
{
    EXPECT_EQ(busy(4, SQLITE_DONE), SQLITE_DONE);
    EXPECT_EQ(calls_, 5);
    EXPECT_EQ(pause_capture.pauses, (Pauses{10'000, 20'000, 30'000, 40'000}));
}

TEST_F(BusyRetryTest, FirstRetryFollowsAtOnceAndEachPauseComesAfterItsTry)
{
    pause_capture.on_pause = [this] {
        order_ += 'p';
        return 0;
    };
    busy(3);
    EXPECT_EQ(order_, "ccpcpcp");
}

TEST_F(BusyRetryTest, EveryLoopStartsAtZero)
{
    busy(2);
    calls_ = 0;
    busy(1);
    EXPECT_EQ(pause_capture.pauses, (Pauses{10'000, 20'000, 10'000}));
}

TEST_F(BusyRetryTest, OnlyBusyIsRetried)
{
    for (const int rc : {SQLITE_LOCKED, SQLITE_ERROR, SQLITE_ROW, SQLITE_DONE, SQLITE_IOERR, SQLITE_FULL, -1}) {
        calls_ = 0;
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

TEST_F(BusyRetryTest, FailedPauseEndsTheLoop)
{
    pause_capture.on_pause = interrupted;
    EXPECT_EQ(busy(100), -2);
    EXPECT_EQ(calls_, 2);
}

TEST_F(BusyRetryTest, FailedPauseAfterTheLastAttemptReplacesItsResult)
{
    pause_capture.on_pause = interrupted;
    EXPECT_EQ(busy(1, SQLITE_DONE), -2);
}

} // namespace
