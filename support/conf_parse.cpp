#include "support/conf_parse.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "support/c_handles.h"
#include "support/log.h"
#include "support/white_space.h"

using namespace arsp;

namespace {

bool is_name_char(char c)
{
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

bool ends_definition(char c)
{
    return c == '#' || c == '\0';
}

char *skip_space(char *text)
{
    while (is_space(*text))
        ++text;
    return text;
}

/* Returns the end of the value that begins at `value`. One blank at the end is cut; of a run of blanks the last one is
 * cut only when their number is odd: each second blank takes the marker back. Files in use rely on what that leaves. */
char *value_end(char *value)
{
    char *const limit = value + std::strcspn(value, "#");
    char *marker = nullptr;
    for (char *c = value + 1; c < limit; ++c)
        marker = is_space(*c) && marker == nullptr ? c : nullptr;
    return marker != nullptr ? marker : limit;
}

/* Takes one line, which it cuts up. Returns -1 only when the pair can't be stored: a bad line is logged and skipped. */
int parse_line(char *line, ConfStore *store)
{
    char *const name = skip_space(line);
    if (ends_definition(*name))
        return 0;
    char *name_end = name;
    while (is_name_char(*name_end))
        ++name_end;
    if (!is_space(*name_end)) { /* nor is it one where there is no name at all */
        log_message(LOG_USER | LOG_WARNING, "Invalid variable definition %s\nExpected a space after variable name\n",
                    name_end);
        return 0;
    }
    char *const value = skip_space(name_end);
    if (ends_definition(*value)) {
        log_message(LOG_USER | LOG_WARNING, "Invalid variable definition %s\nExpected a value", name);
        return 0;
    }
    *value_end(value) = '\0';
    *name_end = '\0';
    return conf_store_set(name, value, store);
}

} // namespace

int conf_parse_file(const char *path, ConfStore *store)
{
    const FilePtr file(std::fopen(path, "re"));
    if (file == nullptr) {
        log_message(LOG_USER | LOG_WARNING, "unable to open configuration file %s: %s\n", path, std::strerror(errno));
        return -1;
    }
    LineBuffer line;
    while (getdelim(&line.text, &line.size, '\n', file.get()) != -1) {
        if (parse_line(line.text, store) != 0)
            return -1;
    }
    const KeepErrno keep;
    conf_store_sort(store);
    /* Without memory for the line getdelim sets neither mark, so that the end was not reached is asked as well. */
    if (std::feof(file.get()) == 0 || std::ferror(file.get()) != 0) {
        log_message(LOG_USER | LOG_WARNING, "Unable to read configuration file: %s", std::strerror(keep.saved()));
        return -1;
    }
    return 0;
}
