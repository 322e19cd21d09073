#ifndef ARSP_SUPPORT_TEXT_H
#define ARSP_SUPPORT_TEXT_H

/* Returns the formatted text, newly allocated; the caller frees it with free().
 * Without memory it prints "Cannot allocate memory: ..." through fatal_error and ends the process with status 1. */
char *xasprintf(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* The functions below work in place on NUL-terminated byte strings, in the process's locale. */

/* Replaces every byte by its lower-case form. Does nothing to a null pointer. */
void str_tolower(char *s);

/* Returns a lower-cased copy, which the caller frees with free(); null for null.
 * Without memory it logs "System error: ..." at LOG_ERR and returns null. */
char *str_dup_lower(const char *s);

/* Clear trailing white space, or trailing bytes equal to `c`. Return `s`. */
char *str_rtrim_space(char *s);
char *str_rtrim_char(char *s, char c);

/* Clears trailing white space. Returns the first byte of `s` that is not white space; the text is not moved. */
char *str_trim_space(char *s);

/* Clears trailing blanks, carriage returns and line feeds, but no tabs. Returns the first byte of `s` that is not a
 * blank; the text is not moved. */
char *str_trim_line(char *s);

#endif
