#ifndef ARSP_SUPPORT_DIR_STREAM_H
#define ARSP_SUPPORT_DIR_STREAM_H

#include "support/c_handles.h"

namespace arsp {

/* Opens a stream of the entries of `directory`, which the stream then owns. Returns null with errno set on failure. */
[[nodiscard]] DirPtr open_dir_stream(Descriptor directory);

/* Returns the name of the next entry other than "." and "..", valid until the next call; or null, with errno 0 at the
 * end of the directory. */
[[nodiscard]] const char *next_entry(DIR *stream);

} // namespace arsp

#endif
