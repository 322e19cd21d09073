#include "info/output.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "info/failure.h"
#include "info/printable.h"
#include "support/stream.h"

namespace arsp {

namespace {

int first_error = 0;

} // namespace

void print(std::string_view text)
{
    if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size() && first_error == 0)
        first_error = errno;
}

void finish_output()
{
    if (std::fflush(stdout) != 0 && first_error == 0)
        first_error = errno;
    if (first_error != 0)
        throw Failure(std::string("cannot write the output: ") + std::strerror(first_error));
}

void complain(std::string_view text)
{
    write_text(stderr, "arspinfo: ", printable(text), "\n");
}

} // namespace arsp
