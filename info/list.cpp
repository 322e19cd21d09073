#include "info/list.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include <libsmartcols.h>
#include <strings.h>

#include "info/database.h"
#include "info/failure.h"
#include "info/output.h"
#include "info/printable.h"
#include "support/c_handles.h"

namespace arsp {

namespace {

enum class Kind {
    number, /* aligned to the right; a number in JSON */
    word,   /* printed whole */
    text,   /* cut where the terminal is too narrow */
};

struct Column {
    const char *name;
    const char *expression; /* SQL, on the row `a` of autoresponder */
    Kind kind;
    bool by_default;
    const char *help;
};

constexpr Column COLUMNS[] = {
    {"MAILNAME", "a.mn", Kind::word, true, "mailbox that replies"},
    {"OWNER", "a.real_owner", Kind::text, false, "mailbox whose directory holds the attachments"},
    {"SUBJECT", "a.subject", Kind::text, true, "subject of the reply"},
    {"TYPE", "a.content_type", Kind::word, true, "content type of the body"},
    {"CHARSET", "a.charset", Kind::text, false, "charset of the body that is sent"},
    {"TRIGGER", "a.key_where||CASE WHEN a.key_where IN ('subj','body') THEN ':'||coalesce(a.keystr,'') ELSE '' END",
     Kind::text, true, "where a text must occur, and the text"},
    {"FREQ", "CAST(a.ans_freq AS INTEGER)", Kind::number, true, "replies per sender address and day"},
    {"LIMIT", "CAST(a.ans_limit AS INTEGER)", Kind::number, false, "deprecated, still stored"},
    {"FORWARD", "a.forward_to", Kind::text, false, "address that gets the incoming message"},
    {"REPLYTO", "a.reply_to", Kind::text, false, "Reply-To of the reply"},
    {"SIZE", "length(CAST(a.body AS BLOB))", Kind::number, true, "bytes of the body"},
    {"ATTACHMENTS", "(SELECT count(*) FROM attachments t WHERE t.mn=a.mn)", Kind::number, true,
     "number of attachments"},
    {"REPLIES",
     "(SELECT count(*)||'/'||CAST(total(num) AS INTEGER) FROM resp_freq r WHERE r.mn=a.mn AND "
     "r.time_resp>CAST(strftime('%s','now') AS INTEGER)-86400)", /* the mail side counts anew after a day */
     Kind::word, true, "senders answered within a day, and replies sent to them"},
};

constexpr std::size_t LINES_AT_ONCE = 1000; /* in libsmartcols' memory, where the format allows parts */

const Column &find_column(const std::string &name)
{
    for (const Column &column : COLUMNS) {
        if (strcasecmp(name.c_str(), column.name) == 0)
            return column;
    }
    throw Failure("unknown column: " + name);
}

std::vector<const Column *> choose_columns(std::string names)
{
    std::vector<const Column *> chosen;
    const bool add = names.starts_with('+');
    if (names.empty() || add) {
        for (const Column &column : COLUMNS) {
            if (column.by_default)
                chosen.push_back(&column);
        }
    }
    if (add)
        names.erase(0, 1);
    for (std::size_t from = 0; from < names.size();) {
        const std::size_t end = std::min(names.find(',', from), names.size());
        const Column &column = find_column(names.substr(from, end - from));
        if (std::find(chosen.begin(), chosen.end(), &column) == chosen.end()) /* a name occurs once in JSON */
            chosen.push_back(&column);
        from = end + 1;
    }
    return chosen;
}

/* The cells of all lines, one after the other, each ended by a NUL byte: 100,000 lines need no allocation each. */
struct Cells {
    std::string bytes;
    std::size_t lines = 0;
};

/* In raw output libsmartcols escapes blanks and every byte that is not a printable character, so a cell holds the value
 * itself. A cell cannot hold NUL. A value with NUL is therefore escaped by printable() as well, and so is a value that
 * already looks like that: undoing both escapes in turn restores every value. */
bool is_escaped_twice(std::string_view value)
{
    return value.find('\0') != std::string_view::npos || value.find("\\x") != std::string_view::npos;
}

/* Reads all cells in one transaction, which ends before anything is printed: a reader of the output that stops must not
 * hold up arspctl. */
Cells read_cells(const ListOptions &options, const std::vector<const Column *> &columns)
{
    std::string sql = "SELECT ";
    for (const Column *column : columns)
        sql.append(column == columns.front() ? "" : ",").append(column->expression);
    sql += " FROM autoresponder a WHERE ?1='' OR substr(a.mn,instr(a.mn,'@')+1)=lower(?1) ORDER BY a.mn";

    Database db = Database::openFile();
    Cells cells;
    {
        Query rows(db, sql);
        rows.bind(options.domain);
        for (; rows.next(); ++cells.lines) {
            for (std::size_t i = 0; i < columns.size(); ++i) {
                const std::string_view value = rows.text(static_cast<int>(i));
                if (options.json)
                    cells.bytes += json_text(value);
                else if (options.raw && !is_escaped_twice(value))
                    cells.bytes += value;
                else
                    cells.bytes += printable(value);
                cells.bytes += '\0';
            }
        }
    }
    db.finish();
    return cells;
}

struct FreeTable {
    void operator()(libscols_table *table) const { scols_unref_table(table); }
};
using Table = std::unique_ptr<libscols_table, FreeTable>;

Table make_table(const ListOptions &options, const std::vector<const Column *> &columns)
{
    Table table(scols_new_table());
    if (!table)
        throw std::bad_alloc();
    scols_table_set_name(table.get(), "autoresponders");
    scols_table_enable_json(table.get(), options.json);
    scols_table_enable_raw(table.get(), options.raw);
    scols_table_enable_noheadings(table.get(), options.noheadings);
    scols_table_enable_noencoding(table.get(), 1); /* printable() has escaped the cells */
    for (const Column *column : columns) {
        const int flags = column->kind == Kind::number ? SCOLS_FL_RIGHT
                          : column->kind == Kind::text ? SCOLS_FL_TRUNC
                                                       : 0;
        libscols_column *added = scols_table_new_column(table.get(), column->name, 0, flags);
        if (added == nullptr)
            throw std::bad_alloc();
        scols_column_set_json_type(added, column->kind == Kind::number ? SCOLS_JSON_NUMBER : SCOLS_JSON_STRING);
    }
    return table;
}

/* Prints the lines of the table through print(), which keeps the reason of a failed write. */
void print_table(const Table &table)
{
    char *text = nullptr;
    if (scols_print_table_to_string(table.get(), &text) != 0)
        throw std::bad_alloc();
    const CString owner(text);
    const bool json = scols_table_is_json(table.get()) != 0;
    print(json ? ascii_json(text) : text);
    if (!json && *text != '\0') /* JSON ends with a line feed already */
        print("\n");
}

} // namespace

void list_autoresponders(const ListOptions &options)
{
    const std::vector<const Column *> columns = choose_columns(options.columns);
    Cells cells = read_cells(options, columns);
    const Table table = make_table(options, columns);
    char *cell = cells.bytes.data();
    for (std::size_t line = 0; line < cells.lines; ++line) {
        libscols_line *added = scols_table_new_line(table.get(), nullptr);
        if (added == nullptr)
            throw std::bad_alloc();
        for (std::size_t i = 0; i < columns.size(); ++i) {
            if (scols_line_set_data(added, i, cell) != 0)
                throw std::bad_alloc();
            cell += std::strlen(cell) + 1;
        }
        if (options.raw && (line + 1) % LINES_AT_ONCE == 0) {
            print_table(table);
            scols_table_remove_lines(table.get());
            scols_table_enable_noheadings(table.get(), 1);
        }
    }
    if (scols_table_is_empty(table.get()) == 0 || cells.lines == 0)
        print_table(table);
    finish_output();
}

std::string list_columns_help()
{
    std::string help = "Columns (* by default):\n";
    for (const Column &column : COLUMNS) {
        const std::string name = column.name;
        help += (column.by_default ? "* " : "  ") + name + std::string(13 - name.size(), ' ') + column.help + "\n";
    }
    return help;
}

} // namespace arsp
