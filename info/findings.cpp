#include "info/findings.h"

#include <algorithm>
#include <string_view>
#include <tuple>
#include <utility>

namespace arsp {

void Findings::add(Severity severity, const char *code, std::string object, std::string meaning, std::string repair)
{
    findings_.push_back({severity, code, std::move(object), std::move(meaning), std::move(repair)});
}

bool Findings::has(const char *code) const
{
    return std::any_of(findings_.begin(), findings_.end(),
                       [&](const Finding &finding) { return std::string_view(finding.code) == code; });
}

void Findings::sort()
{
    const auto key = [](const Finding &finding) {
        return std::tuple<Severity, std::string_view, std::string_view>(finding.severity, finding.object, finding.code);
    };
    std::stable_sort(findings_.begin(), findings_.end(),
                     [&](const Finding &a, const Finding &b) { return key(a) < key(b); });
}

std::size_t Findings::count(Severity severity) const
{
    return static_cast<std::size_t>(std::count_if(
        findings_.begin(), findings_.end(), [&](const Finding &finding) { return finding.severity == severity; }));
}

} // namespace arsp
