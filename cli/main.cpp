#include <cstring>
#include <exception>

#include <syslog.h>

#include "cli/run.h"
#include "support/conf.h"
#include "support/log.h"
#include "support/startup.h"
#include "support/write_deadline.h"

int main(int argc, char *argv[])
{
    std::set_terminate(arsp::exit_without_memory);
    if (secure_standard_streams() != 0)
        return 1;
    arsp::enable_write_deadlines(); /* a run may hold a database lock while it writes */
    log_init(nullptr, LOG_ERR, LOG_MAIL, LOG_PERROR, argc > 0 ? basename(argv[0]) : nullptr);
    conf_load(); /* ignored: without the file the defaults apply */
    return arsp::run_command_line(argc, argv);
}
