#include "support/mail_syntax.h"

#include <cctype>
#include <cstring>

#include "support/c_handles.h"

using namespace arsp;

namespace {

constexpr size_t LOCAL_PART_MAX = 245; /* bytes; wider than the usual 64 on purpose */
constexpr size_t DOMAIN_MAX = 255;
constexpr size_t LABEL_MAX = 63;

/* Compares letters instead of classifying them: in some locales isalpha accepts bytes above 127. */
bool is_letter_or_digit(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || std::isdigit(static_cast<unsigned char>(c)) != 0;
}

} // namespace

int mail_local_part_is_valid(const char *text)
{
    if (text == nullptr)
        return 0;
    const size_t length = std::strlen(text);
    if (length < 1 || length > LOCAL_PART_MAX)
        return 0;
    if (text[0] == '.' || text[length - 1] == '.' || std::strstr(text, "..") != nullptr)
        return 0;
    for (const char *byte = text; *byte != '\0'; ++byte) {
        if (!is_letter_or_digit(*byte) && std::strchr(".-_&+'", *byte) == nullptr)
            return 0;
    }
    return 1;
}

int mail_domain_is_valid(const char *text)
{
    if (text == nullptr)
        return 0;
    const size_t length = std::strlen(text);
    if (length < 1 || length > DOMAIN_MAX)
        return 0;
    size_t label = 0; /* length of the label so far */
    for (const char *byte = text; *byte != '\0'; ++byte) {
        if (*byte == '.') {
            if (label == 0 || byte[-1] == '-')
                return 0;
            label = 0;
        } else {
            if (!is_letter_or_digit(*byte) && (*byte != '-' || label == 0))
                return 0;
            if (++label > LABEL_MAX)
                return 0;
        }
    }
    return label > 0 ? 1 : 0; /* a hyphen at the end of the last label has always been valid */
}

int mail_address_is_valid(const char *text)
{
    const char *at = text == nullptr ? nullptr : std::strchr(text, '@');
    if (at == nullptr)
        return 0;
    CString local_part(strndup(text, static_cast<size_t>(at - text)));
    const int local_part_valid = mail_local_part_is_valid(local_part.get()); /* null, without memory, is not */
    local_part.reset();
    return local_part_valid != 0 ? mail_domain_is_valid(at + 1) : 0;
}
