#include "plugin.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "printable.h"

namespace {

// The words of plugins, by level.
constexpr std::array<const char *, 5> WORDS = {"OK", "OK", "WARNING", "UNKNOWN", "CRITICAL"};

constexpr double NO_LIMIT = -1;

// Performance data: 'label'=value[unit];warning;critical;minimum
class performance_t {
  public:
    explicit performance_t(const limits_t &limits) : limits_(limits) {}

    void add(const report_t &report, double now) {
        if (report.status.written <= 0) {
            return;
        }
        add_seconds(report, "age", now - report.status.written, NO_LIMIT, limits_.age);
        if (!is_running(report.problems)) {
            return;
        }
        for (const line_status_t &line : report.status.lines) {
            add_line(report, line, now);
        }
    }

    const std::string &text() const { return text_; }

  private:
    void add_line(const report_t &report, const line_status_t &line, double now) {
        const double in_state = now - line.state_since;
        const bool is_down = is_unconnected(line.state) || line.state == line_state_t::ENDED;
        const bool is_busy = !is_down && line.state != line_state_t::IDLE;
        const double last = line.last_message > 0 ? line.last_message : report.status.start;
        add_seconds(report, line.line + "_down", is_down ? in_state : 0, NO_LIMIT, limits_.down);
        add_seconds(report, line.line + "_busy", is_busy ? in_state : 0, NO_LIMIT, limits_.down);
        add_seconds(report, line.line + "_silent", now - last,
                    limits_.silence > 0 ? limits_.silence : NO_LIMIT, NO_LIMIT);
        add_count(report, line.line + "_messages", line.messages);
        add_count(report, line.line + "_check_errors", line.check_errors);
        add_count(report, line.line + "_failed_actions", sum_of(line.actions, "failed"));
    }

    void add_label(const report_t &report, const std::string &label) {
        std::string name = (report.instance.empty() ? "" : report.instance + "_") + label;
        std::replace_if(
            name.begin(), name.end(), [](char c) { return c == '\'' || c == '='; }, '_');
        text_ += " '" + name + "'=";
    }

    void add_seconds(const report_t &report, const std::string &label, double seconds,
                     double warning, double critical) {
        add_label(report, label);
        const auto limit = [](double value) {
            return value >= 0 ? std::to_string(std::lround(value)) : "";
        };
        text_ += std::to_string(std::lround(std::max(seconds, 0.0))) + "s;" + limit(warning) + ";" +
                 limit(critical) + ";0";
    }

    void add_count(const report_t &report, const std::string &label, int64_t count) {
        add_label(report, label);
        text_ += std::to_string(count) + "c";
    }

    limits_t limits_;
    std::string text_;
};

// Text for one line of a plugin, in which a bar begins the performance data.
std::string plugin_text(std::string text) {
    std::replace(text.begin(), text.end(), '|', '/');
    return printable(std::move(text));
}

}  // namespace

std::string report_check(const std::vector<report_t> &reports, const limits_t &limits, double now) {
    const level_t level = worst_level(reports);
    std::string text = std::string("VESPERD ") + WORDS[static_cast<size_t>(level)] + " - ";
    const char *separator = "";
    for (const sentence_t &wrong : make_sentences(reports)) {
        text += separator + wrong.text;
        separator = ", ";
    }
    if (level == level_t::OK) {
        text += make_summary(reports, now);
    }
    performance_t performance(limits);
    for (const report_t &report : reports) {
        performance.add(report, now);
    }
    const std::string bar = performance.text().empty() ? "" : " |";
    return plugin_text(text) + bar + plugin_text(performance.text()) + "\n";
}

int check_status(level_t level) noexcept {
    constexpr std::array<int, 5> STATUSES = {0, 0, 1, 3, 2};
    return STATUSES[static_cast<size_t>(level)];
}
