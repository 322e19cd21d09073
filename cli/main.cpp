#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <sstream>
#include <string>

#include <syslog.h>
#include <unistd.h>

#include <boost/program_options/errors.hpp>
#include <boost/program_options/parsers.hpp>
#include <boost/program_options/variables_map.hpp>

#include "cli/commands.h"
#include "cli/options.h"
#include "cli/startup.h"
#include "support/conf.h"
#include "support/log.h"
#include "support/stream.h"

namespace po = boost::program_options;

namespace {

int run(int argc, char *argv[])
{
    const po::options_description options = all_options();
    po::variables_map vm;
    po::store(po::parse_command_line(argc, argv, options), vm);
    po::notify(vm);

    if (argc <= 1 || vm.count("help") != 0) {
        std::ostringstream page;
        page << options;
        write_text(stdout, page.str(), "\n");
        return 1; /* nothing was done: showing the page is no success */
    }
    return run_command(vm) == 0 ? 0 : 1;
}

/* Gives access to what the library's errors keep to themselves; never made. */
struct OptionError : po::error_with_option_name {
    static std::string message(po::error_with_option_name &error);
};

/* The library fills its messages in by replacing "%value%" and the like until none is left, and never ends when the
 * argument that it fills in holds the same word. Then a NUL, which no argument holds, stands for each percent sign
 * meanwhile. */
std::string OptionError::message(po::error_with_option_name &error)
{
    auto &texts = error.*&OptionError::m_substitutions;
    const bool endless = std::any_of(texts.begin(), texts.end(), [](const auto &entry) {
        return entry.second.find("%" + entry.first + "%") != std::string::npos ||
               entry.second.find("%canonical_option%") != std::string::npos;
    });
    if (!endless)
        return error.what();
    for (auto &entry : texts)
        std::replace(entry.second.begin(), entry.second.end(), '%', '\0');
    static_cast<void>(error.what());
    std::string message = error.*&OptionError::m_message;
    std::replace(message.begin(), message.end(), '\0', '%');
    return message;
}

/* The command line's problems arrive as exceptions, and so does what a command did not foresee. */
int run_guarded(int argc, char *argv[])
{
    try {
        return run(argc, argv);
    } catch (po::error_with_option_name &error) {
        write_text(stdout, "Error: ", OptionError::message(error), "\n");
    } catch (const std::exception &error) {
        write_text(stdout, "Error: ", error.what(), "\n");
    } catch (...) {
        write_text(stdout, "Unknown error\n");
    }
    return 1;
}

/* The run-time library aborts when not even an exception finds memory for itself. */
[[noreturn]] void report_no_memory()
{
    write_text(stdout, "Error: std::bad_alloc\n");
    _exit(1);
}

} // namespace

int main(int argc, char *argv[])
{
    std::set_terminate(report_no_memory);
    if (secure_standard_streams() != 0)
        return 1;
    log_init(nullptr, LOG_ERR, LOG_MAIL, LOG_PERROR, argc > 0 ? basename(argv[0]) : nullptr);
    conf_load(); /* without the file the defaults hold; who needs a value deals with its absence */
    return run_guarded(argc, argv);
}
