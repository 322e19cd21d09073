#include "cli/commands.h"

#include <cstdint>
#include <string>

#include "cli/content_type_option.h"
#include "cli/mail_address_option.h"
#include "cli/required_option.h"
#include "store/attachments.h"
#include "store/autoresponder_row.h"
#include "store/del_resp.h"
#include "store/extra_headers.h"
#include "store/init_db.h"
#include "store/set_resp.h"

namespace po = boost::program_options;

namespace {

const std::string &text(const po::variables_map &vm, const char *option)
{
    return vm[option].as<std::string>();
}

std::int32_t number(const po::variables_map &vm, const char *option)
{
    return vm[option].as<std::int32_t>();
}

const std::string &content_type(const po::variables_map &vm, const char *option)
{
    return vm[option].as<arsp::ContentType>().text;
}

const std::string &mail_address(const po::variables_map &vm, const char *option)
{
    return vm[option].as<arsp::MailAddressTOpt>().address;
}

int run_init_db(const po::variables_map &)
{
    return init_responder_db();
}

int run_set_resp(const po::variables_map &vm)
{
    return arsp::set_resp({
        .keystr = text(vm, "key-str"),
        .key_where = text(vm, "key-where"),
        .subject = text(vm, "subj"),
        .reply_to = text(vm, "reply-to"),
        .forward_to = text(vm, "forward-to"),
        .content_type = content_type(vm, "content-type"),
        .charset = text(vm, "charset"),
        .body = {}, /* set_resp reads it from standard input */
        .ans_freq = number(vm, "ans-freq"),
        .ans_limit = number(vm, "ans-limit"),
        .real_owner = mail_address(vm, "real-owner"),
        .mn = mail_address(vm, "mailname"),
    });
}

int run_del_resp(const po::variables_map &vm)
{
    return arsp::del_resp(mail_address(vm, "mailname"));
}

int run_add_attach(const po::variables_map &vm)
{
    return arsp::add_attach(text(vm, "source"), text(vm, "filename"), mail_address(vm, "mailname"));
}

int run_del_attach(const po::variables_map &vm)
{
    return arsp::del_attach(mail_address(vm, "mailname"), text(vm, "filename"));
}

int run_set_extra_headers(const po::variables_map &)
{
    return set_extra_headers_command();
}

constexpr int MOST_REQUIRED = 3;

struct Command {
    const char *flag;
    const char *required[MOST_REQUIRED]; /* checked in this order; unused elements are null */
    int (*run)(const po::variables_map &);
};

/* The first flag given wins. */
constexpr Command COMMANDS[] = {
    {"init-db", {}, run_init_db},
    {"set-resp", {"mailname", "real-owner"}, run_set_resp},
    {"del-resp", {"mailname"}, run_del_resp},
    {"add-attach", {"mailname", "filename", "source"}, run_add_attach},
    {"del-attach", {"mailname", "filename"}, run_del_attach},
    {"set-extra-headers", {}, run_set_extra_headers},
};

} // namespace

int run_command(const po::variables_map &vm)
{
    for (const Command &command : COMMANDS) {
        if (vm.count(command.flag) == 0)
            continue;
        for (const char *option : command.required) {
            if (option != nullptr)
                require_option(vm, option);
        }
        return command.run(vm);
    }
    return 0;
}
