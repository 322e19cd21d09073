#ifndef ARSP_INFO_OUTPUT_H
#define ARSP_INFO_OUTPUT_H

#include <string_view>

namespace arsp {

/* Buffers the text for standard output. */
void print(std::string_view text);

/* Writes what is buffered. Throws Failure "cannot write the output: ..." if any of the output was lost, so that status
 * 0 means that it is complete. */
void finish_output();

/* Writes one line "arspinfo: TEXT" to standard error, with the text escaped for a terminal. */
void complain(std::string_view text);

} // namespace arsp

#endif
