#include "cli/mail_address_option.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include <boost/program_options/value_semantic.hpp>

#include "support/mail_syntax.h"
#include "support/text.h"

namespace po = boost::program_options;

namespace arsp {

void validate(boost::any &value, const std::vector<std::string> &tokens, MailAddressTOpt *, int)
{
    po::validators::check_first_occurrence(value);
    std::string address = po::validators::get_single_string(tokens);

    if (std::count(address.begin(), address.end(), '@') != 1)
        throw std::runtime_error(address + " - incorrect email address format");
    const std::size_t at = address.find('@');
    const std::string local_part = address.substr(0, at);
    if (!mail_local_part_is_valid(local_part.c_str()))
        throw std::runtime_error(local_part + " - incorrect format of local part of email address");
    const std::string domain = address.substr(at + 1);
    if (!mail_domain_is_valid(domain.c_str()))
        throw std::runtime_error(domain + " - incorrect format of domain part of email address");

    str_tolower(address.data()); /* after the checks: their messages quote what was typed */
    value = MailAddressTOpt{std::move(address)};
}

} // namespace arsp
