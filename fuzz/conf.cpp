/* kel.conf: the values read from a file against a second implementation of the rules. The input is the file. */

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/check.h"
#include "support/conf_parse.h"
#include "support/conf_store.h"
#include "tests/unit/support/syslog_capture.h"

using namespace arsp;

namespace {

constexpr char PATH[] = "/tmp/kel.conf";
constexpr int WARNING_OF_THE_USER = 12;
constexpr std::string_view SPACE = " \t\n\v\f\r";
constexpr std::string_view NAME = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";

struct Expected {
    std::map<std::string, std::string, std::less<>> pairs; /* in strcmp order, as std::string compares bytes unsigned */
    std::vector<std::string> warnings;
};

/* A run of white space at the end is kept when its length is even and loses its last byte when it is odd. The first
 * byte of a value is never white space. */
std::string_view value_rule(std::string_view value)
{
    value = value.substr(0, value.find('#'));
    const std::size_t run = value.size() - (value.find_last_not_of(SPACE) + 1);
    return value.substr(0, value.size() - run % 2);
}

void line_rule(std::string_view line, Expected &expected)
{
    const auto at = [&](std::size_t i) { return i < line.size() ? line[i] : '\0'; };
    const std::size_t name = line.find_first_not_of(SPACE);
    if (name == std::string_view::npos || line[name] == '#')
        return;
    std::size_t name_end = name;
    while (at(name_end) != '\0' && NAME.find(at(name_end)) != std::string_view::npos)
        ++name_end;
    if (at(name_end) == '\0' || SPACE.find(at(name_end)) == std::string_view::npos) {
        expected.warnings.push_back("Invalid variable definition " + std::string(line.substr(name_end)) +
                                    "\nExpected a space after variable name\n");
        return;
    }
    const std::size_t value = line.find_first_not_of(SPACE, name_end);
    if (value == std::string_view::npos || line[value] == '#') {
        expected.warnings.push_back("Invalid variable definition " + std::string(line.substr(name)) +
                                    "\nExpected a value");
        return;
    }
    expected.pairs[std::string(line.substr(name, name_end - name))] = value_rule(line.substr(value));
}

Expected file_rule(std::string_view file)
{
    Expected expected;
    while (!file.empty()) {
        const char *begin = file.data();
        take_line(file);
        line_rule(c_text({begin, file.data()}), expected);
    }
    return expected;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string_view bytes(reinterpret_cast<const char *>(data), size);
    const Expected expected = file_rule(bytes);
    write_file(PATH, bytes);
    capture_syslog();
    const ConfStorePtr store(static_cast<ConfStore *>(std::calloc(1, sizeof(ConfStore))));
    errno = ENOTTY;
    expect(conf_parse_file(PATH, store.get()) == 0, "the file is refused");
    expect(store->count <= store->capacity, "more pairs than allocated");
    expect(store->sorted == 1, "the pairs are not sorted");
    expect(store->count == expected.pairs.size(), "number of pairs");
    const ConfPair *pair = store->entries;
    for (const auto &[name, value] : expected.pairs) {
        expect_equal(pair->name, name, "name");
        expect_equal(pair->value, value, "value");
        ++pair;
        expect_equal(conf_store_find(name.c_str(), store.get()), value, "value found by name");
        expect(expected.pairs.contains(name + "_") || conf_store_find((name + "_").c_str(), store.get()) == nullptr,
               "a name is found that the file does not define");
    }
    expect(syslog_capture.records.size() == expected.warnings.size(), "number of warnings");
    for (std::size_t i = 0; i < expected.warnings.size(); ++i) {
        expect(syslog_capture.records[i].priority == WARNING_OF_THE_USER, "priority of a warning");
        expect_equal(syslog_capture.records[i].text, expected.warnings[i], "warning");
    }
    return 0;
}
