#ifndef ARSP_CLI_MAIL_ADDRESS_OPTION_H
#define ARSP_CLI_MAIL_ADDRESS_OPTION_H

#include <string>
#include <vector>

#include <boost/any.hpp>

namespace arsp {

/* The value of an option that takes a mail address: local@domain, checked and in lower case. */
struct MailAddressTOpt {
    std::string address;
};

/* Called by the option library for each occurrence of such an option; puts a MailAddressTOpt into `value`.
 * Throws the library's errors for an option given twice or not exactly one token, and std::runtime_error for an
 * address that is not acceptable: its message quotes the offending piece and does not name the option. */
void validate(boost::any &value, const std::vector<std::string> &tokens, MailAddressTOpt *, int);

} // namespace arsp

#endif
