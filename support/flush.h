#ifndef ARSP_SUPPORT_FLUSH_H
#define ARSP_SUPPORT_FLUSH_H

namespace arsp {

/* Waits until all data written to the open file or directory `fd` is on the disk. Skips a file that has no disk, such
 * as a pipe. Returns 0; or -1 with errno set. Logs nothing. */
[[nodiscard]] int flush(int fd);

/* Opens the directory `path` and flushes its entries. Returns 0; or -1 after log_flush_failure. */
[[nodiscard]] int flush_directory(const char *path);

/* Logs "Unable to flush %s: %s" at LOG_ERR, with the text of errno. */
void log_flush_failure(const char *path);

} // namespace arsp

#endif
