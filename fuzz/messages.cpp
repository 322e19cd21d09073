/* The logger and the printer of fatal errors: what arrives against what the arguments say. The input is seven settings,
 * a byte each, and then lines: three texts for the message, and four for the environment and the callers. */

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
    std::size_t length; /* to which the first text is filled up, so that a few bytes reach the buffers' ends */
    std::string target;
    std::string first, second, third; /* of the message */
    std::string wished_level;         /* environment */
    std::string trace_id;             /* environment */
    std::string ident;
    std::string program_path;
};

/* Takes the input apart from its front. */
class Reader {
public:
    explicit Reader(std::string_view bytes) : rest_(bytes) {}

    unsigned byte()
    {
        if (rest_.empty())
            return 0;
        const auto value = static_cast<unsigned char>(rest_.front());
        rest_.remove_prefix(1);
        return value;
    }
    std::string line()
    {
        const std::string_view line = rest_.substr(0, rest_.find('\n'));
        rest_.remove_prefix(std::min(line.size() + 1, rest_.size()));
        return std::string(c_text(line));
    }

private:
    std::string_view rest_;
};

Settings read_settings(std::string_view bytes)
{
    constexpr std::array<std::size_t, 8> LENGTHS = {0, 0, 3900, 4080, 4096, 8100, 8192, 20000};
    constexpr std::array TARGETS = {"", "console", "STDERR", "file"};
    Reader reader(bytes);
    Settings settings = {};
    settings.level = reader.byte();
    settings.priority = static_cast<int>(reader.byte());
    settings.options = static_cast<int>(reader.byte());
    settings.error = static_cast<int>(reader.byte() % 140);
    const std::size_t length = LENGTHS[reader.byte() % LENGTHS.size()];
    settings.length = length + reader.byte() % 128 - std::min<std::size_t>(length, 64);
    settings.target = TARGETS[reader.byte() % TARGETS.size()];
    settings.first = reader.line();
    settings.second = reader.line();
    settings.third = reader.line();
    settings.wished_level = reader.line();
    settings.trace_id = reader.line();
    settings.ident = reader.line();
    settings.program_path = reader.line();
    if (settings.first.size() < settings.length)
        settings.first.resize(settings.length, 'x');
    return settings;
}

/* What the texts of `settings` make of FORMAT. A line feed in the middle and one at the end both occur. */
#define FORMAT "Unable to move %s\n%s: %s"

std::string message_of(const Settings &settings)
{
    return "Unable to move " + settings.first + "\n" + settings.second + ": " + settings.third;
}

/* Stands in for one of the standard streams while it lives. */
class CapturedStream {
public:
    explicit CapturedStream(FILE *&stream)
        : stream_(stream), original_(stream), captured_(open_memstream(&text_, &size_))
    {
        expect(captured_ != nullptr, "no stream can be made");
        stream_ = captured_;
    }
    CapturedStream(const CapturedStream &) = delete;
    CapturedStream &operator=(const CapturedStream &) = delete;
    ~CapturedStream()
    {
        stream_ = original_;
        std::fclose(captured_);
        std::free(text_);
    }
    std::string_view text() const /* what was flushed */ { return {text_, size_}; }

private:
    char *text_ = nullptr;
    std::size_t size_ = 0;
    FILE *&stream_;
    FILE *original_;
    FILE *captured_;
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
    print();
    if (errno != settings.error)
        return {"errno was changed", ""};
    return {std::string(error.text()), std::string(output.text())};
}

void print_log(const Settings &settings)
{
    log_message(settings.priority, FORMAT, settings.first.c_str(), settings.second.c_str(), settings.third.c_str());
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

    const Printed lines = printed(settings, [&] { print_log(settings); });

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

    const Printed lines = printed(settings, [&] { print_log(settings); });

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

    const Printed lines = printed(settings, [&] {
        fatal_error(0, settings.options, FORMAT, settings.first.c_str(), settings.second.c_str(),
                    settings.third.c_str());
    });

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

void check_texts(const Settings &settings)
{
    constexpr char SPACE[] = " \t\n\v\f\r";
    const std::string text = settings.third + "\n" + settings.second;
    const auto copy = [&] { return CString(xasprintf("%s", text.c_str())); };
    const CString spaces = copy();
    const CString line = copy();
    const CString end = copy();
    const CString bytes = copy();
    const CString lower(str_dup_lower(text.c_str()));
    std::string wanted_lower = text;
    for (char &c : wanted_lower)
        c = c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c;
    const char last = text.empty() ? 'x' : text.back();

    expect_equal(str_trim_space(spaces.get()), trimmed(text, SPACE, SPACE), "str_trim_space");
    expect_equal(str_trim_line(line.get()), trimmed(text, " ", " \r\n"), "str_trim_line");
    expect_equal(str_rtrim_space(end.get()), trimmed(text, "", SPACE), "str_rtrim_space");
    expect_equal(str_rtrim_char(bytes.get(), last), trimmed(text, "", std::string_view(&last, 1)), "str_rtrim_char");
    expect_equal(lower.get(), wanted_lower, "str_dup_lower");
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
