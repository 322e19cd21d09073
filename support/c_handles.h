#ifndef ARSP_SUPPORT_C_HANDLES_H
#define ARSP_SUPPORT_C_HANDLES_H

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <memory>

/* Owners of what C hands out. They own inside a function; its signature lends or gives away the plain pointer. */

/* Puts errno back, when its scope ends, to what it was when its scope began. */
class KeepErrno {
public:
    KeepErrno() = default;
    KeepErrno(const KeepErrno &) = delete;
    KeepErrno &operator=(const KeepErrno &) = delete;
    ~KeepErrno() { errno = saved_; }
    int saved() const { return saved_; } /* errno as it was when the scope began */

private:
    const int saved_ = errno;
};

struct CloseFile {
    void operator()(FILE *file) const
    {
        const KeepErrno keep;
        std::fclose(file); /* unexamined: the owner only reads, whoever writes closes by hand */
    }
};
using FilePtr = std::unique_ptr<FILE, CloseFile>;

struct CloseDir {
    void operator()(DIR *dir) const
    {
        const KeepErrno keep;
        closedir(dir);
    }
};
using DirPtr = std::unique_ptr<DIR, CloseDir>;

struct FreeMemory {
    void operator()(void *memory) const
    {
        const KeepErrno keep; /* POSIX lets free() change it */
        std::free(memory);
    }
};
using CString = std::unique_ptr<char, FreeMemory>; /* text from malloc: xasprintf, strdup, str_dup_lower */

/* The buffer of getdelim() and getline(), which replace the pointer that they are given, so no unique_ptr fits. */
struct LineBuffer {
    LineBuffer() = default;
    LineBuffer(const LineBuffer &) = delete;
    LineBuffer &operator=(const LineBuffer &) = delete;
    ~LineBuffer() { FreeMemory()(text); }

    char *text = nullptr;
    size_t size = 0; /* bytes allocated, not the length of the line */
};

#endif
