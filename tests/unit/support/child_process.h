#ifndef ARSP_TESTS_UNIT_SUPPORT_CHILD_PROCESS_H
#define ARSP_TESTS_UNIT_SUPPORT_CHILD_PROCESS_H

#include <cstdio>
#include <string>

#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

/* The result of a child process. */
struct ChildResult {
    int exit_status; /* -1 if a signal ended it */
    std::string out; /* its standard output */
    std::string err; /* its standard error */
};

inline std::string whole_file(int fd)
{
    struct stat status = {};
    fstat(fd, &status);
    std::string text(static_cast<size_t>(status.st_size), '\0');
    text.resize(static_cast<size_t>(pread(fd, text.data(), text.size(), 0)));
    return text;
}

/* Runs `body`, which may end its process, in a child. If it returns, the exit status is 0. */
template <typename Body>
ChildResult run_in_child(Body body)
{
    std::fflush(nullptr); /* otherwise the child would write the same text */
    const int out = memfd_create("out", MFD_CLOEXEC);
    const int err = memfd_create("err", MFD_CLOEXEC);
    const pid_t child = fork();
    if (child == 0) {
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        body();
        std::fflush(nullptr);
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ChildResult result = {WIFEXITED(status) ? WEXITSTATUS(status) : -1, whole_file(out), whole_file(err)};
    close(out);
    close(err);
    return result;
}

/* The user and group `nobody`, for calls that must fail without the rights of root. */
constexpr uid_t NOBODY = 65534;

inline void become_nobody()
{
    if (setresgid(NOBODY, NOBODY, NOBODY) != 0 || setresuid(NOBODY, NOBODY, NOBODY) != 0)
        _exit(99);
}

#endif
