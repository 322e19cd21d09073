#include "cli/run.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <sstream>
#include <string>

#include <unistd.h>

#include <boost/program_options/errors.hpp>
#include <boost/program_options/parsers.hpp>
#include <boost/program_options/variables_map.hpp>

#include "cli/commands.h"
#include "cli/options.h"
#include "support/stream.h"

using namespace arsp;

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
        return 1; /* showing the page is not a success: no command ran */
    }
    return run_command(vm) == 0 ? 0 : 1;
}

/* Gives access to protected members of the library's errors. Never instantiated. */
struct OptionError : po::error_with_option_name {
    static std::string message(po::error_with_option_name &error);
};

/* The library replaces "%value%" and the like in its messages until none is left, which never ends when the inserted
 * argument contains the same word. In that case a NUL, which no argument contains, replaces each percent sign while the
 * library works. */
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
    error.what(); /* builds the message */
    std::string message = error.*&OptionError::m_message;
    std::replace(message.begin(), message.end(), '\0', '%');
    return message;
}

} // namespace

int arsp::run_command_line(int argc, char *argv[])
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

void arsp::exit_without_memory()
{
    write_text(stdout, "Error: std::bad_alloc\n");
    _exit(1);
}
