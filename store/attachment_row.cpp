#include "store/attachment_row.h"

namespace arsp {

StepResult replace_attachment_row(ResponderDb &db, std::string_view mn, std::string_view filename,
                                  const std::function<int()> &restart)
{
    return run_statement(db, "REPLACE INTO attachments VALUES (?, ?  );", {{"mailname", mn}, {"filename", filename}},
                         restart);
}

} // namespace arsp
