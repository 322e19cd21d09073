#include "support/text.h"

#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "support/fatal.h"
#include "support/log.h"
#include "support/white_space.h"

using namespace arsp;

namespace {

template <typename Unwanted>
char *trim_end(char *s, Unwanted unwanted)
{
    for (char *end = s + std::strlen(s); end > s && unwanted(end[-1]); --end)
        end[-1] = '\0';
    return s;
}

} // namespace

char *xasprintf(const char *format, ...)
{
    char *text = nullptr;
    va_list args;
    va_start(args, format);
    const int length = vasprintf(&text, format, args);
    va_end(args);
    if (length < 0) {
        fatal_error(1, 1, "Cannot allocate memory: %s", std::strerror(errno));
        return nullptr; /* not reached */
    }
    return text;
}

void str_tolower(char *s)
{
    if (s == nullptr)
        return;
    for (; *s != '\0'; ++s)
        *s = static_cast<char>(std::tolower(static_cast<unsigned char>(*s)));
}

char *str_dup_lower(const char *s)
{
    if (s == nullptr)
        return nullptr;
    char *copy = strdup(s);
    if (copy == nullptr)
        log_message(LOG_ERR, "System error: %s\n", std::strerror(errno));
    str_tolower(copy);
    return copy;
}

char *str_rtrim_space(char *s)
{
    return trim_end(s, is_space);
}

char *str_rtrim_char(char *s, char c)
{
    return trim_end(s, [c](char last) { return last == c; });
}

char *str_trim_space(char *s)
{
    trim_end(s, is_space);
    while (is_space(*s))
        ++s;
    return s;
}

char *str_trim_line(char *s)
{
    trim_end(s, [](char last) { return last == ' ' || last == '\r' || last == '\n'; });
    return s + std::strspn(s, " ");
}
