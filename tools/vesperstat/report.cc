#include "report.h"

#include <algorithm>
#include <utility>

namespace {

std::string plural(size_t count, const std::string &thing) {
    return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

// A problem with the name of what has it: "site-a: ward3: no connection for 5 min".
std::string sentence(const report_t &report, const problem_t &problem) {
    std::string text;
    for (const std::string &name : {report.instance, problem.line}) {
        text += name.empty() ? "" : name + ": ";
    }
    return text + problem.words;
}

}  // namespace

report_t make_report(status_files_t *files, const std::string &file, links_t links,
                     const limits_t &limits, double now) {
    report_t report{file, "", {}, {}};
    std::string error;
    if (files->read(file, links, &report.status, &error)) {
        report.problems = judge(report.status, limits, now);
    } else {
        report.status = {};
        report.problems = {
            {level_t::UNKNOWN, "unreadable", "", 0, "cannot read " + file + ": " + error}};
    }
    return report;
}

report_t report_passed_over(const std::string &directory, size_t count) {
    const std::string words = plural(count, "file") + " of " + directory +
                              " passed over: too many, or no names of instances";
    return {directory, "", {}, {{level_t::UNKNOWN, "too_many", "", 0, words}}};
}

void soften_while_a_line_works(std::vector<report_t> *reports) {
    if (std::none_of(reports->begin(), reports->end(), [](const report_t &report) {
            return has_working_line(report.status, report.problems);
        })) {
        return;
    }
    for (report_t &report : *reports) {
        for (problem_t &problem : report.problems) {
            if (problem.level == level_t::CRITICAL) {
                problem.level = level_t::WARNING;
            }
        }
    }
}

level_t worst_level(const std::vector<report_t> &reports) {
    level_t worst = level_t::OK;
    for (const report_t &report : reports) {
        worst = std::max(worst, worst_level(report.problems));
    }
    return worst;
}

std::vector<sentence_t> make_sentences(const std::vector<report_t> &reports) {
    std::vector<sentence_t> all;
    for (const report_t &report : reports) {
        for (const problem_t &problem : report.problems) {
            all.push_back({problem.level, sentence(report, problem)});
        }
    }
    std::stable_sort(all.begin(), all.end(),
                     [](const sentence_t &a, const sentence_t &b) { return a.level > b.level; });
    return all;
}

std::string make_summary(const std::vector<report_t> &reports, double now) {
    size_t count = 0;
    for (const report_t &report : reports) {
        count += report.status.lines.size();
    }
    const std::string lines = plural(count, "line");
    if (reports.size() != 1) {
        return lines + " of " + plural(reports.size(), "daemon");
    }
    const status_t &status = reports.front().status;
    return lines + ", vesperd " + status.version + " runs for " +
           duration_words(now - status.start);
}
