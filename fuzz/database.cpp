/* A hostile database: list, show and check end with a result or a Failure, and change nothing. The input is the file;
 * what follows the line "JOURNAL" is the file of its rollback journal. */

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

#include "fuzz/check.h"
#include "info/check.h"
#include "info/failure.h"
#include "info/list.h"
#include "info/show.h"
#include "store/schema.h"
#include "support/conf.h"
#include "support/log.h"

using namespace arsp;

namespace {

namespace fs = std::filesystem;

constexpr MailUser MAIL_USER_IDS = {1110, 31};
const std::string JOURNAL = std::string(RESPONDER_DB_PATH) + "-journal";

std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

template <typename Command>
void run(Command command)
{
    try {
        command();
    } catch (const Failure &) { /* the database is refused */
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    expect(fs::exists("/.private-root"), "runs only in a private root");
    expect(std::freopen("/dev/null", "w", stdout) != nullptr, "/dev/null cannot be opened");
    fs::create_directories(fs::path(RESPONDER_DB_PATH).parent_path());
    log_init("none", LOG_ERR, LOG_MAIL, 0, nullptr);
    conf_load(); /* ignored: without the file the defaults apply */
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    constexpr std::string_view MARK = "\nJOURNAL\n";
    const std::string_view input(reinterpret_cast<const char *>(data), size);
    const std::size_t end = input.find(MARK);
    const std::string_view journal = end == std::string_view::npos ? "" : input.substr(end + MARK.size());
    fs::remove(JOURNAL);
    write_file(RESPONDER_DB_PATH, input.substr(0, end));
    if (!journal.empty())
        write_file(JOURNAL, journal);

    run([] { list_autoresponders({}); });
    ListOptions everything;
    everything.json = true;
    everything.columns = "+OWNER,CHARSET,LIMIT,FORWARD,REPLYTO";
    run([&] { list_autoresponders(everything); });
    run([] { show_autoresponder("anna@example.org", ShowFormat::text); });
    run([] { show_autoresponder("anna@example.org", ShowFormat::json); });
    run([] { (void)check_everything(MAIL_USER_IDS, true); });

    expect_equal(read_file(RESPONDER_DB_PATH), input.substr(0, end), "the database after reading it");
    expect_equal(read_file(JOURNAL), journal, "the journal after reading the database");
    return 0;
}
