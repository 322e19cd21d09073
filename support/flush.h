#ifndef ARSP_SUPPORT_FLUSH_H
#define ARSP_SUPPORT_FLUSH_H

namespace arsp {

/* Waits until what was written to the open file or directory `fd` is on the disk. A file that cannot be flushed, such
 * as a pipe, counts as flushed. Returns 0; or -1 with `errno` set. Logs nothing. */
[[nodiscard]] int flush(int fd);

/* Opens the directory `path` and flushes its entries. Returns 0; or -1 after logging "Unable to flush %s: %s" at
 * LOG_ERR.
 */
[[nodiscard]] int flush_directory(const char *path);

/* Logs "Unable to flush %s: %s" at LOG_ERR, with the text of `errno`. */
void log_flush_failure(const char *path);

} // namespace arsp

#endif
