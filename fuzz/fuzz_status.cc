// Any status file: every report on it comes to an end, and nothing in it reaches a terminal as
// anything but text.

#include "fuzz.h"
#include "printable.h"
#include "vesperstat/json.h"
#include "vesperstat/plugin.h"
#include "vesperstat/report.h"
#include "vesperstat/table.h"

namespace {

constexpr double NOW = 1'000'030;  // half a minute behind what the seeds have

// Lines of printable text.
void require_harmless(std::string_view report) {
    require(report.ends_with('\n'));
    while (!report.empty()) {
        const size_t end = report.find('\n');
        require(printable(report.substr(0, end)) == report.substr(0, end));
        report.remove_prefix(end + 1);
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text = stretched(as_text(data, size));
    limits_t limits;
    limits.silence = 1;
    report_t report{"status.prom", "one", {}, {}};
    std::string error;
    if (parse_status(text, &report.status, &error)) {
        report.problems = judge(report.status, limits, NOW);
    } else {
        report.status = {};
        report.problems = {{level_t::UNKNOWN, "unreadable", "", 0, error}};
    }
    std::vector<report_t> reports = {report, report_passed_over("/run", 2)};
    for (int with_few = 0; with_few < 2; with_few++) {
        require_harmless(report_table(reports, NOW, false));
        require_harmless(report_json(reports, NOW));
        require_harmless(report_check(reports, limits, NOW));
        reports.pop_back();
        soften_while_a_line_works(&reports);
    }
    return 0;
}
