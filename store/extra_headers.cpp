#include "store/extra_headers.h"

#include <exception>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <vector>

#define BOOST_BIND_GLOBAL_PLACEHOLDERS /* the JSON reader uses them; otherwise each build prints a note */
#include <boost/property_tree/json_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#include <sys/syslog.h>

#include "store/run_statement.h"
#include "store/transaction.h"
#include "support/log.h"
#include "support/standard_input.h"

using namespace arsp;

namespace {

constexpr int DEEPEST_JSON = 2000; /* levels; the JSON reader uses stack for each */

/* Throws std::runtime_error if `text` is nested deeper than DEEPEST_JSON. Brackets inside strings do not count. */
void check_json_depth(std::string_view text)
{
    int depth = 0;
    bool in_string = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '"')
            in_string = !in_string;
        else if (in_string && c == '\\')
            ++i; /* the escaped character is no quote */
        else if (!in_string && (c == '[' || c == '{') && ++depth > DEEPEST_JSON)
            throw std::runtime_error("nested too deeply");
        else if (!in_string && (c == ']' || c == '}'))
            --depth;
    }
}

void parse_json(const std::string &text, boost::property_tree::ptree &tree)
{
    check_json_depth(text);
    std::istringstream stream(text);
    boost::property_tree::read_json(stream, tree);
}

Outcome insert_headers(ResponderDb &db, const char *const *names, const char *const *values, int count)
{
    for (int i = 0; i < count; ++i) {
        const StepResult result = run_statement(db, "REPLACE INTO extra_headers VALUES (?, ?  );",
                                                {{"name", names[i]}, {"value", values[i]}});
        if (gave_up(result))
            return GIVEN_UP;
        if (result == StepResult::refused)
            log_message(LOG_ERR, "Unable to add autoresponder extra headers: %s", db.errorText());
    }
    return COMMITTED;
}

} // namespace

int set_extra_headers_command()
{
    InputText input;
    if (read_standard_input(input) != 0)
        return -1;
    const std::string text(input.view());
    return with_connection(nullptr, [&](ResponderDb &db) {
        const int result = delete_extra_headers(&db);
        return result == 0 ? import_extra_headers_json(&db, text) : result;
    });
}

int delete_extra_headers(ResponderDb *db)
{
    return with_connection(db, [](ResponderDb &open_db) {
        SqliteText message; /* ignored: the record has the text of the connection */
        const int result = open_db.exec("DELETE FROM extra_headers", message);
        if (result > 0)
            log_message(LOG_ERR, "Unable to remove autoresponder extra headers: %s", open_db.errorText());
        return result;
    });
}

int import_extra_headers_json(ResponderDb *db, const std::string &text)
{
    boost::property_tree::ptree tree; /* owns the texts that the two lists point to */
    std::vector<const char *> names;
    std::vector<const char *> values;
    try {
        parse_json(text, tree);
        for (const auto &[key, child] : tree) {
            names.push_back(key.c_str());
            values.push_back(child.data().c_str());
        }
    } catch (const std::exception &error) {
        log_message(LOG_ERR, "Unable to parse auto-reply headers json: %s", error.what());
        return -1;
    }
    return store_extra_headers(db, names.data(), values.data(), static_cast<int>(names.size()));
}

int store_extra_headers(ResponderDb *db, const char *const *names, const char *const *values, int count)
{
    return with_connection(db,
                           [&](ResponderDb &open_db) { return replace_extra_headers(open_db, names, values, count); });
}

int replace_extra_headers(ResponderDb &db, const char *const *names, const char *const *values, int count)
{
    if (count == 0)
        return 0;
    return in_transaction(db, [&] { return insert_headers(db, names, values, count); });
}
