/* The logger, fatal_error() and the functions for texts: their output against their arguments. The input is six
 * settings in seven bytes, then lines: three texts for the message, and four for the environment and the callers. */

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include <strings.h>

#include "fuzz/check.h"
#include "support/c_handles.h"
#include "support/fatal.h"
#include "support/text.h"
#include "tests/unit/support/syslog_capture.h"

using namespace arsp;

namespace {

struct Settings {
    unsigned level;
    int priority;
    int options;
    int error;          /* errno on entry */
    std::size_t length; /* to which the first text is filled up, so that a short input reaches the ends of buffers */
    std::string target;
    std::string first, second, third; /* of the message */
    std::string wished_level;         /* environment */
    std::string trace_id;             /* environment */
    std::string ident;
    std::string program_path;
};

Settings read_settings(std::string_view bytes)
{
    constexpr std::array<std::size_t, 8> LENGTHS = {0, 0, 3900, 4080, 4096, 8100, 8192, 20000};
    constexpr std::array TARGETS = {"", "console", "STDERR", "file"};
    std::array<unsigned char, 7> numbers = {};
    bytes.remove_prefix(bytes.copy(reinterpret_cast<char *>(numbers.data()), numbers.size()));
    const auto [level, priority, options, error, length, more, target] = numbers;
    const std::size_t least = LENGTHS[length % LENGTHS.size()];
    Settings settings = {};
    settings.level = level;
    settings.priority = priority;
    settings.options = options;
    settings.error = error % 140;
    settings.length = least + more % 128 - std::min<std::size_t>(least, 64);
    settings.target = TARGETS[target % TARGETS.size()];
    for (std::string *text : {&settings.first, &settings.second, &settings.third, &settings.wished_level,
                              &settings.trace_id, &settings.ident, &settings.program_path})
        *text = c_text(take_line(bytes));
    if (settings.first.size() < settings.length)
        settings.first.resize(settings.length, 'x');
    return settings;
}

/* The message that FORMAT and the texts of `settings` give. */
#define FORMAT "Unable to move %s\n%s: %s"

std::string message_of(const Settings &settings)
{
    return "Unable to move " + settings.first + "\n" + settings.second + ": " + settings.third;
}

/* Replaces one of the standard streams during its lifetime. */
class CapturedStream {
public:
    explicit CapturedStream(FILE *&stream) : stream_(stream), original_(stream)
    {
        stream_ = open_memstream(&text_, &size_);
        expect(stream_ != nullptr, "no stream can be made");
    }
    CapturedStream(const CapturedStream &) = delete;
    CapturedStream &operator=(const CapturedStream &) = delete;
    ~CapturedStream()
    {
        std::fclose(stream_);
        stream_ = original_;
        std::free(text_);
    }
    std::string text() const /* only what was flushed */ { return {text_, size_}; }

private:
    char *text_ = nullptr;
    std::size_t size_ = 0;
    FILE *&stream_;
    FILE *original_;
};

struct Printed {
    std::string error;
    std::string output;
};

template <typename Print>
Printed printed(const Settings &settings, Print print)
{
    const CapturedStream error(stderr);
    const CapturedStream output(stdout);
    errno = settings.error;
    print(settings.first.c_str(), settings.second.c_str(), settings.third.c_str());
    const bool kept = errno == settings.error;
    return kept ? Printed{error.text(), output.text()} : Printed{"errno was changed", ""};
}

Printed logged(const Settings &settings)
{
    return printed(settings, [&](auto... texts) { log_message(settings.priority, FORMAT, texts...); });
}

unsigned threshold_of(const Settings &settings)
{
    unsigned threshold = settings.level % 8;
    if ((settings.level & 8) != 0 && settings.wished_level.size() == 1 && settings.wished_level[0] >= '0' &&
        settings.wished_level[0] <= '7')
        threshold = std::max(threshold, static_cast<unsigned>(settings.wished_level[0] - '0'));
    return threshold;
}

void check_console(const Settings &settings)
{
    log_init(settings.target.c_str(), settings.level, LOG_MAIL, settings.options, settings.ident.c_str());
    const std::string line = message_of(settings) + "\n";
    const bool shown = settings.priority <= static_cast<int>(threshold_of(settings)) && settings.target != "file";
    const Printed lines = logged(settings);
    expect_equal(lines.error, shown ? line : "", "standard error of the logger");
    expect_equal(lines.output, shown && settings.target == "console" ? line : "", "standard output of the logger");
    expect(syslog_capture.records.empty(), "the console's message is in the system log");
}

std::string trace_id_rule(const Settings &settings)
{
    if (!settings.trace_id.empty())
        return settings.trace_id.substr(0, 63);
    const char *exported = std::getenv("QUARN_LOG_TRACE_ID");
    return exported != nullptr ? exported : "";
}

void check_system_log(const Settings &settings)
{
    log_init(nullptr, settings.level, LOG_MAIL, settings.options, settings.ident.c_str());
    expect(log_options() == (settings.options | LOG_PID), "options");
    expect_equal(syslog_capture.calls.at(1),
                 "openlog " + settings.ident.substr(0, 63) + " " + std::to_string((settings.options | LOG_PID) & 0x23) +
                     " 16",
                 "openlog");
    expect_equal(syslog_capture.calls.at(2), "setlogmask " + std::to_string((2 << threshold_of(settings)) - 1),
                 "setlogmask");
    const Printed lines = logged(settings);
    expect_equal(lines.error + lines.output, "", "the system log's message on the standard streams");
    expect(syslog_capture.records.size() == 1, "number of records");
    expect(syslog_capture.records[0].priority == settings.priority, "priority");
    std::string wanted = message_of(settings);
    if ((settings.options & LOG_OPT_TRACE_ID) != 0)
        wanted = (trace_id_rule(settings) + ": " + wanted).substr(0, 8191);
    expect_equal(syslog_capture.records[0].text, wanted, "record");
}

void check_fatal_error(const Settings &settings)
{
    const bool with_path = !settings.program_path.empty();
    error_program_path = with_path ? settings.program_path.c_str() : nullptr;
    std::string wanted = message_of(settings);
    if (settings.error != 0) {
        const std::string system_error =
            "\nSystem error " + std::to_string(settings.error) + ": " + std::strerror(settings.error);
        if (wanted.size() + system_error.size() < 4096)
            wanted += system_error;
    }
    const std::string name = settings.program_path.substr(settings.program_path.rfind('/') + 1);
    wanted = (name.empty() ? "" : name + ": ") + wanted + (wanted.ends_with('\n') ? "" : "\n");
    const Printed lines = printed(settings, [&](auto... texts) { fatal_error(0, settings.options, FORMAT, texts...); });
    error_program_path = nullptr;
    expect_equal(lines.error, wanted, "standard error of fatal_error");
    expect_equal(lines.output, wanted, "standard output of fatal_error");
}

std::string_view trimmed(std::string_view text, std::string_view before, std::string_view after)
{
    const std::size_t end = text.find_last_not_of(after) + 1;
    text = text.substr(0, end);
    return text.substr(std::min(text.find_first_not_of(before), end));
}

/* Compares the result of `function` for a copy of `text`. */
template <typename Function>
void check_text(const std::string &text, std::string_view wanted, const char *name, Function function)
{
    const CString copy(xasprintf("%s", text.c_str()));
    expect_equal(function(copy.get()), wanted, name);
}

void check_texts(const Settings &settings)
{
    constexpr char SPACE[] = " \t\n\v\f\r";
    const std::string text = settings.third + "\n" + settings.second;
    const char last = text.back();
    check_text(text, trimmed(text, SPACE, SPACE), "str_trim_space", str_trim_space);
    check_text(text, trimmed(text, " ", " \r\n"), "str_trim_line", str_trim_line);
    check_text(text, trimmed(text, "", SPACE), "str_rtrim_space", str_rtrim_space);
    check_text(text, trimmed(text, "", {&last, 1}), "str_rtrim_char",
               [last](char *copy) { return str_rtrim_char(copy, last); });
    const CString lower(str_dup_lower(text.c_str()));
    expect_equal(lower.get(), lower_case(text), "str_dup_lower");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const Settings settings = read_settings({reinterpret_cast<const char *>(data), size});
    setenv("QUARN_LOG_LEVEL", settings.wished_level.c_str(), 1);
    setenv("QUARN_LOG_TRACE_ID", settings.trace_id.c_str(), 1);
    syslog_capture = {};
    if (settings.target.empty())
        check_system_log(settings);
    else
        check_console(settings);
    check_fatal_error(settings);
    check_texts(settings);
    return 0;
}
