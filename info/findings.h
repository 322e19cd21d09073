#ifndef ARSP_INFO_FINDINGS_H
#define ARSP_INFO_FINDINGS_H

#include <string>
#include <vector>

namespace arsp {

/* Worst first. */
enum class Severity { error, warning, note };

constexpr const char *SEVERITIES[] = {"error", "warning", "note"};

/* One result of `check`. The texts hold bytes of the database or of file names; they are escaped when printed. */
struct Finding {
    Severity severity;
    const char *code; /* stable: scripts compare it */
    std::string object;
    std::string meaning; /* continues a sentence that begins with the object */
    std::string repair;  /* a command line of sh for root; see Repair */
};

/* The findings of a run, in the order in which they were made. */
class Findings {
public:
    void add(Severity severity, const char *code, std::string object, std::string meaning, std::string repair);

    bool has(const char *code) const;

    /* Sorts by severity, object and code. Findings that agree in all of these keep their order. */
    void sort();

    std::size_t count(Severity severity) const;

    const std::vector<Finding> &all() const { return findings_; }

private:
    std::vector<Finding> findings_;
};

} // namespace arsp

#endif
