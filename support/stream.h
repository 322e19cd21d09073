#ifndef ARSP_SUPPORT_STREAM_H
#define ARSP_SUPPORT_STREAM_H

#include <cstdio>
#include <string_view>

namespace arsp {

/* Writes the parts to the stream's descriptor in one call, after the buffered text: processes that share the descriptor
 * do not mix their lines. A stream without a descriptor is written and flushed.
 * Waits for a reader, within a WriteDeadline. Loses text that cannot be written, or not in time.
 * Allocates nothing; errno stays as it was. */
void write_text(FILE *stream, std::string_view first, std::string_view second = "", std::string_view third = "",
                std::string_view fourth = "");

} // namespace arsp

#endif
