#ifndef ARSP_SUPPORT_WHITE_SPACE_H
#define ARSP_SUPPORT_WHITE_SPACE_H

#include <cctype>

namespace arsp {

/* isspace for a byte of any value, in the process's locale. */
inline bool is_space(char c)
{
    return std::isspace(static_cast<unsigned char>(c)) != 0;
}

} // namespace arsp

#endif
