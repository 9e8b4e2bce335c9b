// Loading while other threads select rules and expand templates.

#include <sys/resource.h>

#include <atomic>
#include <thread>

#include "action.h"
#include "conf.h"
#include "logger.h"
#include "rule.h"
#include "support.h"

namespace {

// Two files that share nothing: pager names, rule lists, rules and their number all differ.
std::string configuration(char mark, int num_rules) {
    std::string list;
    std::string sections;
    for (int i = 0; i < num_rules; i++) {
        const std::string name = "rule_"s + mark + std::to_string(i);
        list += name + ",";
        sections += "[" + name + "]\naction = call\nextension = " + std::string(40, mark) +
                    "$v\npattern = " + std::string(static_cast<size_t>(i % 3 + 1), mark) + "|M\nvalue[v] = (" + mark +
                    "*)M\n";
    }
    std::string text = "[logger]\nlog_level = 0\nlog_file = /dev/null\n";
    for (int i = 0; i < 3; i++) {
        text += "[pager_"s + mark + std::to_string(i) + "]\nhost = 127.0.0.1\nrules = " + list +
                "\ndefault_rule = rule_" + mark + "0\n";
    }
    return text + sections;
}

long peak_kilobytes() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

TEST(Reload, EveryMessageFindsARuleOfTheOldOrTheNewFile) {
    const temp_dir_t dir;
    const std::string files[] = {dir.write("a", configuration('a', 40)), dir.write("b", configuration('b', 12))};
    ASSERT_EQ(load_conf(files[0].c_str()), 0);
    std::atomic<bool> done = false;
    std::atomic<long> handled = 0;
    std::atomic<long> lost = 0;
    const auto dispatch = [&](pager_t *pager) {
        rule_t rule;
        char text[256];
        while (!done) {
            const bool found = choose_rule(pager, "bbM", &rule);
            format_string(text, sizeof text, rule.extension, 16, "", "bbM", pager, rule.values);
            const std::string expected = rule.name[5] == 'a' ? std::string(40, 'a') : std::string(40, 'b') + "bb";
            lost += !found || text != expected;
            handled++;
            select_rule(pager, "M");
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; i++) {
        threads.emplace_back(dispatch, &pagers[i]);
    }
    long early = 0;
    for (int i = 0; i < 1000; i++) {
        free_confvals();
        ASSERT_EQ(load_conf(files[i % 2].c_str()), 0);
        early = i == 20 ? peak_kilobytes() : early;
    }
    EXPECT_TRUE(eventually([&] { return handled > 1000; }));
    done = true;
    for (std::thread &thread : threads) {
        thread.join();
    }
    EXPECT_EQ(lost, 0) << "of " << handled;
    EXPECT_LT(peak_kilobytes(), early + 2048);
    free_confvals();
}

}  // namespace
