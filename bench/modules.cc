// The daemon's modules, one by one.

#include <benchmark/benchmark.h>

#include <string>
#include <string_view>

#include "action.h"
#include "callfile.h"
#include "espa.h"
#include "espasend/control_station.h"
#include "logger.h"
#include "rule.h"
#include "text.h"

namespace {

constexpr const char *MESSAGE = "FIRE ZONE 12 FLOOR 3 ROOM 311 SMOKE DETECTOR 17 WEST WING   ";

// A pager that lists `count` rules, the last of which matches.
pager_t pager_with_rules(int count) {
    pager_t pager{};
    std::string list;
    for (int i = 0; i < count; i++) {
        char name[8];
        snprintf(name, sizeof name, "rule_%02x", static_cast<unsigned>(i) & 0xFF);
        copy_text(rules[i].name, name);
        const bool is_last = i == count - 1;
        compile_regex(
            &rules[i].pattern,
            is_last ? "ROOM [0-9]+"
                    : (std::string("^ALARM ").append(std::to_string(i)).append(" in")).c_str());
        if (i > 0) {
            list += ',';
        }
        list += std::string_view(name).substr(5);
    }
    copy_text(pager.rules, list);
    return pager;
}

void select(benchmark::State &state) {
    logger_init("", 0, 0, 1);
    for (rule_t &rule : rules) {
        rule = {};
    }
    pager_t pager = pager_with_rules(static_cast<int>(state.range(0)));
    // Names of two digits keep a list of 150 inside its field.
    for (rule_t &rule : rules) {
        copy_text(rule.name, std::string(rule.name).substr(rule.name[0] != '\0' ? 5 : 0));
    }
    for (auto _ : state) {
        benchmark::DoNotOptimize(select_rule(&pager, MESSAGE));
    }
}
BENCHMARK(select)->Arg(1)->Arg(16)->Arg(150);

void expand(benchmark::State &state) {
    rule_t rule{};
    copy_text(rule.values[0].name, "room");
    compile_regex(&rule.values[0].pattern, "ROOM ([0-9]+)");
    char line[1024];
    for (auto _ : state) {
        benchmark::DoNotOptimize(format_string(line, sizeof line,
                                               "\"Room $room\" <%number%> %message%", ALARM_MESSAGE,
                                               "4711", MESSAGE, nullptr, rule.values));
    }
}
BENCHMARK(expand);

void block_check(benchmark::State &state) {
    const std::string packet = compose_packet({"4711", MESSAGE, "", "", "", ""});
    for (auto _ : state) {
        benchmark::DoNotOptimize(checkBCC(packet.data(), PACKET_SIZE));
    }
}
BENCHMARK(block_check);

void parse(benchmark::State &state) {
    std::string packet = compose_packet({"4711", MESSAGE, "", "", "", ""});
    packet.resize(PACKET_BUFFER_SIZE);
    for (auto _ : state) {
        espa_p p{};
        parse_espa_packet(&p, packet.data());
        benchmark::DoNotOptimize(p);
    }
}
BENCHMARK(parse);

void log_line(benchmark::State &state) {
    logger_init("/dev/shm/vesper-bench.log", static_cast<int>(state.range(0)), 0, 0);
    for (auto _ : state) {
        LOG(LEVEL_DEBUG, "has_data = %d\n", 1);
    }
    unlink("/dev/shm/vesper-bench.log");
}
BENCHMARK(log_line)->ArgName("level")->Arg(0)->Arg(5);

// Calls for one extension, or each for another one.
void stage_call(benchmark::State &state) {
    char directory[] = "/dev/shm/vesper-bench-XXXXXX";
    const char *path = mkdtemp(directory);
    int64_t number = 0;
    for (auto _ : state) {
        number += state.range(0);
        const std::string name = "call_" + std::to_string(number) + "_1795273340";
        staged_call_t call{path, path, name.c_str(), "", 0};
        call_file_stage(&call, "Channel: Local/1234@users\r\n");
        unlink(call.path);
    }
    rmdir(path);
}
BENCHMARK(stage_call)->ArgName("distinct")->Arg(0)->Arg(1);

}  // namespace
