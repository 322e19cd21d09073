#include "info/printable.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwctype>
#include <iterator>

#include <langinfo.h>

namespace arsp {

namespace {

/* A character at the beginning of a text; a length of 0 means that no valid UTF-8 begins there. */
struct Character {
    std::uint32_t code;
    std::size_t length; /* bytes */
};

unsigned char byte_at(std::string_view text, std::size_t index)
{
    return static_cast<unsigned char>(text[index]);
}

/* Decodes as RFC 3629 has it: no overlong forms, no surrogates, nothing above U+10FFFF. */
Character first_character(std::string_view text)
{
    const unsigned char first = byte_at(text, 0);
    if (first < 0x80)
        return {first, 1};
    const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() < length)
        return {0, 0};
    std::uint32_t code = first & (0x7FU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte_at(text, i) & 0xC0U) != 0x80)
            return {0, 0};
        code = code << 6U | (byte_at(text, i) & 0x3FU);
    }
    constexpr std::uint32_t SMALLEST[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < SMALLEST[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))
        return {0, 0};
    return {code, length};
}

/* Characters without a place of their own that reorder or hide what surrounds them. */
bool changes_layout(std::uint32_t code)
{
    constexpr std::uint32_t RANGES[][2] = {{0x061C, 0x061C}, {0x180E, 0x180E}, {0x200B, 0x200F}, {0x2028, 0x202E},
                                           {0x2060, 0x206F}, {0xFEFF, 0xFEFF}, {0xFFF9, 0xFFFB}, {0xE0000, 0xE007F}};
    return std::any_of(std::begin(RANGES), std::end(RANGES),
                       [code](const std::uint32_t(&range)[2]) { return code >= range[0] && code <= range[1]; });
}

bool is_printable(Character character)
{
    static const bool utf8 = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
    if (character.length == 1)
        return character.code >= ' ' && character.code != 0x7F;
    return utf8 && character.length > 1 && !changes_layout(character.code) &&
           std::iswprint(static_cast<wint_t>(character.code)) != 0;
}

/* Moves what every output shows as it is from the beginning of the text: printable ASCII but the backslash. */
void move_plain(std::string_view &text, std::string &out)
{
    const auto *const end = std::find_if_not(text.begin(), text.end(),
                                             [](char byte) { return byte >= ' ' && byte < 0x7F && byte != '\\'; });
    const auto length = static_cast<std::size_t>(end - text.begin());
    out += text.substr(0, length);
    text.remove_prefix(length);
}

/* Appends JSON's escape of one UTF-16 unit. */
void append_unit(std::string &out, std::uint32_t unit)
{
    char escape[7];
    std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(unit & 0xFFFFU));
    out += escape;
}

/* Appends U+EFNN for each byte NN, which is 0 or above 127. */
void append_private(std::string &out, std::string_view bytes)
{
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        out += '\xEE';
        out += static_cast<char>(0xBC | (value >> 6U));
        out += static_cast<char>(0x80 | (value & 0x3FU));
    }
}

bool is_letter_or_digit(char byte)
{
    return (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') || (byte >= '0' && byte <= '9');
}

/* Whether the shell takes the word for itself without quotes. */
bool is_plain_word(std::string_view word)
{
    return !word.empty() && std::all_of(word.begin(), word.end(), [](char byte) {
        return is_letter_or_digit(byte) || std::strchr("@%+=:,./_-", byte) != nullptr;
    });
}

/* Appends what printf(1) turns into the word and a NUL byte. */
void append_printf_format(std::string &out, std::string_view word)
{
    for (const char byte : word) {
        char octal[5];
        if (is_letter_or_digit(byte) || byte == '/' || byte == '-' || byte == '.')
            std::snprintf(octal, sizeof octal, "%c", byte);
        else
            std::snprintf(octal, sizeof octal, "\\%03o", static_cast<unsigned>(static_cast<unsigned char>(byte)));
        out += octal;
    }
    out += "\\000";
}

} // namespace

void append_hex(std::string &out, char byte)
{
    constexpr char DIGITS[] = "0123456789abcdef";
    const auto value = static_cast<unsigned char>(byte);
    out += DIGITS[value >> 4U];
    out += DIGITS[value & 0xFU];
}

std::string printable(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (move_plain(text, out); !text.empty(); move_plain(text, out)) {
        const Character character = first_character(text);
        const std::string_view bytes = text.substr(0, std::max<std::size_t>(character.length, 1));
        if (!is_printable(character) || text.starts_with("\\x")) {
            for (const char byte : bytes)
                append_hex(out.append("\\x"), byte);
        } else {
            out += bytes;
        }
        text.remove_prefix(bytes.size());
    }
    return out;
}

std::string json_text(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (move_plain(text, out); !text.empty(); move_plain(text, out)) {
        const Character character = first_character(text);
        const std::string_view bytes = text.substr(0, std::max<std::size_t>(character.length, 1));
        if (character.length == 0 || character.code == 0 || (character.code >= 0xEF00 && character.code <= 0xEFFF))
            append_private(out, bytes);
        else
            out += bytes;
        text.remove_prefix(bytes.size());
    }
    return out;
}

std::string ascii_json(std::string_view json)
{
    std::string out;
    out.reserve(json.size());
    for (move_plain(json, out); !json.empty(); move_plain(json, out)) {
        const Character character = first_character(json);
        const std::size_t length = std::max<std::size_t>(character.length, 1);
        if (character.code >= 0x10000)
            append_unit(out, 0xD7C0 + (character.code >> 10U)); /* the first half of a surrogate pair */
        if (character.code < 0x7F)
            out += json.substr(0, length);
        else
            append_unit(out, character.code >= 0x10000 ? 0xDC00 | (character.code & 0x3FFU) : character.code);
        json.remove_prefix(length);
    }
    return out;
}

bool is_utf8(std::string_view text)
{
    while (!text.empty()) {
        const std::size_t length = first_character(text).length;
        if (length == 0)
            return false;
        text.remove_prefix(length);
    }
    return true;
}

std::string shell_quoted(std::string_view word)
{
    std::string out = "'";
    for (const char byte : word) {
        if (byte == '\'')
            out += "'\\'";
        out += byte;
    }
    return out + "'";
}

std::string shell_command(const std::vector<std::string> &words)
{
    std::string plain;
    std::string format; /* of printf */
    for (const std::string &word : words) {
        if (!plain.empty())
            plain += ' ';
        if (is_plain_word(word))
            plain += word;
        else if (word.find('\'') != std::string::npos && word.find_first_of("\"$`\\!") == std::string::npos)
            plain += '"' + word + '"'; /* the usual case, SQL, is easier to read */
        else
            plain += shell_quoted(word);
        append_printf_format(format, word);
    }
    if (printable(plain) == plain)
        return plain;
    /* All words or none: what xargs leaves for a second command would be taken for a program. */
    return "printf '" + format + "' | xargs -0 -x -n " + std::to_string(words.size()) + " env";
}

bool has_control_bytes(std::string_view text)
{
    return std::any_of(text.begin(), text.end(),
                       [](char byte) { return static_cast<unsigned char>(byte) < ' ' || byte == '\x7F'; });
}

} // namespace arsp
