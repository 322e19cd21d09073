#ifndef ARSP_STORE_RESPONDER_VFS_H
#define ARSP_STORE_RESPONDER_VFS_H

#include <climits>

#include <sqlite3.h>

namespace arsp {

/* SQLite's default VFS with two more rules, for one connection. The directory of the database belongs to the mail user,
 * and its content must not decide which files root opens or deletes:
 *
 * - A symbolic link at the database's own path is followed only if root owns it; otherwise opening fails with
 *   SQLITE_CANTOPEN. Links above it are followed: their directories belong to root.
 * - Only the rollback journal and the WAL file of this database are deleted. Deleting any other name, such as one read
 *   from a planted journal, does nothing and succeeds.
 *
 * The object must outlive the connection that is opened with its name(). */
class ResponderVfs : private sqlite3_vfs {
public:
    ResponderVfs();
    ResponderVfs(const ResponderVfs &) = delete;
    ResponderVfs &operator=(const ResponderVfs &) = delete;
    ~ResponderVfs();

    /* The name for sqlite3_open_v2; null when SQLite had no memory to register the VFS. */
    const char *name() const { return registered_ ? zName : nullptr; }

    /* The directory of the database and its journal, with all links resolved; "" before the database is opened. */
    const char *directory() const { return directory_; }

private:
    static int fullPathname(sqlite3_vfs *vfs, const char *path, int size, char *resolved);
    static int deleteFile(sqlite3_vfs *vfs, const char *path, int sync_directory);

    sqlite3_vfs *default_vfs_;
    bool registered_ = false;
    char name_[32] = "";
    char database_[PATH_MAX] = ""; /* the path that SQLite uses */
    char directory_[PATH_MAX] = "";
};

} // namespace arsp

#endif
