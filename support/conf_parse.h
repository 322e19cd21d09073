#ifndef ARSP_SUPPORT_CONF_PARSE_H
#define ARSP_SUPPORT_CONF_PARSE_H

#include "support/conf_store.h"

/* Reads a file of lines `NAME value # comment` into `store` and sorts it. Lines may have any length, may begin with
 * white space, and may be blank or only a comment. A NAME consists of [A-Za-z0-9_] and need not be a known variable;
 * the last definition of a name wins. A value contains no '#', keeps its inner white space, and loses only a part of
 * its trailing white space (see value_end in the source).
 * Returns 0; or -1 with errno set if the file cannot be opened or read, or without memory: the store then holds the
 * pairs read so far. Logs at LOG_USER | LOG_WARNING the messages of conf_store_set, "unable to open configuration
 * file", "Unable to read configuration file", and, for each line that it skips, "Invalid variable definition". */
[[nodiscard]] int conf_parse_file(const char *path, ConfStore *store);

#endif
