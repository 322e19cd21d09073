/* Makes allocations of the tool fail and counts them. The programs that the tool starts are not affected.
 *   ALLOCATION_FAILS   "N": the N-th since the start of the program; "N+": that and all later ones; "=SIZE": those of
 *                      SIZE bytes that the program itself requests; "calloc": those that it requests of calloc();
 *                      "vasprintf": those of vasprintf(); "@NAME": those that the library NAME requests
 *   ALLOCATION_REPORT  the file that receives the number of allocations at the end, or a deadly signal */

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include <dlfcn.h>
#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

extern "C" {
void *__libc_malloc(std::size_t size);
void *__libc_calloc(std::size_t number, std::size_t size);
void *__libc_realloc(void *block, std::size_t size);
void *__libc_memalign(std::size_t alignment, std::size_t size);
}

namespace {

bool counting = false;
bool in_getpwnam = false;
long count = 0;
long failing = 0; /* 0: none */
bool all_later = false;
std::size_t failing_size = 0; /* 0: none */
bool calloc_fails = false;
bool vasprintf_fails = false;
const char *failing_library = nullptr;
int report = -1;

bool requested_by(const char *name, void *caller)
{
    Dl_info object;
    return dladdr(caller, &object) != 0 && std::strstr(object.dli_fname, name) != nullptr;
}

bool refused(std::size_t size, void *caller, bool chosen = false)
{
    if (!counting)
        return false;
    ++count;
    if ((failing == 0 || (all_later ? count < failing : count != failing)) &&
        ((!chosen && (failing_size == 0 || size != failing_size)) || !requested_by("arspctl", caller)) &&
        (failing_library == nullptr || !requested_by(failing_library, caller)))
        return false;
    errno = ENOMEM;
    return true;
}

void report_signal(int number)
{
    counting = false;
    dprintf(report, "signal %d at allocation %ld%s\n", number, count, in_getpwnam ? " in getpwnam" : "");
    signal(number, SIG_DFL);
    raise(number);
}

__attribute__((constructor)) void begin()
{
    const char *which = std::getenv("ALLOCATION_FAILS");
    const char *path = std::getenv("ALLOCATION_REPORT");
    counting = which != nullptr || path != nullptr;
    if (counting)
        unsetenv("LD_PRELOAD");
    if (which != nullptr) {
        char *end = nullptr;
        calloc_fails = std::strcmp(which, "calloc") == 0;
        vasprintf_fails = std::strcmp(which, "vasprintf") == 0;
        failing = std::strtol(which, &end, 10);
        all_later = *end == '+';
        failing_library = *which == '@' ? which + 1 : nullptr;
        failing_size = *which == '=' ? std::strtoul(which + 1, nullptr, 10) : 0;
    }
    if (path != nullptr) {
        report = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        for (const int number : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL})
            signal(number, report_signal);
    }
}

__attribute__((destructor)) void end()
{
    counting = false;
    if (report >= 0)
        dprintf(report, "%ld allocations\n", count);
}

} // namespace

#define REFUSED(size) refused(size, __builtin_return_address(0))

extern "C" {

void *malloc(std::size_t size)
{
    return REFUSED(size) ? nullptr : __libc_malloc(size);
}

void *calloc(std::size_t number, std::size_t size)
{
    return refused(number * size, __builtin_return_address(0), calloc_fails) ? nullptr : __libc_calloc(number, size);
}

void *realloc(void *block, std::size_t size)
{
    return REFUSED(size) ? nullptr : __libc_realloc(block, size);
}

void *aligned_alloc(std::size_t alignment, std::size_t size)
{
    return REFUSED(size) ? nullptr : __libc_memalign(alignment, size);
}

int posix_memalign(void **block, std::size_t alignment, std::size_t size)
{
    *block = aligned_alloc(alignment, size);
    return *block == nullptr ? ENOMEM : 0;
}

int vasprintf(char **text, const char *format, va_list arguments)
{
    if (!vasprintf_fails)
        return reinterpret_cast<decltype(&vasprintf)>(dlsym(RTLD_NEXT, "vasprintf"))(text, format, arguments);
    errno = ENOMEM;
    return -1;
}

int __vasprintf_chk(char **text, int /*flag*/, const char *format, va_list arguments)
{
    return vasprintf(text, format, arguments);
}

/* The C library's own getpwnam() crashes without memory. */
struct passwd *getpwnam(const char *name)
{
    in_getpwnam = true;
    struct passwd *const entry = reinterpret_cast<decltype(&getpwnam)>(dlsym(RTLD_NEXT, "getpwnam"))(name);
    in_getpwnam = false;
    return entry;
}

} // extern "C"
