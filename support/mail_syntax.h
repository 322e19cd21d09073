#ifndef ARSP_SUPPORT_MAIL_SYNTAX_H
#define ARSP_SUPPORT_MAIL_SYNTAX_H

/* Character-level checks of mail addresses. Each returns 1 if the NUL-terminated text is valid, 0 if it is not or is
 * null; none logs. Case does not matter; a byte of 128 or above is never valid.
 *
 * Thread-safe. Throws nothing. No command calls mail_address_is_valid. */

/* 1 to 245 letters, digits and bytes of ".-_&+'"; no dot at either end, no two dots in a row. */
[[nodiscard]] int mail_local_part_is_valid(const char *text);

/* 1 to 255 bytes: labels of 1 to 63 letters, digits and hyphens, separated by single dots. No label begins with a
 * hyphen, none but the last one ends with one. */
[[nodiscard]] int mail_domain_is_valid(const char *text);

/* A local part, the first '@' and a domain. Returns 0 without memory for a copy of the local part. */
[[nodiscard]] int mail_address_is_valid(const char *text);

#endif
