#ifndef ARSP_SUPPORT_CONF_H
#define ARSP_SUPPORT_CONF_H

#include "support/conf_vars.h"

/* The panel configuration: read once per process, never reloaded and never freed. The module owns every value that it
 * returns; callers neither free nor change it.
 *
 * Not thread-safe. Throws nothing. Names must not be null. No command calls conf_get_by_name; conf_lookup and
 * conf_file_value are steps of conf_get. */

namespace arsp {
constexpr char KEL_CONF_PATH[] = "/etc/kel/kel.conf";
}

/* Reads KEL_CONF_PATH, unless it is loaded already. Returns 0; or -1 with errno set and nothing loaded: then every
 * value is its default, and every later request tries to load again. Logs at LOG_USER | LOG_WARNING "unable to open
 * configuration file", "Unable to read configuration", "Unable to read configuration file", "Unable to form
 * configuration" and, for each line that it skips, "Invalid variable definition"; at LOG_ERR "Not enough memory to
 * allocate Quarn runtime configuration structure". */
int conf_load();

/* Returns the value of a variable: the file's, or the compile-time default. Never null.
 *   index  any ConfVarIndex, the bounds included. */
[[nodiscard]] const char *conf_get(ConfVarIndex index);

/* Returns the value of a variable by its name. For a name that is not in the table, or is that of its upper bound, it
 * returns null and logs "variable '...' was found neither in ..., nor in compile-time defaults" at LOG_ERR. */
[[nodiscard]] const char *conf_get_by_name(const char *name);

/* Returns the file's value of any name, in the table or not; null if the file has none or cannot be loaded. */
[[nodiscard]] const char *conf_lookup(const char *name);

/* Returns the file's value of a variable, or null. Remembers values; looks for an absent one again each time. */
[[nodiscard]] const char *conf_file_value(ConfVarIndex index);

#endif
