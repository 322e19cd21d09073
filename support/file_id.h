#ifndef ARSP_SUPPORT_FILE_ID_H
#define ARSP_SUPPORT_FILE_ID_H

#include <sys/stat.h>

namespace arsp {

/* Identifies a file under all its names, as long as it exists. */
struct FileId {
    explicit FileId(const struct stat &status) : device(status.st_dev), inode(status.st_ino) {}
    bool operator==(const FileId &) const = default;

    dev_t device;
    ino_t inode;
};

} // namespace arsp

#endif
