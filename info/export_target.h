#ifndef ARSP_INFO_EXPORT_TARGET_H
#define ARSP_INFO_EXPORT_TARGET_H

#include <string>
#include <string_view>

#include <sys/stat.h>
#include <sys/types.h>

#include "info/rights.h"
#include "support/c_handles.h"

namespace arsp {

/* The new directory. Only the caller may write it, who is root: what is made in it takes root's rights, and everything
 * goes through its descriptor. All functions throw Failure. */
class ExportTarget {
public:
    /* Makes the directory, or takes one that is empty. */
    explicit ExportTarget(const std::string &path);

    void makeDirectory(const char *name);

    /* Makes a file of which the caller is the only owner. The rights are the caller's matter: to take them takes longer
     * than to make the file. */
    Descriptor create(const RootRights &, const std::string &name, mode_t mode = 0600) const;

    void remove(const std::string &name) const;
    void write(const std::string &name, std::string_view bytes, mode_t mode = 0600) const;

    /* Writes to a file from create(). */
    void write(int file, const std::string &name, std::string_view bytes) const;

    /* Waits until all files are on the disk, and then writes the last one, which appears complete or not at all. */
    void complete(const char *name, std::string_view bytes) const;

private:
    [[noreturn]] void fail(const std::string &name) const;

    std::string path_;
    Descriptor directory_;
};

/* Copies a file and leaves its holes out: a file that claims to be huge takes no more room than the original. Returns
 * false with `errno` set. */
bool copy_data(int source, int target, const struct stat &status);

} // namespace arsp

#endif
