#ifndef ARSP_TESTS_UNIT_SUPPORT_SCRATCH_DIR_H
#define ARSP_TESTS_UNIT_SUPPORT_SCRATCH_DIR_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>

#include <sys/stat.h>

/* A new directory for one test, removed with its contents. */
class ScratchDir {
public:
    ScratchDir()
    {
        path_ = (std::filesystem::temp_directory_path() / "arsp-unit-XXXXXX").string();
        if (mkdtemp(path_.data()) == nullptr)
            std::abort();
        chmod(path_.c_str(), 0755);
    }
    ScratchDir(const ScratchDir &) = delete;
    ScratchDir &operator=(const ScratchDir &) = delete;
    ~ScratchDir()
    {
        std::error_code ignored; /* a destructor must not throw */
        std::filesystem::remove_all(path_, ignored);
    }

    const std::string &path() const { return path_; }
    std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }

    /* Writes a file and returns its path. */
    std::string file(std::string_view name, std::string_view text = "") const
    {
        std::string path = *this / name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }

private:
    std::string path_;
};

inline std::string file_text(const std::string &path)
{
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

/* Returns the status of a file or link; all zero if it does not exist. */
inline struct stat file_status(const std::string &path)
{
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0)
        status = {};
    return status;
}

/* Returns "MODE UID:GID", or "missing". */
inline std::string owned(const std::string &path)
{
    const struct stat status = file_status(path);
    if (status.st_mode == 0)
        return "missing";
    std::ostringstream text;
    text << std::oct << (status.st_mode & 07777U) << std::dec << " " << status.st_uid << ":" << status.st_gid;
    return text.str();
}

inline unsigned permissions(const std::string &path)
{
    return file_status(path).st_mode & 07777U;
}

#endif
