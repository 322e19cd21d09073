#ifndef ARSP_SUPPORT_DIR_STREAM_H
#define ARSP_SUPPORT_DIR_STREAM_H

#include "support/c_handles.h"

namespace arsp {

/* Opens a stream of the entries of `directory`, which it takes over. Returns null with `errno` set on failure. */
DirPtr open_dir_stream(Descriptor directory);

/* Returns the name of the next entry other than "." and "..", which is valid until the next call; or null, with `errno`
 * 0 at the end of the directory. */
const char *next_entry(DIR *stream);

} // namespace arsp

#endif
