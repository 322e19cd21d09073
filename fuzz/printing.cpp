/* The forms of a text for a terminal, for JSON and for a shell: each is safe for its destination and gives the text
 * back. The input is the text; its lines are the words of a command. */

#include <algorithm>
#include <clocale>
#include <cstdint>
#include <cwchar>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "fuzz/check.h"
#include "info/printable.h"

using namespace arsp;

namespace {

/* The text behind "\xNN". */
std::string without_escapes(std::string_view text)
{
    std::string out;
    while (!text.empty()) {
        const bool escaped = text.starts_with("\\x");
        expect(!escaped || text.size() >= 4, "an escape is cut off");
        out += escaped ? static_cast<char>(std::stoi(std::string(text.substr(2, 2)), nullptr, 16)) : text[0];
        text.remove_prefix(escaped ? 4 : 1);
    }
    return out;
}

/* The bytes behind the characters U+EF00 to U+EFFF. */
std::string without_private_characters(std::string_view text)
{
    std::string out;
    while (!text.empty()) {
        const bool byte = text.size() >= 3 && text[0] == '\xEE' && static_cast<unsigned char>(text[1]) >= 0xBC;
        out += byte ? static_cast<char>((text[1] & 0x03) << 6 | (text[2] & 0x3F)) : text[0];
        text.remove_prefix(byte ? 3 : 1);
    }
    return out;
}

/* The words of a command line without expansions. */
std::vector<std::string> shell_words(std::string_view line)
{
    std::vector<std::string> words(1);
    char quote = '\0';
    for (std::size_t i = 0; i < line.size(); ++i) {
        const char byte = line[i];
        if (quote != '\0') {
            expect(quote != '"' || std::string_view("$`\\!").find(byte) == std::string_view::npos, "an expansion");
            if (byte == quote)
                quote = '\0';
            else
                words.back() += byte;
        } else if (byte == '\'' || byte == '"') {
            quote = byte;
        } else if (byte == ' ') {
            words.emplace_back();
        } else if (byte == '\\') {
            words.back() += line[++i];
        } else {
            expect(std::isalnum(static_cast<unsigned char>(byte)) != 0 ||
                       std::string_view("@%+=:,./_-").find(byte) != std::string_view::npos,
                   "an unquoted byte is special for the shell");
            words.back() += byte;
        }
    }
    expect(quote == '\0', "a quote has no end");
    return words;
}

/* The words that printf and xargs make of a format. */
std::vector<std::string> printf_words(std::string_view format)
{
    std::vector<std::string> words(1);
    while (!format.empty()) {
        const bool octal = format[0] == '\\';
        const char byte =
            octal ? static_cast<char>(std::stoi(std::string(format.substr(1, 3)), nullptr, 8)) : format[0];
        if (byte == '\0')
            words.emplace_back();
        else
            words.back() += byte;
        format.remove_prefix(octal ? 4 : 1);
    }
    words.pop_back();
    return words;
}

void check_terminal(const std::string &text)
{
    const std::string shown = printable(text);
    expect(!has_control_bytes(shown), "a control byte reaches the terminal");
    expect(std::mbstowcs(nullptr, shown.c_str(), 0) != static_cast<std::size_t>(-1), "no UTF-8 for the terminal");
    expect_equal(without_escapes(shown), text, "the text behind the escapes");
}

void check_json(const std::string &text)
{
    const std::string safe = json_text(text);
    expect_equal(without_private_characters(safe), text, "the text behind the private characters");
    const std::string document = nlohmann::json(safe).dump(); /* throws if it is no UTF-8 */
    const std::string ascii = ascii_json(document);
    expect(std::all_of(ascii.begin(), ascii.end(), [](char byte) { return byte >= ' ' && byte < '\x7F'; }),
           "JSON for a terminal is not printable ASCII");
    expect_equal(nlohmann::json::parse(ascii).get<std::string>(), safe, "the text of the JSON");
}

void check_shell(std::string_view text)
{
    std::vector<std::string> words = {"rm"};
    while (!text.empty())
        words.emplace_back(c_text(take_line(text)));
    const std::string line = shell_command(words);
    expect_equal(printable(line), line, "a command as it is printed");
    const std::string END = "' | xargs -0 -x -n " + std::to_string(words.size()) + " env";
    const bool formatted = line.starts_with("printf '") && line.ends_with(END);
    expect((formatted ? printf_words(std::string_view(line).substr(8, line.size() - 8 - END.size()))
                      : shell_words(line)) == words,
           "the shell runs other words");
    for (const std::string &word : words)
        expect(shell_words(shell_quoted(word)) == std::vector{word}, "the shell reads another word");
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    expect(std::setlocale(LC_ALL, "C.UTF-8") != nullptr, "the locale is missing");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    check_terminal(text);
    check_json(text);
    check_shell(text);
    return 0;
}
