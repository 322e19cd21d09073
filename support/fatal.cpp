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

/* Appends the line about `error` to a text in the first buffer, all of it or none. */
void append_system_error(char *text, int error)
{
    const size_t length = std::strlen(text);
    const size_t room = FIRST_BUFFER - length;
    const int added = std::snprintf(text + length, room, "\nSystem error %d: %s", error, std::strerror(error));
    if (static_cast<size_t>(added) >= room) /* true for a failure, too */
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
    CString text(static_cast<char *>(std::malloc(FIRST_BUFFER)));
    if (text == nullptr) {
        error_emit("Can't allocate memory for error message", status, flag);
        return;
    }
    *text = '\0'; /* in case the format cannot be converted */
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(text.get(), FIRST_BUFFER, format, args);
    const size_t size = length < 0 ? 0 : static_cast<size_t>(length) + 1;
    if (size > FIRST_BUFFER && resize(text, size))
        std::vsnprintf(text.get(), size, format, again);
    va_end(again);
    if (keep.saved() != 0 && size <= FIRST_BUFFER) /* never after a longer message */
        append_system_error(text.get(), keep.saved());
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
