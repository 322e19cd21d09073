#ifndef ARSP_STORE_BUSY_RETRY_H
#define ARSP_STORE_BUSY_RETRY_H

namespace arsp {

/* Paces the attempts of a call that may return SQLITE_BUSY: pauses of 0, 10, 20 ... microseconds, without a limit. */
class BusyRetry {
public:
    /* Pauses (except after the first attempt) and returns whether `rc` asks for another attempt. A retried call thus
     * pauses once more after its last attempt. Returns false if the pause was interrupted; see interrupted(). */
    [[nodiscard]] bool again(int rc);

    /* True after an interrupted pause. The command then fails in silence: it logs, finalizes and closes nothing, and
     * the end of the process releases the locks. */
    [[nodiscard]] bool interrupted() const { return interrupted_; }

private:
    long pause_ = 0; /* ns */
    bool interrupted_ = false;
};

} // namespace arsp

#endif
