#ifndef ARSP_FUZZ_CHECK_H
#define ARSP_FUZZ_CHECK_H

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

/* What the targets say about an input: each one compares the code with rules of its own, and a difference ends the
 * process, upon which libFuzzer keeps the input. */

[[noreturn]] inline void finding(const std::string &what)
{
    std::fprintf(stderr, "FINDING: %s\n", what.c_str());
    std::abort();
}

inline void expect(bool holds, const char *what)
{
    if (!holds)
        finding(what);
}

inline void expect_equal(std::string_view got, std::string_view wanted, const char *what)
{
    if (got != wanted)
        finding(std::string(what) + "\n   got: " + std::string(got) + "\nwanted: " + std::string(wanted));
}

/* The bytes up to the first NUL: what a C string can hold of them. */
inline std::string_view c_text(std::string_view bytes)
{
    return bytes.substr(0, bytes.find('\0'));
}

#endif
