/* The JSON document of extra headers, and the rows made of it in a database in memory. The input is the document; its
 * lines, each a name, "=" and a value, are then stored a second time from a document written here. */

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#define BOOST_BIND_GLOBAL_PLACEHOLDERS /* the JSON reader uses them; without this each build prints a note */
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>

#include "fuzz/check.h"
#include "store/extra_headers.h"
#include "store/responder_db.h"
#include "tests/unit/support/syslog_capture.h"

using namespace arsp;

namespace {

using Rows = std::vector<std::pair<std::string, std::string>>;

constexpr int DEEPEST = 2000; /* levels of nesting that are read */
constexpr char REFUSED[] = "Unable to parse auto-reply headers json: ";

/* The deepest nesting in a document, which may be malformed. */
int nesting(std::string_view text)
{
    int depth = 0;
    int deepest = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '"') {
            for (++i; i < text.size() && text[i] != '"'; ++i)
                i += text[i] == '\\' ? 1 : 0;
        } else if (text[i] == '[' || text[i] == '{') {
            deepest = std::max(deepest, ++depth);
        } else if (text[i] == ']' || text[i] == '}') {
            --depth;
        }
    }
    return deepest;
}

/* Returns whether the document can be read, and its members as C strings, which the interfaces take. */
bool read_document(const std::string &text, Rows &members)
{
    if (nesting(text) > DEEPEST)
        return false;
    boost::property_tree::ptree tree;
    std::istringstream stream(text);
    try {
        boost::property_tree::read_json(stream, tree);
    } catch (const std::exception &) {
        return false;
    }
    for (const auto &[name, child] : tree)
        members.emplace_back(c_text(name), c_text(child.data()));
    return true;
}

ResponderDb &database()
{
    static ResponderDb db;
    static const bool made = [] {
        SqliteText message;
        return db.open(":memory:") == 0 &&
               db.exec("CREATE TABLE extra_headers (name TEXT NOT NULL,value TEXT NOT NULL);", message) == 0;
    }();
    expect(made, "no database can be made");
    return db;
}

Rows stored()
{
    Rows rows;
    ResponderStatement stmt;
    expect(stmt.prepare(database(), "SELECT name, value FROM extra_headers ORDER BY rowid") == 0,
           "the connection was closed");
    while (stmt.step() == SQLITE_ROW) {
        expect(stmt.columnText(0) != nullptr && stmt.columnText(1) != nullptr, "NULL is stored");
        rows.emplace_back(stmt.columnText(0), stmt.columnText(1));
    }
    return rows;
}

/* Does what --set-extra-headers does after reading its input. */
int set_headers(const std::string &text)
{
    capture_syslog();
    expect(delete_extra_headers(&database()) == 0, "the rows cannot be deleted");
    expect(stored().empty(), "rows are left over");
    return import_extra_headers_json(&database(), text);
}

void check_document(const std::string &text)
{
    Rows members;
    const bool readable = read_document(text, members);
    const int result = set_headers(text);
    const std::vector<SyslogRecord> &log = syslog_capture.records;
    expect(result == (readable ? 0 : -1), "result");
    if (readable)
        expect(log.empty(), "a document is logged");
    else
        expect(log.size() == 1 && log[0].priority == LOG_ERR && log[0].text.starts_with(REFUSED) &&
                   log[0].text != REFUSED,
               "record of a broken document");
    expect(stored() == members, "rows of the document");
}

void check_written(std::string_view lines)
{
    Rows wanted;
    std::string json = "{";
    while (!lines.empty()) {
        const std::string_view line = take_line(lines);
        const std::size_t equals = std::min(line.find('='), line.size());
        const std::string_view name = line.substr(0, equals);
        const std::string_view value = line.substr(std::min(equals + 1, line.size()));
        json += (wanted.empty() ? "" : ",") + json_string(name) + ":" + json_string(value);
        wanted.emplace_back(utf8(name), utf8(value));
    }
    expect(set_headers(json + "}") == 0 && syslog_capture.records.empty(), "a written document is refused");
    expect(stored() == wanted, "rows of a written document");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    check_document(text);
    check_written(text);
    return 0;
}
