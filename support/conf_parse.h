#ifndef ARSP_SUPPORT_CONF_PARSE_H
#define ARSP_SUPPORT_CONF_PARSE_H

#include "support/conf_store.h"

/* Reads a file of lines `NAME value # comment` into `store` and sorts it. Lines may be of any length, may begin with
 * white space, and may be blank or only a comment. A NAME is made of [A-Za-z0-9_] and may be unknown to the panel; of
 * two equal ones the later wins. A value has no '#', keeps its inner white space, and loses its trailing white space
 * only in part (see value_end in the source).
 * Returns 0; or -1 with errno set, when the file can't be opened or read, or memory runs out: the store then holds what
 * was read so far. Logs, all at LOG_USER | LOG_WARNING: what conf_store_set logs, "unable to open configuration file",
 * "Unable to read configuration file", and, for a line that it skips, "Invalid variable definition". */
int conf_parse_file(const char *path, ConfStore *store);

#endif
