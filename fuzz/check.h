#ifndef ARSP_FUZZ_CHECK_H
#define ARSP_FUZZ_CHECK_H

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>

namespace arsp {

/* Each target compares the code with rules of its own. A difference ends the process, and libFuzzer keeps the input. */

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

/* The bytes up to the first NUL: the part that a C string can hold. */
inline std::string_view c_text(std::string_view bytes)
{
    return bytes.substr(0, bytes.find('\0'));
}

/* Removes the first line from `rest`, with its line feed, and returns it without. */
inline std::string_view take_line(std::string_view &rest)
{
    const std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(line.size() < rest.size() ? line.size() + 1 : line.size());
    return line;
}

inline std::string lower_case(std::string text)
{
    for (char &c : text)
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    return text;
}

inline void write_file(const std::string &path, std::string_view bytes)
{
    std::ofstream file(path, std::ios::binary);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    file.close();
    expect(file.good(), "a file of the private root cannot be written");
}

/* The content type that an option value selects, or "!invalid". */
inline std::string content_type_rule(const std::string &token)
{
    if (token == "plain" || token == "text/plain")
        return "text/plain";
    if (token == "html" || token == "text/html")
        return "text/html";
    return "!invalid";
}

/* A JSON text for the bytes of `text`, each of which is a character. */
inline std::string json_string(std::string_view text)
{
    std::string json = "\"";
    for (const char c : text) {
        char escape[7];
        std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned char>(c));
        json += escape;
    }
    return json + "\"";
}

/* The UTF-8 text of that JSON text, up to the first NUL. */
inline std::string utf8(std::string_view text)
{
    std::string encoded;
    for (const char c : c_text(text)) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte >= 0x80)
            encoded += static_cast<char>(0xc0 | (byte >> 6));
        encoded += static_cast<char>(byte >= 0x80 ? 0x80 | (byte & 0x3f) : byte);
    }
    return encoded;
}

} // namespace arsp

#endif
