#ifndef ARSP_INFO_PRINTABLE_H
#define ARSP_INFO_PRINTABLE_H

#include <string>
#include <string_view>
#include <vector>

namespace arsp {

/* Texts of customers, made safe for their destination. All keep every byte recoverable. May throw std::bad_alloc. */

/* For a terminal: control characters, characters that hide or reorder text, bytes that are not UTF-8, and in a locale
 * other than UTF-8 all bytes above 127 become "\xNN". A backslash before an "x" becomes "\x5c". */
std::string printable(std::string_view text);

/* For JSON: UTF-8. A byte NN that is NUL, or above 7F and not part of a valid character, becomes the private character
 * U+EFNN. So do the bytes of these private characters themselves: the original bytes can always be restored. */
std::string json_text(std::string_view text);

/* JSON whose texts went through json_text, with "\uNNNN" for every character that is not printable ASCII: a terminal
 * does not act on any of them. */
std::string ascii_json(std::string_view json);

/* Appends the two hexadecimal digits of the byte. */
void append_hex(std::string &out, char byte);

/* Whether the text is valid UTF-8. */
bool is_utf8(std::string_view text);

/* For a line of sh: the words as one command that `printable` leaves as it is. Words with bytes that it would escape
 * are passed through printf and xargs. */
std::string shell_command(const std::vector<std::string> &words);

/* For a file of sh: one word between single quotes, byte for byte. It must not hold a NUL byte. */
std::string shell_quoted(std::string_view word);

/* Whether the text holds a byte below 32 or the byte 127. */
bool has_control_bytes(std::string_view text);

} // namespace arsp

#endif
