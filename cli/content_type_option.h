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

/* Writes the text; the help page shows the option's default with it. */
std::ostream &operator<<(std::ostream &stream, const ContentType &content_type);

/* Called by the option library for each occurrence of the option; puts a ContentType into `value`. Accepts the two
 * types and their short forms "plain" and "html", in these very bytes. Throws the library's errors for an option given
 * twice, not exactly one token, or any other text (invalid_option_value). */
void validate(boost::any &value, const std::vector<std::string> &tokens, ContentType *, int);

} // namespace arsp

#endif
