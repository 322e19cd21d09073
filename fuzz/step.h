#ifndef ARSP_FUZZ_STEP_H
#define ARSP_FUZZ_STEP_H

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/check.h"

namespace arsp {

/* A command or an act of the mail side: one line of an input. */
struct Step {
    char verb;
    std::size_t mailbox; /* the letter as a number; the tables below take the remainder */
    std::size_t operand;
    std::string text;
};

/* A mail address on the command line and in the database. */
struct Address {
    const char *given;  /* null: the option is missing */
    const char *stored; /* null: the option is refused */
};
constexpr Address ADDRESSES[] = {{"anna@example.org", "anna@example.org"},
                                 {"bob@example.net", "bob@example.net"},
                                 {"Anna@Example.ORG", "anna@example.org"},
                                 {"c-d.e@localhost", "c-d.e@localhost"},
                                 {"anna@", nullptr},
                                 {nullptr, nullptr}};

template <typename Element, std::size_t SIZE>
const Element &pick(const Element (&table)[SIZE], std::size_t number)
{
    return table[number % SIZE];
}

inline std::vector<Step> read_steps(std::string_view bytes)
{
    std::vector<Step> steps;
    while (!bytes.empty()) {
        std::string line(take_line(bytes));
        std::replace(line.begin(), line.end(), '\0', '\n');
        const auto number = [&](std::size_t i) {
            return i < line.size() ? static_cast<std::size_t>(static_cast<unsigned char>(line[i] - 'a')) : 0;
        };
        if (!line.empty())
            steps.push_back({line[0], number(1), number(2), line.substr(std::min<std::size_t>(3, line.size()))});
    }
    return steps;
}

} // namespace arsp

#endif
