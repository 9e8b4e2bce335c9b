// vesperstat on status files written by hand, with times that leave most of a minute to look at them.

#include <chrono>

#include "support.h"
#include "vesperstat/status_file.h"

namespace {

std::string ago(double seconds) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return " " + std::to_string(std::chrono::duration<double>(now).count() - seconds) + "\n";
}

std::string served(int up, double age, const std::string &lines = "") {
    return "# TYPE vesperd_up gauge\nvesperd_up " + std::to_string(up) +
           "\nvesperd_start_time_seconds" + ago(12'000) + "vesperd_status_time_seconds" + ago(age) +
           lines;
}

std::string line(const std::string &name, const std::string &state, double since,
                 const std::string &protocol = "espa", double last = 12'000) {
    const std::string label = "{line=\"" + name + "\"";
    return "vesperd_line_state" + label + ",port=\"4001\",state=\"idle\"} 0\nvesperd_line_state" +
           label + ",host=\"h\",port=\"4001\",state=\"" + state +
           "\"} 1\nvesperd_line_state_since_seconds" + label + "}" + ago(since) +
           "vesperd_line_protocol" + label + ",protocol=\"" + protocol +
           "\",configured=\"espa\"} 1\nvesperd_line_protocol_since_seconds" + label + "}" +
           ago(10'900) + "vesperd_line_messages_total" + label + ",} +17 0\n" +
           "vesperd_line_last_message_time_seconds" + label + "}" + ago(last);
}

// A text again and again, with a number in the place of "#".
std::string many(const std::string &text, int count) {
    std::string all;
    for (int i = 0; i < count; i++) {
        all += std::regex_replace(text, std::regex("#"), std::to_string(i));
    }
    return all;
}

TEST(Status, IsJudged) {
    const struct {
        std::string file;
        const char *options;
        int status;
        const char *words;
    } rows[] = {
        {line("a", "idle", 9e5), "--warn-silence 13000", 0, "OK - 1 line, vesperd  runs for 3 h |"},
        {line("a", "idle", 9e5), "--warn-silence 9000", 1, "WARNING - a: no message for 3 h |"},
        {line("a", "connecting", 130), "--critical-down 600", 0,
         "OK - a: no connection for 2 min |"},
        {line("a", "connecting", 130), "", 2, "CRITICAL - a: no connection for 2 min |"},
        {line("a", "ended", 130), "", 2, "CRITICAL - a: ended 2 min ago |"},
        {line("a", "receiving", 730), "", 2, "CRITICAL - a: in a packet for 12 min |"},
        {line("a", "idle", 1, "ascii"), "", 1, "WARNING - a: fell back to ASCII 3 h ago |"},
        {line("a", "idle", 1, "ascii") + line("b", "acting", 2'410), "", 2,
         "CRITICAL - b: a command runs for 40 min, a: fell back to ASCII 3 h ago |"},
        {line("\\\\b\\\"c\\n|", "ended", 130), "", 2, "CRITICAL - \\b\"c?/: ended 2 min ago |"},
        {served(0, 130), "", 2, "CRITICAL - vesperd ended 2 min ago |"},
        {served(1, 130, line("a", "ended", 999)), "", 2,
         "CRITICAL - vesperd is gone, its status is 2 min old |"},
        {served(1, 130, line("a", "ended", 999)), "--max-age 200 --critical-all", 2,
         "CRITICAL - a: ended 16 min ago |"},
        {line("a", "ended", 130) + line("b", "idle", 130), "--critical-all", 1,
         "WARNING - a: ended 2 min ago |"},
        {served(1, 0, "vesperd_reloads_total 1"), "", 3, "UNKNOWN - cannot read "},
        {served(1, 0, "vesperd_reloads_total NaN\n"), "", 3, "UNKNOWN - "},
        {served(1, 0, "node_procs{pid=1} 1\n"), "", 3, "UNKNOWN - "},
        {line("a", "asleep", 1), "", 3, "UNKNOWN - "},
        {"# of somebody else\n", "", 3, "UNKNOWN - "},
        {line("a", "idle", 1) + many("vesperd_line_polls_total{line=\"#\"} 1\n", 64), "", 3,
         "UNKNOWN - cannot read "},
        {line("a", "idle", 1) +
             many("vesperd_line_actions_total{line=\"a\",result=\"failed\"} 8.9e15\n", 64),
         "", 0, "OK - "},
        {line("a", "idle", 1) + many("vesperd_line_actions_total{line=\"a\"} 1\n", 65), "", 3,
         "UNKNOWN - cannot read "},
        {line(std::string(256, 'a'), "idle", 1), "", 3, "UNKNOWN - cannot read "},
        {line("a\xC2\x9B\xE2\x80\xAE", "ended", 130), "", 2, "CRITICAL - a??: ended 2 min ago |"},
    };
    const temp_dir_t dir;
    for (const auto &row : rows) {
        const bool is_line = row.file.starts_with("vesperd_line");
        const auto file = dir.write("file", is_line ? served(1, 2, row.file) : row.file);
        EXPECT_THAT(run(row.status, "vesperstat --check -s " + file + " " + row.options),
                    StartsWith("VESPERD "s + row.words));
    }
}

TEST(Status, IsShown) {
    const temp_dir_t dir;
    const auto north = dir.write("north.prom", served(1, 2, line("a", "idle", 130)));
    const auto south = dir.write("south.prom", served(1, 2, line("Süd", "connecting", 7'500)));
    EXPECT_THAT(run(0, "vesperstat -s " + north), StartsWith("Nothing is wrong: 1 line, "));
    EXPECT_EQ(run(0, "vesperstat -s " + north + " -s " + south),
              "south: Süd: no connection for 2 h\n\n"
              "INSTANCE  LINE  ADDRESS  STATE           PROTOCOL  MESSAGES  LAST MESSAGE  ERRORS\n"
              "south     Süd   h:4001   connecting 2 h  espa      17        3 h ago       -\n"
              "north     a     h:4001   idle 2 min      espa      17        3 h ago       -\n");
    // None of the lines that are known works.
    const auto empty = dir.write("empty.prom", served(1, 2));
    const std::string all = "vesperstat --check --critical-all -s " + south + " -s " + empty;
    EXPECT_THAT(run(2, all + " -s " + dir.path("none")), StartsWith("VESPERD CRITICAL - "));
    EXPECT_THAT(run(1, all + " -s " + north), StartsWith("VESPERD WARNING - "));
    EXPECT_THAT(run(3, "vesperstat --json -s " + south + " -s " + dir.path("none")),
                AllOf(HasSubstr("\"level\":\"critical\",\"instances\":[{"),
                      HasSubstr("\"kind\":\"unreadable\""), HasSubstr("\"messages\":17,"),
                      HasSubstr("\"S\\u00fcd\"")));
}

// Whoever can write the file, nobody who reads it waits for him, or reads what a link of his names.
TEST(Status, IsReadOutOfARegularFile) {
    const temp_dir_t dir;
    ASSERT_EQ(mkfifo(dir.path("fifo").c_str(), 0666), 0);
    fs::create_symlink(dir.write("large", std::string(MAX_STATUS_SIZE + 1, '\n')),
                       dir.path("link"));
    const struct {
        const char *name;
        links_t links;
        const char *error;
    } rows[] = {
        {"fifo", links_t::FOLLOW, "it is no regular file"},
        {"link", links_t::FOLLOW, "it is larger than 1 MB"},
        {"link", links_t::REFUSE, "it is a link"},
    };
    for (const auto &row : rows) {
        status_t status;
        std::string error;
        EXPECT_FALSE(read_status(dir.path(row.name), row.links, &status, &error));
        EXPECT_EQ(error, row.error) << row.name;
    }
    EXPECT_THAT(run(3, "vesperstat $(printf '\\302\\233')"), HasSubstr("argument '?'"));
    EXPECT_THAT(run(3, "vesperstat $(printf -- '--\\033x')"), HasSubstr("option '--?x' is none"));
}

}  // namespace
