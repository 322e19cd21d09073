#ifndef ARSP_STORE_BUSY_RETRY_H
#define ARSP_STORE_BUSY_RETRY_H

#include <ctime>

#include <sqlite3.h>

/* The answer of a loop whose pause failed (a signal, say). The command then ends at once with failure, and silently:
 * nobody logs, finalizes or closes anything, the end of the process lets the locks go. No SQLite code is negative, and
 * -1 means "failed, and said so". */
constexpr int RETRY_INTERRUPTED = -2;

/* Adds 10 microseconds; carries, since nanosleep refuses a full second of nanoseconds. */
inline void lengthen(timespec &pause)
{
    constexpr long STEP = 10'000;            /* ns */
    constexpr long A_SECOND = 1'000'000'000; /* ns */
    pause.tv_nsec += STEP;
    if (pause.tv_nsec >= A_SECOND) {
        pause.tv_nsec -= A_SECOND;
        pause.tv_sec += 1;
    }
}

/* Calls `call` until its answer is not SQLITE_BUSY, pausing 0, 10, 20 ... microseconds between tries, without a limit.
 * The pause comes before the answer is looked at: a call that was retried pauses once more after its last try.
 * Before each further try `before_retry` is asked; anything but 0 from it ends the loop and is the result.
 * Returns the last answer of `call`, what `before_retry` said, or RETRY_INTERRUPTED. Logs nothing. */
template <typename Call, typename BeforeRetry>
int retry_while_busy(Call call, BeforeRetry before_retry)
{
    for (timespec pause = {0, 0};;) {
        const int answer = call();
        if ((pause.tv_sec > 0 || pause.tv_nsec > 0) && nanosleep(&pause, nullptr) != 0)
            return RETRY_INTERRUPTED;
        lengthen(pause);
        if (answer != SQLITE_BUSY)
            return answer;
        if (const int refusal = before_retry(); refusal != 0)
            return refusal;
    }
}

template <typename Call>
int retry_while_busy(Call call)
{
    return retry_while_busy(call, [] { return 0; });
}

#endif
