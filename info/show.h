#ifndef ARSP_INFO_SHOW_H
#define ARSP_INFO_SHOW_H

#include <string>

namespace arsp {

/* Prints everything that is stored for the mailbox `address`: for a person, as JSON, or only the body, byte for byte.
 * Throws Failure, also when the mailbox has no autoresponder. */
enum class ShowFormat { text, json, body };
void show_autoresponder(const std::string &address, ShowFormat format);

} // namespace arsp

#endif
