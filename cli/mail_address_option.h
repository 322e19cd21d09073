#ifndef ARSP_CLI_MAIL_ADDRESS_OPTION_H
#define ARSP_CLI_MAIL_ADDRESS_OPTION_H

#include <string>
#include <vector>

#include <boost/any.hpp>

namespace arsp {

/* The value of an option that takes a mail address: local@domain, valid and in lower case. */
struct MailAddressTOpt {
    std::string address;
};

/* The option library calls this for each occurrence of such an option. Sets `value` to a MailAddressTOpt. Throws the
 * library's errors for a second occurrence and for any number of tokens but one, and std::runtime_error for an invalid
 * address: its message quotes the invalid part and does not name the option. */
void validate(boost::any &value, const std::vector<std::string> &tokens, MailAddressTOpt *, int);

} // namespace arsp

#endif
