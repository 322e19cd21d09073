#ifndef ARSP_INFO_FAILURE_H
#define ARSP_INFO_FAILURE_H

#include <stdexcept>

namespace arsp {

/* Ends a command with one line on standard error. The text may hold bytes from the database or from file names: it is
 * escaped when it is printed. */
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/* A usable database is missing; `code` is the finding that `check` makes of it. */
struct DatabaseFailure : Failure {
    DatabaseFailure(const char *finding, const std::string &text) : Failure(text), code(finding) {}
    const char *code;
};

} // namespace arsp

#endif
