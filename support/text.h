#ifndef ARSP_SUPPORT_TEXT_H
#define ARSP_SUPPORT_TEXT_H

/* Texts: NUL-terminated byte strings, in the process's locale.
 *
 * Thread-safe for different texts, apart from the loggers. Throws nothing. Pointers must not be null unless a function
 * says otherwise. No command calls str_dup_lower, str_rtrim_space, str_rtrim_char, str_trim_space or str_trim_line. */

/* Returns the formatted text, newly allocated; the caller frees it with free().
 * Without memory it prints "Cannot allocate memory: ..." through fatal_error and ends the process with status 1. */
[[nodiscard]] char *xasprintf(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Replaces every byte by its lower-case form, in place. Ignores a null pointer. */
void str_tolower(char *s);

/* Returns a lower-cased copy, which the caller frees with free(); null for null.
 * Without memory it logs "System error: ..." at LOG_ERR and returns null. */
[[nodiscard]] char *str_dup_lower(const char *s);

/* Clear trailing white space, or trailing bytes equal to `c`, in place. Return `s`. */
char *str_rtrim_space(char *s);
char *str_rtrim_char(char *s, char c);

/* Clears trailing white space in place. Returns the first byte of `s` that is not white space; the text is not moved.
 */
[[nodiscard]] char *str_trim_space(char *s);

/* Clears trailing blanks, carriage returns and line feeds in place, but no tabs. Returns the first byte of `s` that is
 * not a blank; the text is not moved. */
[[nodiscard]] char *str_trim_line(char *s);

#endif
