#include "cli/options.h"

#include <cstdint>
#include <initializer_list>
#include <string>

#include <boost/program_options/value_semantic.hpp>

#include "cli/content_type_option.h"
#include "cli/mail_address_option.h"

namespace po = boost::program_options;

namespace {

/* The type and default of an option's value. The group that the option is added to becomes its owner. */
using OptionValue = const po::value_semantic *;

constexpr OptionValue FLAG = nullptr;

OptionValue text()
{
    return po::value<std::string>();
}

OptionValue text_or(const char *default_text)
{
    return po::value<std::string>()->default_value(default_text);
}

OptionValue number_or(std::int32_t default_number)
{
    return po::value<std::int32_t>()->default_value(default_number);
}

OptionValue content_type_or(const char *default_type)
{
    return po::value<arsp::ContentType>()->default_value(arsp::ContentType{default_type});
}

OptionValue mail_address()
{
    return po::value<arsp::MailAddressTOpt>();
}

struct OptionRow {
    const char *name;
    OptionValue value;
    const char *help;
};

po::options_description group(const char *caption, std::initializer_list<OptionRow> rows)
{
    po::options_description options(caption);
    for (const OptionRow &row : rows) {
        if (row.value == FLAG)
            options.add_options()(row.name, row.help);
        else
            options.add_options()(row.name, row.value, row.help);
    }
    return options;
}

} // namespace

po::options_description all_options()
{
    po::options_description all("");
    all.add(group("Allowed commands",
                  {
                      {"init-db", FLAG, "Init autoresponder db"},
                      {"set-resp", FLAG, "Add or Update autoresponder"},
                      {"del-resp", FLAG, "Delete autoresponder"},
                      {"add-attach", FLAG, "Add attachment to autoresponder"},
                      {"del-attach", FLAG, "Delete attachment from autoresponder"},
                      {"set-extra-headers", FLAG, "Set extra auto-reply headers (expects JSON on stdin)"},
                      {"help,h", FLAG, "Display this help page."},
                  }));
    all.add(group("REQUIRED option for all autoresponder and attachments manipulation commands",
                  {
                      {"mailname", mail_address(), "Autoresponder owner email address"},
                  }));
    all.add(group("REQUIRED option for all attachments manipulation commands",
                  {
                      {"filename", text(), "Attachment file name to manipulate with"},
                  }));
    all.add(
        group("Add and Update autoresponder command options",
              {
                  {"key-str", text_or(""), "Key string to look for to trigger response"},
                  /* "Wehere" stays misspelt: the help page is an interface */
                  {"key-where", text_or("no"), "Wehere to look for key string (no, subj, body)"},
                  {"subj", text_or("Re: <request_subject>"), "Response message subject"},
                  {"reply-to", text_or(""), "Response message 'Reply To:' header value"},
                  {"forward-to", text_or(""), "Email address to forward original message to"},
                  {"content-type", content_type_or("text/plain"),
                   "Response message body content type (text/plain, text/html)"},
                  {"charset", text_or("UTF-8"), "Response message body charset to convert to before send"},
                  {"ans-freq", number_or(10), "Per email address answer limit per day"},
                  {"ans-limit", number_or(1000), "(DEPRECATED)"},
                  {"real-owner", mail_address(), "Mailname with physical mail box to which message will be delivered"},
              }));
    all.add(group("Add attachment to autoresponder command options",
                  {
                      {"source", text(), "Source file to use as an attachment"},
                  }));
    return all;
}
