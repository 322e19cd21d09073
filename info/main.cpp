#include <clocale>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "info/check.h"
#include "info/export.h"
#include "info/failure.h"
#include "info/list.h"
#include "info/output.h"
#include "info/rights.h"
#include "info/show.h"
#include "support/conf.h"
#include "support/log.h"
#include "support/startup.h"

namespace {

using namespace arsp;

constexpr int FAILED = 1;
constexpr int COULD_NOT_CHECK = 2;

/* Reads the panel's configuration as the caller, then gives up the caller's rights. */
MailUser prepare(bool keep_root)
{
    conf_load(); /* ignored: without the file the defaults apply */
    return become_mail_user(keep_root);
}

int run(int argc, char *argv[])
{
    CLI::App app("Shows, checks and exports the mail autoresponders of the panel.", "arspinfo");
    app.require_subcommand(1);
    app.set_help_flag("-h,--help", "Print this help and exit");

    ListOptions list_options;
    CLI::App *list = app.add_subcommand("list", "List the autoresponders, one per line");
    list->add_option("--domain", list_options.domain, "Only the mailboxes of this domain")->type_name("NAME");
    list->add_option("-o,--output", list_options.columns, "Columns to print; +COLUMNS adds to the default ones")
        ->type_name("COLUMNS");
    CLI::Option *list_json = list->add_flag("-J,--json", list_options.json, "Print JSON");
    list->add_flag("-r,--raw", list_options.raw, "Print one blank between columns, blanks escaped")
        ->excludes(list_json);
    list->add_flag("-n,--noheadings", list_options.noheadings, "Do not print the headings");
    list->footer(list_columns_help());

    std::string address;
    bool show_json = false;
    bool show_body = false;
    CLI::App *show = app.add_subcommand("show", "Show everything about one mailbox");
    show->add_option("address", address, "Mail name")->required()->type_name("ADDRESS");
    CLI::Option *json_option = show->add_flag("-J,--json", show_json, "Print JSON");
    show->add_flag("--body", show_body, "Print the body alone, byte for byte")->excludes(json_option);

    bool check_json = false;
    CLI::App *check = app.add_subcommand("check", "Report what is wrong with the database and the attachments");
    check->add_flag("-J,--json", check_json, "Print JSON");

    ExportOptions export_options;
    CLI::App *exporting =
        app.add_subcommand("export", "Write everything to a new directory, with a script to restore it");
    exporting->add_option("directory", export_options.directory, "New directory")->required()->type_name("DIRECTORY");
    exporting->add_option("addresses", export_options.addresses, "Only these mailboxes")->type_name("ADDRESS");
    exporting->add_option("--domain", export_options.domain, "Only the mailboxes of this domain")->type_name("NAME");

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp &) {
        print(app.help());
        finish_output();
        return 0;
    } catch (const CLI::ParseError &error) {
        complain(error.what());
        return check->parsed() ? COULD_NOT_CHECK : FAILED;
    }

    try {
        const MailUser user = prepare(exporting->parsed());
        if (check->parsed())
            return check_everything(user, check_json);
        if (exporting->parsed())
            return export_everything(export_options);
        if (list->parsed())
            list_autoresponders(list_options);
        else
            show_autoresponder(address, show_body ? ShowFormat::body : show_json ? ShowFormat::json : ShowFormat::text);
        return 0;
    } catch (const std::exception &error) {
        complain(error.what());
        return check->parsed() ? COULD_NOT_CHECK : FAILED;
    }
}

} // namespace

int main(int argc, char *argv[])
{
    if (secure_standard_streams() != 0)
        return FAILED;
    /* A reader that has seen enough, as in "| head", is no failure. A cut-off export does not look complete. */
    std::signal(SIGPIPE, SIG_DFL);
    std::setlocale(LC_ALL, "");
    log_init("none", LOG_ERR, LOG_MAIL, 0, nullptr); /* failures are reported on standard error, and only there */
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        complain(error.what());
        return FAILED;
    }
}
