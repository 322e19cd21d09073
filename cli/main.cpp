#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <exception>
#include <iterator>
#include <sstream>
#include <string>

#include <poll.h>
#include <sys/uio.h>
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

namespace po = boost::program_options;

namespace {

/* Writes the three texts to standard output as one piece, so that runs that share it do not mix their lines. Allocates
 * nothing: it also reports that memory ran out. What cannot be written is lost; the exit status says the same. */
void print(const char *prefix, const char *text, const char *suffix)
{
    iovec pieces[] = {{const_cast<char *>(prefix), std::strlen(prefix)},
                      {const_cast<char *>(text), std::strlen(text)},
                      {const_cast<char *>(suffix), std::strlen(suffix)}};
    iovec *rest = pieces;
    iovec *const end = std::end(pieces);
    while (rest != end) {
        const ssize_t answer = writev(STDOUT_FILENO, rest, static_cast<int>(end - rest));
        if (answer < 0 && errno == EINTR)
            continue;
        if (answer < 0 && errno == EAGAIN) { /* the caller's pipe does not block, and it is full */
            pollfd room = {STDOUT_FILENO, POLLOUT, 0};
            poll(&room, 1, -1);
            continue;
        }
        if (answer <= 0)
            return;
        auto written = static_cast<std::size_t>(answer);
        while (rest != end && written >= rest->iov_len)
            written -= (rest++)->iov_len;
        if (rest != end) {
            rest->iov_base = static_cast<char *>(rest->iov_base) + written;
            rest->iov_len -= written;
        }
    }
}

int run(int argc, char *argv[])
{
    const po::options_description options = all_options();
    po::variables_map vm;
    po::store(po::parse_command_line(argc, argv, options), vm);
    po::notify(vm);

    if (argc <= 1 || vm.count("help") != 0) {
        std::ostringstream page;
        page << options;
        print(page.str().c_str(), "\n", "");
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
        print("Error: ", OptionError::message(error).c_str(), "\n");
    } catch (const std::exception &error) {
        print("Error: ", error.what(), "\n");
    } catch (...) {
        print("Unknown error", "", "\n");
    }
    return 1;
}

/* The run-time library aborts when not even an exception finds memory for itself. */
[[noreturn]] void report_no_memory()
{
    print("Error: ", "std::bad_alloc", "\n");
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
