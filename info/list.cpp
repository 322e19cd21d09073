#include "info/list.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include <libsmartcols.h>
#include <stdio_ext.h>
#include <strings.h>

#include "info/database.h"
#include "info/failure.h"
#include "info/output.h"
#include "info/printable.h"

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
    const char *counted = nullptr; /* SQL: the rows `c` that belong to `a`; `expression` then sums them up */
    const char *none = "";         /* the value without such rows */
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
    {"ATTACHMENTS", "count(*)", Kind::number, true, "number of attachments", "attachments c ON c.mn=a.mn", "0"},
    {"REPLIES", "count(*)||'/'||CAST(total(c.num) AS INTEGER)", Kind::word, true,
     "senders answered within a day, and replies sent to them",
     /* the mail side counts anew after a day */
     "resp_freq c ON c.mn=a.mn AND c.time_resp>CAST(strftime('%s','now') AS INTEGER)-86400", "0/0"},
};

/* The mailboxes that are listed; ?1 is the domain, if one is chosen. */
constexpr char CHOSEN[] = " WHERE ?1='' OR substr(a.mn,instr(a.mn,'@')+1)=lower(?1)";

/* Lines of raw output in libsmartcols' memory; the other formats need all of them, for the widths. */
constexpr std::size_t LINES_AT_ONCE = 128;

constexpr std::uint64_t LARGEST_COPIED_FILE = 32U << 20U; /* bytes; larger databases would take too much memory */

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

/* What is listed. The cells of all lines are one text: 100,000 lines need no allocation each. */
struct Rows {
    using Counts = std::unordered_map<std::int64_t, std::string>; /* by rowid; the mailboxes that have any */

    std::string cells; /* of the columns that are not counted, line by line, each ended by a NUL byte */
    std::vector<std::int64_t> rowids;
    std::vector<Counts> counts; /* of each column; none for those that are not counted */
};

/* In raw output libsmartcols escapes blanks and every byte that is not a printable character, so a cell holds the value
 * itself. A cell cannot hold NUL. A value with NUL is therefore escaped by printable() as well, and so is a value that
 * already looks like that: undoing both escapes in turn restores every value. */
bool is_escaped_twice(std::string_view value)
{
    return value.find('\0') != std::string_view::npos || value.find("\\x") != std::string_view::npos;
}

void append_cell(std::string &cells, std::string_view value, const ListOptions &options)
{
    if (options.json)
        cells += json_text(value);
    else if (options.raw && !is_escaped_twice(value))
        cells += value;
    else
        cells += printable(value);
    cells += '\0';
}

void read_cells(Database &db, const ListOptions &options, const std::vector<const Column *> &columns, Rows &result)
{
    std::string sql = "SELECT a.rowid";
    for (const Column *column : columns) {
        if (column->counted == nullptr)
            sql.append(",").append(column->expression);
    }
    Query rows(db, sql + " FROM autoresponder a" + CHOSEN + " ORDER BY a.mn");
    rows.bind(options.domain);
    while (rows.next()) {
        result.rowids.push_back(rows.number(0));
        int cell = 1;
        for (const Column *column : columns) {
            if (column->counted == nullptr)
                append_cell(result.cells, rows.text(cell++), options);
        }
    }
}

/* Counts for all mailboxes in one query: one for each takes several times as long. */
Rows::Counts read_counts(Database &db, const ListOptions &options, const Column &column)
{
    Query rows(db, std::string("SELECT a.rowid,") + column.expression + " FROM autoresponder a CROSS JOIN " +
                       column.counted + CHOSEN + " GROUP BY a.mn");
    rows.bind(options.domain);
    Rows::Counts counts;
    while (rows.next())
        counts.emplace(rows.number(0), rows.text(1));
    return counts;
}

/* Reads a copy, or else in one transaction. Either lock ends before anything is printed: a reader of the output that
 * stops must not hold up arspctl. */
Rows read_rows(const ListOptions &options, const std::vector<const Column *> &columns)
{
    Database file = Database::openFile();
    Database db = file.size() <= LARGEST_COPIED_FILE ? file.copyToMemory() : std::move(file);
    Rows rows;
    read_cells(db, options, columns, rows); /* first: it finds out soon if a damaged tree has no end */
    for (const Column *column : columns)
        rows.counts.push_back(column->counted != nullptr ? read_counts(db, options, *column) : Rows::Counts());
    return rows;
}

/* libsmartcols reports no other error than a lack of memory. */
void require_memory(bool enough)
{
    if (!enough)
        throw std::bad_alloc();
}

struct FreeTable {
    void operator()(libscols_table *table) const { scols_unref_table(table); }
};
using Table = std::unique_ptr<libscols_table, FreeTable>;

Table make_table(const ListOptions &options, const std::vector<const Column *> &columns)
{
    Table table(scols_new_table());
    require_memory(table != nullptr && scols_table_set_name(table.get(), "autoresponders") == 0);
    scols_table_enable_json(table.get(), options.json);
    scols_table_enable_raw(table.get(), options.raw);
    scols_table_enable_noheadings(table.get(), options.noheadings);
    scols_table_enable_noencoding(table.get(), 1); /* printable() has escaped the cells */
    for (const Column *column : columns) {
        const int flags = column->kind == Kind::number ? SCOLS_FL_RIGHT
                          : column->kind == Kind::text ? SCOLS_FL_TRUNC
                                                       : 0;
        libscols_column *added = scols_table_new_column(table.get(), column->name, 0, flags);
        require_memory(added != nullptr);
        scols_column_set_json_type(added, column->kind == Kind::number ? SCOLS_JSON_NUMBER : SCOLS_JSON_STRING);
    }
    return table;
}

/* Appends to the std::string `text`; a write function of fopencookie(), which returns 0 for an error. */
ssize_t append(void *text, const char *bytes, std::size_t size) noexcept
{
    try {
        static_cast<std::string *>(text)->append(bytes, size);
        return static_cast<ssize_t>(size);
    } catch (const std::bad_alloc &) {
        return 0;
    }
}

/* Prints the lines of the table through print(), which keeps the reason of a failed write. The stream is not that of
 * open_memstream(), which reports no lack of memory: libsmartcols does not look at the results of its writes. */
void print_table(const Table &table)
{
    std::string text;
    FILE *stream = fopencookie(&text, "w", {nullptr, append, nullptr, nullptr});
    require_memory(stream != nullptr);
    __fsetlocking(stream, FSETLOCKING_BYCALLER); /* libsmartcols writes single characters */
    scols_table_set_stream(table.get(), stream);
    const int rc = scols_print_table(table.get());
    const bool complete = ferror(stream) == 0;
    require_memory(fclose(stream) == 0 && rc == 0 && complete);
    if (scols_table_is_json(table.get()) != 0)
        print(ascii_json(text));
    else
        print(text);
}

libscols_line *add_line(const Table &table)
{
    libscols_line *line = scols_table_new_line(table.get(), nullptr);
    require_memory(line != nullptr);
    return line;
}

} // namespace

void list_autoresponders(const ListOptions &options)
{
    const std::vector<const Column *> columns = choose_columns(options.columns);
    const Rows rows = read_rows(options, columns);
    const Table table = make_table(options, columns);
    std::vector<libscols_line *> lines; /* of the table; those of raw output are filled again and again */
    std::size_t filled = 0;
    const char *cell = rows.cells.data();
    for (const std::int64_t rowid : rows.rowids) {
        if (filled == lines.size())
            lines.push_back(add_line(table));
        for (std::size_t i = 0; i < columns.size(); ++i) {
            const char *value = cell;
            if (columns[i]->counted != nullptr) {
                const auto count = rows.counts[i].find(rowid);
                value = count != rows.counts[i].end() ? count->second.c_str() : columns[i]->none;
            } else {
                cell += std::strlen(cell) + 1;
            }
            require_memory(scols_line_set_data(lines[filled], i, value) == 0);
        }
        ++filled;
        if (options.raw && filled == LINES_AT_ONCE) {
            print_table(table);
            scols_table_enable_noheadings(table.get(), 1);
            filled = 0;
        }
    }
    for (; lines.size() > filled; lines.pop_back())
        scols_table_remove_line(table.get(), lines.back());
    if (filled != 0 || rows.rowids.empty())
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
