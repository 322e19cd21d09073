#ifndef ARSP_SUPPORT_STANDARD_INPUT_H
#define ARSP_SUPPORT_STANDARD_INPUT_H

#include <cstddef>
#include <string_view>

#include "support/c_handles.h"

namespace arsp {

/* The bytes of standard input, owned: one malloc'ed block, because realloc moves hundreds of megabytes by remapping
 * pages where a std::string would copy them. Not NUL-terminated. */
struct InputText {
    CString bytes;
    std::size_t length = 0; /* bytes */

    std::string_view view() const { return {bytes.get(), length}; }
};

/* Reads standard input to its end into `input`, byte for byte; end of file at once gives an empty text.
 * Returns 0; or -1 when reading fails, with `errno` set and "Unable to read standard input: %s" logged at LOG_ERR: the
 * part read so far is then no input at all. Waits for a descriptor that its owner made non-blocking. Throws
 * std::bad_alloc when the input does not fit into memory. */
int read_standard_input(InputText &input);

} // namespace arsp

#endif
