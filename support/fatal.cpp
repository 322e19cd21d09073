#include "support/fatal.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "support/c_handles.h"
#include "support/stream.h"

using namespace arsp;

const char *error_program_path = nullptr;

namespace {

constexpr size_t FIRST_BUFFER = 4096; /* bytes */

/* Appends the line about `error` to the text of `length` bytes, all of it or none. */
void append_system_error(char *text, size_t length, size_t capacity, int error)
{
    const size_t room = capacity - length;
    const int added = std::snprintf(text + length, room, "\nSystem error %d: %s", error, std::strerror(error));
    if (added < 0 || static_cast<size_t>(added) >= room)
        text[length] = '\0';
}

} // namespace

void fatal_error(int status, int flag, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    fatal_verror(status, flag, format, args);
    va_end(args);
}

void fatal_verror(int status, int flag, const char *format, va_list args)
{
    const KeepErrno keep;
    size_t capacity = FIRST_BUFFER;
    CString text(static_cast<char *>(std::malloc(capacity)));
    if (text == nullptr) {
        error_emit("Can't allocate memory for error message", status, flag);
        return;
    }
    text.get()[0] = '\0'; /* what is left of a format that can't be converted */
    va_list again;
    va_copy(again, args);
    const int wanted = std::vsnprintf(text.get(), capacity, format, args);
    if (wanted >= 0 && static_cast<size_t>(wanted) >= capacity) {
        const size_t exact = static_cast<size_t>(wanted) + 1;
        if (char *longer = static_cast<char *>(std::realloc(text.get(), exact)); longer != nullptr) {
            static_cast<void>(text.release()); /* realloc has taken the old block over */
            text.reset(longer);
            capacity = exact;
            std::vsnprintf(text.get(), capacity, format, again);
        }
    }
    va_end(again);
    /* A longer message has a buffer of just its length, so it never gets the line about the system error. */
    if (keep.saved() != 0)
        append_system_error(text.get(), std::strlen(text.get()), capacity, keep.saved());
    error_emit(text.get(), status, flag);
}

int error_emit(const char *message, int status, int /*flag*/)
{
    const std::string_view path = error_program_path == nullptr ? "" : error_program_path;
    const std::string_view name = path.substr(path.rfind('/') + 1);
    const std::string_view text = message;
    for (FILE *stream : {stderr, stdout})
        write_text(stream, name, name.empty() ? "" : ": ", text, text.ends_with('\n') ? "" : "\n");
    if (status != 0)
        std::exit(status);
    return 0;
}
