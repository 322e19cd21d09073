#ifndef ARSP_SUPPORT_STANDARD_INPUT_H
#define ARSP_SUPPORT_STANDARD_INPUT_H

#include <cstddef>
#include <string_view>

#include "support/c_handles.h"

namespace arsp {

/* The bytes of standard input, not NUL-terminated. In one block from malloc: for hundreds of megabytes, realloc remaps
 * pages where a std::string would copy them. */
struct InputText {
    CString bytes;
    std::size_t length = 0; /* bytes */

    std::string_view view() const { return {bytes.get(), length}; }
};

/* Reads standard input to its end into `input`. Waits also if the descriptor is non-blocking.
 * Returns 0; or -1 if reading fails, with errno set and "Unable to read standard input: %s" logged at LOG_ERR: the
 * caller must then ignore `input`. Throws std::bad_alloc if the input does not fit into memory. */
[[nodiscard]] int read_standard_input(InputText &input);

} // namespace arsp

#endif
