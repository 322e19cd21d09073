#include "store/busy_retry.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/unit/store/pause_capture.h"

namespace {

using Pauses = std::vector<long long>;

class BusyRetryTest : public testing::Test {
protected:
    void SetUp() override { pause_capture = {}; }
    void TearDown() override { pause_capture = {}; }

    /* Retries a call that is busy `times` times and then answers `last`. */
    int busy(int times, int last = SQLITE_OK)
    {
        return retry_while_busy([this, times, last] { return calls_++ < times ? SQLITE_BUSY : last; });
    }

    int calls_ = 0;
};

TEST_F(BusyRetryTest, AnswerThatIsNotBusyIsReturnedAtOnce)
{
    EXPECT_EQ(busy(0), SQLITE_OK);
    EXPECT_EQ(calls_, 1);
    EXPECT_EQ(pause_capture.pauses, Pauses{});
}

TEST_F(BusyRetryTest, PausesGrowByTenMicrosecondsAndOneFollowsTheLastTry)
{
    EXPECT_EQ(busy(4, SQLITE_DONE), SQLITE_DONE);
    EXPECT_EQ(calls_, 5);
    EXPECT_EQ(pause_capture.pauses, (Pauses{10'000, 20'000, 30'000, 40'000}));
}

TEST_F(BusyRetryTest, FirstRetryFollowsAtOnceAndEachPauseComesAfterItsTry)
{
    std::string order;
    pause_capture.on_pause = [&order] {
        order += 'p';
        return 0;
    };
    retry_while_busy([&order] {
        order += 'c';
        return order.size() < 6 ? SQLITE_BUSY : SQLITE_OK;
    });
    EXPECT_EQ(order, "ccpcpcp");
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
    for (const int answer : {SQLITE_LOCKED, SQLITE_ERROR, SQLITE_ROW, SQLITE_DONE, SQLITE_IOERR, SQLITE_FULL, -1}) {
        calls_ = 0;
        EXPECT_EQ(busy(0, answer), answer);
        EXPECT_EQ(calls_, 1) << answer;
    }
    EXPECT_EQ(pause_capture.pauses, Pauses{});
}

TEST_F(BusyRetryTest, TriesHaveNoLimitAndPausesNoCap)
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

TEST_F(BusyRetryTest, FailedPauseAfterTheLastTryWinsOverItsAnswer)
{
    pause_capture.on_pause = interrupted;
    EXPECT_EQ(busy(1, SQLITE_DONE), -2);
}

TEST_F(BusyRetryTest, BeforeRetryIsAskedOnceBetweenTwoTriesAfterThePause)
{
    std::string order;
    pause_capture.on_pause = [&order] {
        order += 'p';
        return 0;
    };
    const int result = retry_while_busy(
        [&order] {
            order += 'c';
            return order.size() < 6 ? SQLITE_BUSY : SQLITE_OK;
        },
        [&order] {
            order += '?';
            return 0;
        });
    EXPECT_EQ(result, SQLITE_OK);
    EXPECT_EQ(order, "c?cp?cp");
}

TEST_F(BusyRetryTest, RefusalBeforeARetryIsTheResult)
{
    for (const int refusal : {-1, -2, 7}) {
        calls_ = 0;
        EXPECT_EQ(retry_while_busy([this] { return calls_++, SQLITE_BUSY; }, [refusal] { return refusal; }), refusal);
        EXPECT_EQ(calls_, 1);
    }
}

TEST(LengthenTest, AddsTenMicroseconds)
{
    timespec pause = {3, 980'000};
    lengthen(pause);
    EXPECT_EQ(pause.tv_sec, 3);
    EXPECT_EQ(pause.tv_nsec, 990'000);
}

TEST(LengthenTest, FullSecondIsCarried)
{
    timespec pause = {1, 999'990'000};
    lengthen(pause);
    EXPECT_EQ(pause.tv_sec, 2);
    EXPECT_EQ(pause.tv_nsec, 0);
}

} // namespace
