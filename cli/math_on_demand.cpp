/* Stands in for libm, which nothing of the program needs but SQLite's SQL functions of the same names. No command uses
 * those; a trigger in the database may. Loading libm anyway would take every run a twentieth of its time, so the first
 * call does it. Part of the program only where SQLite is: as a shared library SQLite brings libm along by itself. */
#include <cmath>
#include <exception>

#include <dlfcn.h>

namespace {

/* The function in libm. Without it, or without the memory to load it, the run ends as without memory: a statement may
 * only be given the right number, and SQLite's C between here and main() lets no exception through. */
void *in_libm(const char *name)
{
    static void *const libm = dlopen("libm.so.6", RTLD_NOW);
    void *function = libm != nullptr ? dlsym(libm, name) : nullptr;
    if (function == nullptr)
        std::terminate();
    return function;
}

} // namespace

#define OF_ONE_NUMBER(name)                                                                                            \
    double name(double x)                                                                                              \
    {                                                                                                                  \
        static auto *const function = reinterpret_cast<double (*)(double)>(in_libm(#name));                            \
        return function(x);                                                                                            \
    }

#define OF_TWO_NUMBERS(name)                                                                                           \
    double name(double x, double y)                                                                                    \
    {                                                                                                                  \
        static auto *const function = reinterpret_cast<double (*)(double, double)>(in_libm(#name));                    \
        return function(x, y);                                                                                         \
    }

extern "C" {
OF_ONE_NUMBER(acos)
OF_ONE_NUMBER(acosh)
OF_ONE_NUMBER(asin)
OF_ONE_NUMBER(asinh)
OF_ONE_NUMBER(atan)
OF_TWO_NUMBERS(atan2)
OF_ONE_NUMBER(atanh)
OF_ONE_NUMBER(cos)
OF_ONE_NUMBER(cosh)
OF_ONE_NUMBER(exp)
OF_TWO_NUMBERS(fmod)
OF_ONE_NUMBER(log)
OF_TWO_NUMBERS(pow)
OF_ONE_NUMBER(sin)
OF_ONE_NUMBER(sinh)
OF_ONE_NUMBER(sqrt)
OF_ONE_NUMBER(tan)
OF_ONE_NUMBER(tanh)
OF_ONE_NUMBER(trunc)
}
