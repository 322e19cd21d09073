/* Makes allocations of the tool fail, by LD_PRELOAD, and counts them. Only the tool's: what it starts is spared.
 *   ALLOCATION_FAILS   "N": the N-th from the start of the program on; "N+": and all after it; absent: none
 *   ALLOCATION_REPORT  a file to which the count is written at the end, or, at a deadly signal, where that happened */

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>

#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <unistd.h>
#include <unwind.h>

namespace {

bool counting = false;
long count = 0;
long failing = 0; /* 0: none */
bool for_ever = false;
int report = -1;

/* Whether the allocation that is asked for has to fail. */
bool refused()
{
    if (!counting)
        return false;
    ++count;
    return failing != 0 && (count == failing || (for_ever && count > failing));
}

/* The functions that this library stands in front of. */
template <typename Function>
struct Real {
    const char *name;
    Function *function = nullptr;
    Function *get()
    {
        if (function == nullptr)
            function = reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
        return function;
    }
};

Real<void *(std::size_t)> real_malloc = {"malloc"};
Real<void *(std::size_t, std::size_t)> real_calloc = {"calloc"};
Real<void *(void *, std::size_t)> real_realloc = {"realloc"};
Real<int(void **, std::size_t, std::size_t)> real_posix_memalign = {"posix_memalign"};
Real<void *(std::size_t, std::size_t)> real_aligned_alloc = {"aligned_alloc"};

struct Trace {
    void *frames[64];
    int depth;
};

_Unwind_Reason_Code add_frame(_Unwind_Context *context, void *argument)
{
    Trace *trace = static_cast<Trace *>(argument);
    if (trace->depth == 64)
        return _URC_END_OF_STACK;
    trace->frames[trace->depth++] = reinterpret_cast<void *>(_Unwind_GetIP(context));
    return _URC_NO_REASON;
}

/* Tells where, without an allocation: unlike backtrace(), which loads a library first. */
void died(int number)
{
    counting = false;
    Trace trace = {};
    _Unwind_Backtrace(add_frame, &trace);
    dprintf(report, "signal %d at allocation %ld\n", number, count);
    backtrace_symbols_fd(trace.frames, trace.depth, report);
    signal(number, SIG_DFL);
    raise(number);
}

__attribute__((constructor)) void begin()
{
    const char *path = std::getenv("ALLOCATION_REPORT");
    if (path == nullptr)
        return; /* a program that the tool has started */
    report = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    for (const int number : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL})
        signal(number, died);
    if (const char *which = std::getenv("ALLOCATION_FAILS"); which != nullptr) {
        char *end = nullptr;
        failing = std::strtol(which, &end, 10);
        for_ever = *end == '+';
    }
    unsetenv("LD_PRELOAD");
    unsetenv("ALLOCATION_FAILS");
    unsetenv("ALLOCATION_REPORT");
    counting = true;
}

__attribute__((destructor)) void end()
{
    counting = false;
    if (report >= 0)
        dprintf(report, "%ld allocations\n", count);
}

void *none()
{
    errno = ENOMEM;
    return nullptr;
}

} // namespace

extern "C" {

void *malloc(std::size_t size)
{
    return refused() ? none() : real_malloc.get()(size);
}

void *calloc(std::size_t number, std::size_t size)
{
    return refused() ? none() : real_calloc.get()(number, size);
}

void *realloc(void *block, std::size_t size)
{
    return refused() ? none() : real_realloc.get()(block, size);
}

int posix_memalign(void **block, std::size_t alignment, std::size_t size)
{
    return refused() ? ENOMEM : real_posix_memalign.get()(block, alignment, size);
}

void *aligned_alloc(std::size_t alignment, std::size_t size)
{
    return refused() ? none() : real_aligned_alloc.get()(alignment, size);
}

} // extern "C"
