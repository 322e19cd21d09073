#include "support/dir_stream.h"

#include <cerrno>
#include <cstring>

namespace arsp {

DirPtr open_dir_stream(Descriptor directory)
{
    DirPtr stream(directory ? fdopendir(directory.get()) : nullptr);
    if (stream != nullptr)
        directory.release(); /* closedir closes it */
    return stream;
}

const char *next_entry(DIR *stream)
{
    errno = 0;
    const dirent *entry = nullptr;
    do
        entry = readdir(stream);
    while (entry != nullptr && (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0));
    return entry != nullptr ? entry->d_name : nullptr;
}

} // namespace arsp
