#ifndef ARSP_INFO_LIST_H
#define ARSP_INFO_LIST_H

#include <string>

namespace arsp {

/* Options of arspinfo list. */
struct ListOptions {
    std::string domain;  /* empty: all */
    std::string columns; /* as for lsblk: "A,B", or "+A,B" to add to the default ones; empty: the default ones */
    bool json = false;
    bool raw = false;
    bool noheadings = false;
};

/* Prints a line for each autoresponder, ordered by mail name. Throws Failure. */
void list_autoresponders(const ListOptions &options);

/* The names of the columns with their descriptions, for the help page. */
std::string list_columns_help();

} // namespace arsp

#endif
