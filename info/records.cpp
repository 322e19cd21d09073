#include "info/records.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <limits>

#include <fcntl.h>

#include "info/failure.h"
#include "store/attachment_dir.h"
#include "store/mail_tree.h"
#include "support/mail_syntax.h"

namespace arsp {

const char SELECT_AUTORESPONDERS[] = "SELECT mn,real_owner,subject,content_type,charset,key_where,keystr,forward_to,"
                                     "reply_to,body,ans_freq,ans_limit FROM autoresponder ";

namespace {

StoredNumber read_number(Query &row, int column)
{
    StoredNumber number;
    const bool integer = row.type(column) == SQLITE_INTEGER;
    const std::int64_t value = integer ? row.number(column) : 0;
    number.valid = integer && value >= std::numeric_limits<std::int32_t>::min() &&
                   value <= std::numeric_limits<std::int32_t>::max();
    number.text = row.text(column);
    return number;
}

} // namespace

bool is_file_name(const std::string &name)
{
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
           name.find('\0') == std::string::npos;
}

std::string lower_case(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char byte) { return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte - 'A' + 'a') : byte; });
    return text;
}

bool is_stored_address(const std::string &address)
{
    return address.find('\0') == std::string::npos && mail_address_is_valid(address.c_str()) != 0 &&
           lower_case(address) == address;
}

Autoresponder read_autoresponder(Query &row)
{
    Autoresponder result;
    int column = 0;
    result.all_text = true;
    for (std::string *text : {&result.mn, &result.real_owner, &result.subject, &result.content_type, &result.charset,
                              &result.key_where, &result.keystr, &result.forward_to, &result.reply_to, &result.body}) {
        result.all_text = result.all_text && row.type(column) == SQLITE_TEXT;
        *text = row.text(column++);
    }
    result.ans_freq = read_number(row, column++);
    result.ans_limit = read_number(row, column);
    return result;
}

std::string find_mail_name(Database &db, const std::string &address)
{
    Query row(db, "SELECT mn FROM autoresponder WHERE mn IN (?1,lower(?1)) ORDER BY mn<>?1");
    if (!row.bind(address).next())
        throw Failure(address + " has no autoresponder");
    return std::string(row.text(0));
}

std::vector<Header> read_headers(Database &db)
{
    std::vector<Header> headers;
    Query rows(db, "SELECT rowid,name,value FROM extra_headers ORDER BY rowid");
    while (rows.next())
        headers.push_back({rows.number(0), std::string(rows.text(1)), std::string(rows.text(2))});
    return headers;
}

std::string mode_text(mode_t mode)
{
    char text[8];
    std::snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
    return text;
}

AttachmentFolder::AttachmentFolder(const std::string &owner)
{
    const AttachmentDir dir(owner);
    path_ = dir.path();
    root_length_ = dir.rootLength();
    directory_ = open_mail_directory(path_, dir.rootLength());
    error_ = directory_ ? 0 : errno;
}

int AttachmentFolder::status(const std::string &name, struct stat &entry) const
{
    if (!directory_ || !is_file_name(name)) {
        errno = directory_ ? ENOENT : error_;
        return -1;
    }
    return fstatat(directory_.get(), name.c_str(), &entry, AT_SYMLINK_NOFOLLOW);
}

Descriptor AttachmentFolder::open(const std::string &name, struct stat &entry) const
{
    if (status(name, entry) != 0)
        return Descriptor();
    if (!S_ISREG(entry.st_mode)) { /* opening a device or a pipe may change it */
        errno = EINVAL;
        return Descriptor();
    }
    Descriptor file(openat(directory_.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file && (fstat(file.get(), &entry) != 0 || !S_ISREG(entry.st_mode))) {
        file.reset(-1);
        errno = EINVAL;
    }
    return file;
}

} // namespace arsp
