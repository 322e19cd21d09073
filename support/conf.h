#ifndef ARSP_SUPPORT_CONF_H
#define ARSP_SUPPORT_CONF_H

#include "support/conf_vars.h"

/* The panel configuration: read once per process, never reloaded and never freed. Every value returned here belongs to
 * this module, or is a literal: callers neither free nor change it. */

namespace arsp {
constexpr char KEL_CONF_PATH[] = "/etc/kel/kel.conf";
}

/* Reads KEL_CONF_PATH, unless that has been done. Returns 0, or -1 with errno set and nothing loaded: then every value
 * is its default, and every later request tries to load again. Logs what conf_parse_file logs, and
 * "Not enough memory to allocate Quarn runtime configuration structure" at LOG_ERR. */
int conf_load();

/* Returns the value of a variable: the file's, or the compile-time default. Never null.
 *   index  any ConfVarIndex, the bounds included. */
const char *conf_get(ConfVarIndex index);

/* The same by name. Returns null for a name that is not in the table, or is that of its upper bound, and logs
 * "variable '...' was found neither in ..., nor in compile-time defaults" at LOG_ERR. */
const char *conf_get_by_name(const char *name);

/* Returns the file's value of any name, known or not; null when the file has none or can't be loaded. */
const char *conf_lookup(const char *name);

/* Returns the file's value of a variable, null when there is none. Only values found are remembered: an absent one is
 * looked for again each time. */
const char *conf_file_value(ConfVarIndex index);

#endif
