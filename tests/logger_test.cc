// Levels, layout and destinations of log lines.

#include "logger.h"

#include <fcntl.h>
#include <sys/wait.h>

#include "support.h"

namespace {

std::string letters_at(int log_level) {
    const captured_log_t log(log_level);
    const char *const letters[] = {"d", "e", "n", "w", "r", "v"};
    for (int level = LEVEL_DEBUG; level <= LEVEL_VERBOSE; level++) {
        LOG(level, "%s", letters[level]);
    }
    std::string text = log.messages();
    std::erase(text, '\n');
    return text;
}

TEST(Logger, LevelsLetThrough) {
    EXPECT_EQ(letters_at(-1), "");
    EXPECT_EQ(letters_at(0), "v");
    EXPECT_EQ(letters_at(1), "rv");
    EXPECT_EQ(letters_at(4), "enwrv");
    EXPECT_EQ(letters_at(5), "denwrv");
    EXPECT_EQ(letters_at(65535), "denwrv");
}

TEST(Logger, Layout) {
    const captured_log_t log;
    LOG(LEVEL_ERROR, "text %d", 7);
    write_log(LEVEL_VERBOSE, "file", 185, "function", "ends in a newline\n");
    EXPECT_THAT(log.text(), testing::MatchesRegex("[0-9][0-9]/[0-9][0-9]/[0-9][0-9] [0-9:]+:  "
                                                  "ERROR\\[[0-9]+\\]: logger_test:[0-9]+ in TestBody: text 7\n"
                                                  "[0-9/]+ [0-9:]+:  VERBOSE\\[[0-9]+\\]: ends in a newline\n\n"));
}

TEST(Logger, CutsAtTheMessageBuffer) {
    const captured_log_t log;
    LOG(LEVEL_VERBOSE, "%s", std::string(2000, 'x').c_str());
    const std::string text = log.text();
    EXPECT_EQ(text.size(), "11/15/26 12:14:45: \n"s.size() - 1 + 1 + 1023);
    EXPECT_EQ(text.find('\n'), text.size() - 1);
}

TEST(Logger, StandardErrorWhereThereIsNoFile) {
    const temp_dir_t dir;
    for (const std::string &file : {""s, dir.path("missing/log")}) {
        testing::internal::CaptureStderr();
        logger_init(file.c_str(), 1, 0, 0);
        LOG(LEVEL_ERROR, "seen");
        set_log_level(0);
        LOG(LEVEL_ERROR, "filtered");
        logger_init(file.c_str(), 5, 0, 1);
        LOG(LEVEL_ERROR, "disabled");
        EXPECT_THAT(testing::internal::GetCapturedStderr(),
                    testing::MatchesRegex("[0-9/]+ [0-9:]+:  ERROR\\[[0-9]+\\]: logger_test:.*: seen\n"));
    }
}

TEST(Logger, NamesTheProcessThatLogs) {
    const captured_log_t log;
    LOG(LEVEL_VERBOSE, "parent");
    const pid_t child = fork();
    if (child == 0) {
        LOG(LEVEL_VERBOSE, "child");
        _exit(0);
    }
    waitpid(child, nullptr, 0);
    EXPECT_THAT(log.text(), testing::HasSubstr("[" + std::to_string(child) + "]: child"));
}

}  // namespace
