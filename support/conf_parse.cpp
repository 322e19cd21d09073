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

bool is_comment_or_end(char c)
{
    return c == '#' || c == '\0';
}

char *skip_space(char *text)
{
    while (is_space(*text))
        ++text;
    return text;
}

/* Returns the end of the value that begins at `value`. Of the white space at its end, the last character is cut if
 * their number is odd, nothing if it is even: each second one clears the marker. Files in use rely on this. */
char *value_end(char *value)
{
    char *const limit = value + std::strcspn(value, "#");
    char *marker = nullptr;
    for (char *c = value + 1; c < limit; ++c)
        marker = is_space(*c) && marker == nullptr ? c : nullptr;
    return marker != nullptr ? marker : limit;
}

/* Stores the pair of one line, which it modifies. Logs and skips a bad line. Returns -1 only if storing fails. */
int parse_line(char *line, ConfStore *store)
{
    char *const name = skip_space(line);
    if (is_comment_or_end(*name))
        return 0;
    char *name_end = name;
    while (is_name_char(*name_end))
        ++name_end;
    if (!is_space(*name_end)) { /* also true without any name */
        log_message(LOG_USER | LOG_WARNING, "Invalid variable definition %s\nExpected a space after variable name\n",
                    name_end);
        return 0;
    }
    char *const value = skip_space(name_end);
    if (is_comment_or_end(*value)) {
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
    if (std::feof(file.get()) == 0) { /* after an error, and without memory for the line */
        log_message(LOG_USER | LOG_WARNING, "Unable to read configuration file: %s", std::strerror(keep.saved()));
        return -1;
    }
    return 0;
}
