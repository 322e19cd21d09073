#ifndef ARSP_TESTS_UNIT_SUPPORT_LITTLE_MEMORY_H
#define ARSP_TESTS_UNIT_SUPPORT_LITTLE_MEMORY_H

#include <cerrno>
#include <cstdlib>
#include <cstring>

/* In a program that includes this header, strdup fails when copies_left is 0. */

constexpr int AS_MANY_AS_ASKED_FOR = -1;

inline int copies_left = AS_MANY_AS_ASKED_FOR; /* by strdup */

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

#endif
