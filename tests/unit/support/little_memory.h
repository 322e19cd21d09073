#ifndef ARSP_TESTS_UNIT_SUPPORT_LITTLE_MEMORY_H
#define ARSP_TESTS_UNIT_SUPPORT_LITTLE_MEMORY_H

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <limits>

#include <dlfcn.h>

/* In a program that includes this header, strdup fails when copies_left is 0, and realloc above largest_block. */

constexpr int AS_MANY_AS_ASKED_FOR = -1;
constexpr size_t ANY_SIZE = std::numeric_limits<size_t>::max();

inline int copies_left = AS_MANY_AS_ASKED_FOR; /* by strdup */
inline size_t largest_block = ANY_SIZE;        /* that realloc returns */

/* The linker takes this for strdup. */
inline char *strdup_of_little_memory(const char *text) __asm__("strdup") __attribute__((used));
inline char *strdup_of_little_memory(const char *text)
{
    if (copies_left == 0) {
        errno = ENOMEM;
        return nullptr;
    }
    if (copies_left > 0)
        --copies_left;
    const size_t size = std::strlen(text) + 1;
    void *copy = std::malloc(size);
    return copy == nullptr ? nullptr : static_cast<char *>(std::memcpy(copy, text, size));
}

/* The linker takes this for realloc. */
inline void *realloc_of_little_memory(void *block, size_t size) __asm__("realloc") __attribute__((used));
inline void *realloc_of_little_memory(void *block, size_t size)
{
    static const auto real_realloc = reinterpret_cast<void *(*)(void *, size_t)>(dlsym(RTLD_NEXT, "realloc"));
    if (size > largest_block) {
        errno = ENOMEM;
        return nullptr;
    }
    return real_realloc(block, size);
}

#endif
