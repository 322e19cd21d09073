#ifndef ARSP_INFO_RECORDS_H
#define ARSP_INFO_RECORDS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include <sys/stat.h>

#include "info/database.h"
#include "support/c_handles.h"

namespace arsp {

/* A number as stored: `valid` if --set-resp could have written it. */
struct StoredNumber {
    std::string text; /* empty for NULL */
    bool valid = false;
};

/* One row of autoresponder. A NULL reads as an empty text. */
struct Autoresponder {
    std::string mn, real_owner, subject, content_type, charset, key_where, keystr, forward_to, reply_to, body;
    StoredNumber ans_freq, ans_limit;
    bool all_text = false; /* no text is NULL or of another type */
};

/* Selects Autoresponder's columns from autoresponder, in the order that read_autoresponder expects. */
extern const char SELECT_AUTORESPONDERS[];

Autoresponder read_autoresponder(Query &row);

/* Returns the mail name of the autoresponder of `address`, which is stored as given or else in lower case. Throws
 * Failure "ADDRESS has no autoresponder". */
std::string find_mail_name(Database &db, const std::string &address);

struct Header {
    std::int64_t rowid;
    std::string name, value;
};

std::vector<Header> read_headers(Database &db);

/* The text with the letters of ASCII in lower case. */
std::string lower_case(std::string text);

/* Whether --set-resp stores the address unchanged. */
bool is_stored_address(const std::string &address);

/* Whether `name` can be that of an attachment: one name of a path. */
bool is_file_name(const std::string &name);

/* The permissions of a file as chmod takes them: four octal digits. */
std::string mode_text(mode_t mode);

/* The attachment directory of a mailbox, held open. Reads with the rights of the process; below the root of the mail
 * names it follows the links that arspctl follows. */
class AttachmentFolder {
public:
    explicit AttachmentFolder(const std::string &owner);

    const std::string &path() const { return path_; }

    /* The length of the part of path() that is trusted: the root of the mail names. */
    std::size_t rootLength() const { return root_length_; }

    std::string pathOf(const std::string &name) const { return path_ + "/" + name; }

    /* The descriptor; negative with errorNumber() set when the directory could not be opened. */
    int get() const { return directory_.get(); }
    int errorNumber() const { return error_; }

    /* Returns 0 and the status of the entry itself, or -1 with `errno` set; ENOENT for what cannot be a file's name. */
    int status(const std::string &name, struct stat &entry) const;

    /* Opens a regular file for reading without waiting, and returns its status as well. An empty descriptor has set
     * `errno`. */
    Descriptor open(const std::string &name, struct stat &entry) const;

private:
    std::string path_;
    std::size_t root_length_;
    Descriptor directory_;
    int error_ = 0;
};

} // namespace arsp

#endif
