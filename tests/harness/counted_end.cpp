/* Linked into the programs of the preset "coverage": adds the counts of a process to those of the others, whether it
 * ends by exit or by _exit, as another user, or with a limit that it has reached. */

#include <csignal>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" {
extern int __llvm_profile_runtime;
int __llvm_profile_runtime = 0; /* its definition here replaces the start and end of the compiler's library */
void __llvm_profile_initialize_file();
int __llvm_profile_write_file();
}

namespace {

[[gnu::destructor]] void add_counts()
{
    const rlimit unlimited = {RLIM_INFINITY, RLIM_INFINITY};
    setrlimit(RLIMIT_FSIZE, &unlimited);
    setrlimit(RLIMIT_AS, &unlimited);
    close(STDIN_FILENO); /* one descriptor is free, whatever the limit */
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDERR_FILENO); /* tests check standard error; a root that does not show the profiles causes a message */
    close(null);
    umask(0); /* other users add to the same files */
    __llvm_profile_initialize_file();
    __llvm_profile_write_file();
}

} // namespace

/* Replaces _exit. */
extern "C" [[noreturn]] void counted_end(int status) __asm__("_exit");
extern "C" void counted_end(int status)
{
    add_counts();
    syscall(SYS_exit_group, status);
    __builtin_unreachable();
}
