/* Definitions of libm's functions that load libm at the first call. Only SQL functions of SQLite call them, and no
 * command uses those (a trigger may); loading libm at start-up would cost every run 5 % of its time.
 * Linked only together with a static SQLite: a shared one loads libm itself. */
#include <cmath>
#include <exception>

#include <dlfcn.h>

namespace {

/* Returns the function in libm. Ends the run if libm cannot be loaded: SQLite needs the right number, and no exception
 * may pass through its C code. */
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
