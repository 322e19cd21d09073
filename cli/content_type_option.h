#ifndef ARSP_CLI_CONTENT_TYPE_OPTION_H
#define ARSP_CLI_CONTENT_TYPE_OPTION_H

#include <iosfwd>
#include <string>
#include <vector>

#include <boost/any.hpp>

namespace arsp {

/* The content type of a reply body: "text/plain" or "text/html". */
struct ContentType {
    std::string text;
};

/* Writes the text. The help page uses it for the default. */
std::ostream &operator<<(std::ostream &stream, const ContentType &content_type);

/* The option library calls this for each occurrence of the option. Sets `value` to a ContentType. Accepts the two types
 * and their short forms "plain" and "html", in lower case only. Throws the library's errors for a second occurrence,
 * for any number of tokens but one, and for any other text (invalid_option_value). */
void validate(boost::any &value, const std::vector<std::string> &tokens, ContentType *, int);

} // namespace arsp

#endif
