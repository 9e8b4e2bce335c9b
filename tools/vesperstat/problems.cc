#include "problems.h"

#include <algorithm>
#include <cctype>
#include <cmath>

#include "first_look.h"

namespace {

// What takes longer than this in a line that works is worth a look.
constexpr double USUAL_SECONDS = 10;

constexpr std::string_view UNANSWERED = "unanswered";  // says nothing of the line
constexpr std::string_view NOT_LOADED = "load";        // nor of whether the daemon runs

constexpr double MINUTE = 60;
constexpr double HOUR = 60 * MINUTE;
constexpr double DAY = 24 * HOUR;

class judge_t {
  public:
    judge_t(const limits_t &limits, double now) : limits_(limits), now_(now) {}

    void judge_daemon(const status_t &status) {
        const double age = since(status.written);
        if (!status.is_up) {
            add(level_t::CRITICAL, "stopped", age, "vesperd ended " + duration_words(age) + " ago");
        } else if (age > limits_.age) {
            add(level_t::CRITICAL, "gone", age,
                "vesperd is gone, its status is " + duration_words(age) + " old");
        } else if (age < -limits_.age) {
            add(level_t::CRITICAL, "gone", 0,
                "vesperd is gone or the clock was set, its status is " + duration_words(-age) +
                    " ahead");
        }
    }

    void judge_load(const status_t &status) {
        if (!status.is_load_whole) {
            const std::string age = duration_words(since(status.load));
            add(level_t::WARNING, NOT_LOADED, 0,
                "the configuration could not be loaded, at least a part of it: the log says why, "
                "and "
                "in force is what was loaded " +
                    age + " ago");
        }
    }

    void judge_line(const line_status_t &line, double start) {
        line_ = line.line;
        judge_state(line);
        if (line.protocol != line.configured) {
            std::string name = line.protocol;
            std::transform(name.begin(), name.end(), name.begin(),
                           [](unsigned char c) { return static_cast<char>(toupper(c)); });
            const double seconds = line.protocol_since > 0 ? since(line.protocol_since) : 0;
            std::string words = "fell back to ";
            words += name;
            if (line.protocol_since > 0) {
                words += ' ';
                words += duration_words(seconds);
                words += " ago";
            }
            add(level_t::WARNING, "fell_back", seconds, words);
        }
        judge_silence(line, start);
        // What a line without connection is told of is the connection.
        if (worst_level(problems_, &line_) < level_t::CRITICAL) {
            if (const auto problem = first_look(line)) {
                problems_.push_back(*problem);
            }
        }
        judge_calls(line);
    }

    std::vector<problem_t> take_problems() {
        std::stable_sort(problems_.begin(), problems_.end(),
                         [](const problem_t &a, const problem_t &b) { return a.level > b.level; });
        return std::move(problems_);
    }

  private:
    double since(double time) const { return now_ - time; }

    void add(level_t level, std::string_view kind, double seconds, std::string words) {
        problems_.push_back({level, kind, line_, seconds, std::move(words)});
    }

    void judge_state(const line_status_t &line) {
        const double seconds = since(line.state_since);
        const level_t level = seconds > limits_.down ? level_t::CRITICAL : level_t::NOTICE;
        const std::string time = duration_words(seconds);
        const bool is_long = level == level_t::CRITICAL || seconds > USUAL_SECONDS;
        if (line.state == line_state_t::WAITING) {
            add(level, "down", seconds, "waiting for a connection for " + time);
        } else if (is_unconnected(line.state)) {
            add(level, "down", seconds, "no connection for " + time);
        } else if (line.state == line_state_t::ENDED) {
            add(level, "down", seconds, "ended " + time + " ago");
        } else if (line.state == line_state_t::RECEIVING && is_long) {
            add(level, "packet", seconds, "in a packet for " + time);
        } else if (line.state == line_state_t::ACTING && is_long) {
            add(level, "action", seconds, "a command runs for " + time);
        }
    }

    // A line that had no message yet has been silent since the start: a reload must not hide it.
    void judge_silence(const line_status_t &line, double start) {
        const bool has_messages = line.last_message > 0;
        const double seconds = since(has_messages ? line.last_message : start);
        if (limits_.silence > 0 && seconds > limits_.silence) {
            add(level_t::WARNING, "silent", seconds,
                has_messages ? "no message for " + duration_words(seconds)
                             : "no message since the start " + duration_words(seconds) + " ago");
        }
    }

    // The daemon shows them for an hour.
    void judge_calls(const line_status_t &line) {
        for (const undelivered_t &message : line.undelivered) {
            const double seconds = since(message.time);
            if (seconds < HOUR) {
                add(level_t::CRITICAL, UNANSWERED, seconds,
                    "nobody answered " + message.call + " for " + message.text + ", " +
                        duration_words(seconds) + " ago");
            }
        }
    }

    limits_t limits_;
    double now_;
    std::string line_;
    std::vector<problem_t> problems_;
};

}  // namespace

std::vector<problem_t> judge(const status_t &status, const limits_t &limits, double now) {
    judge_t judge(limits, now);
    judge.judge_daemon(status);
    std::vector<problem_t> problems = judge.take_problems();
    if (!problems.empty()) {
        return problems;
    }
    judge.judge_load(status);
    for (const line_status_t &line : status.lines) {
        judge.judge_line(line, status.start);
    }
    return judge.take_problems();
}

level_t worst_level(const std::vector<problem_t> &problems, const std::string *line) {
    level_t worst = level_t::OK;
    for (const problem_t &problem : problems) {
        if (line == nullptr || problem.line == *line) {
            worst = std::max(worst, problem.level);
        }
    }
    return worst;
}

bool has_working_line(const status_t &status, std::vector<problem_t> problems) {
    std::erase_if(problems, [](const problem_t &problem) { return problem.kind == UNANSWERED; });
    return is_running(problems) &&
           std::any_of(status.lines.begin(), status.lines.end(), [&](const line_status_t &line) {
               return worst_level(problems, &line.line) != level_t::CRITICAL;
           });
}

bool is_running(const std::vector<problem_t> &problems) noexcept {
    return std::none_of(problems.begin(), problems.end(), [](const problem_t &problem) {
        return problem.line.empty() && problem.kind != NOT_LOADED;
    });
}

std::string duration_words(double seconds) {
    struct unit_t {
        double length;
        const char *name;
    };
    unit_t unit{DAY, " d"};
    if (seconds < 2 * MINUTE) {
        unit = {1, " s"};
    } else if (seconds < 2 * HOUR) {
        unit = {MINUTE, " min"};
    } else if (seconds < 2 * DAY) {
        unit = {HOUR, " h"};
    }
    return std::to_string(std::lround(std::floor(std::max(seconds, 0.0) / unit.length))) +
           unit.name;
}
