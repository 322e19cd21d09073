#include "info/check.h"

#include <string>

#include <nlohmann/json.hpp>

#include "info/check_files.h"
#include "info/check_place.h"
#include "info/check_rows.h"
#include "info/database.h"
#include "info/findings.h"
#include "info/output.h"
#include "info/printable.h"

namespace arsp {

namespace {

const char *name_of(Severity severity)
{
    return SEVERITIES[static_cast<int>(severity)];
}

Findings find_everything(const MailUser &mail_user)
{
    Findings findings;
    check_place(mail_user, findings);
    AttachmentRows rows;
    try {
        Database db = Database::openFile().copyToMemory();
        rows = check_rows(mail_user, db, findings);
    } catch (const DatabaseFailure &failure) {
        add_database_failure(mail_user, failure, findings);
        return findings;
    }
    check_files(mail_user, rows, findings);
    return findings;
}

void print_text(const Findings &findings)
{
    for (const Finding &finding : findings.all())
        print(std::string(name_of(finding.severity)) + " " + finding.code + ": " + printable(finding.object) + " " +
              printable(finding.meaning) + "; repair: " + finding.repair + "\n");
    std::string summary;
    for (const Severity severity : {Severity::error, Severity::warning, Severity::note}) {
        const std::size_t count = findings.count(severity);
        summary +=
            (summary.empty() ? "" : ", ") + std::to_string(count) + " " + name_of(severity) + (count == 1 ? "" : "s");
    }
    print(summary + "\n");
}

void print_json(const Findings &findings)
{
    using Json = nlohmann::ordered_json;
    Json list = Json::array();
    for (const Finding &finding : findings.all()) {
        list.push_back({{"severity", name_of(finding.severity)},
                        {"code", finding.code},
                        {"object", json_text(finding.object)},
                        {"meaning", json_text(finding.meaning)},
                        {"repair", finding.repair}});
    }
    const Json summary = {{"errors", findings.count(Severity::error)},
                          {"warnings", findings.count(Severity::warning)},
                          {"notes", findings.count(Severity::note)}};
    print(Json({{"findings", list}, {"summary", summary}}).dump(2) + "\n");
}

} // namespace

int check_everything(const MailUser &mail_user, bool json)
{
    Findings findings = find_everything(mail_user);
    findings.sort();
    if (json)
        print_json(findings);
    else
        print_text(findings);
    finish_output();
    return findings.count(Severity::note) == findings.all().size() ? 0 : 1;
}

} // namespace arsp
