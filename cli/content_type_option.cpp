#include "cli/content_type_option.h"

#include <ostream>

#include <boost/program_options/errors.hpp>
#include <boost/program_options/value_semantic.hpp>

namespace po = boost::program_options;

namespace arsp {

std::ostream &operator<<(std::ostream &stream, const ContentType &content_type)
{
    return stream << content_type.text;
}

void validate(boost::any &value, const std::vector<std::string> &tokens, ContentType *, int)
{
    po::validators::check_first_occurrence(value);
    const std::string &token = po::validators::get_single_string(tokens);

    for (const char *spelling : {"text/plain", "plain", "text/html", "html"}) {
        if (token == spelling) {
            value = ContentType{token.find('/') == std::string::npos ? "text/" + token : token};
            return;
        }
    }
    throw po::invalid_option_value(token);
}

} // namespace arsp
