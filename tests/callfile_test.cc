// Call files on their way through a staging directory, and texts on their way to UTF-8.

#include "callfile.h"

#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include "charset.h"
#include "stats.h"
#include "support.h"
#include "utf8.h"

namespace {

struct Staging : Test {
    Staging() {
        for (const char *name : {"staging", "spool"}) {
            fs::create_directory(dir.path(name));
        }
    }
    // The name that a call gets, or why it gets none.
    std::string stage(const std::string &name, const std::string &content = "x") {
        const std::string spool = dir.path("spool");
        const std::string staging = dir.path("staging");
        staged_call_t call{staging.c_str(), spool.c_str(), name.c_str(), "", 0};
        const call_file_result_t result = call_file_stage(&call, content);
        direct_for = call.staging_error;
        path = call.path;
        return result.outcome == call_file_t::WRITTEN
                   ? std::string(call.path).substr(spool.size() + 1)
                   : strerror(result.error);
    }
    bool leaves_nothing() const { return fs::is_empty(dir.path("staging")); }
    temp_dir_t dir;
    int direct_for = 0;  // errno of the staging that failed
    std::string path;    // of the file that was not written
};

TEST_F(Staging, TakesNoNameTwiceAndLeavesNothingBehind) {
    EXPECT_EQ(stage("call_a_1", "first"), "call_a_1_0");
    fs::remove(dir.path("spool/call_a_1_0"));  // the PBX has taken it
    dir.write("spool/call_a_1_1", "of another process");
    EXPECT_EQ(stage("call_a_1", "second"), "call_a_1_2");
    EXPECT_EQ(dir.read("spool/call_a_1_2"), "second");
    EXPECT_EQ(dir.read("spool/call_a_1_1"), "of another process");
    EXPECT_EQ(stage("none/call_a_1"), "No such file or directory");
    EXPECT_EQ(stage(std::string(300, 'a')), "File name too long");
    EXPECT_EQ(stage(std::string(1000, 'a')), "File name too long");
    EXPECT_TRUE(leaves_nothing());
    EXPECT_EQ(direct_for, 0);
}

TEST_F(Staging, WritesDirectlyWithoutAStagingDirectory) {
    fs::remove(dir.path("staging"));
    EXPECT_EQ(stage("call_b_1", "text"), "call_b_1_0");
    EXPECT_EQ(direct_for, ENOENT);
    EXPECT_EQ(dir.read("spool/call_b_1_0"), "text");
}

TEST(Disks, AreDifferentWhenBothAreKnown) {
    EXPECT_TRUE(are_on_different_disks("/proc", "/"));
    EXPECT_FALSE(are_on_different_disks("/proc", "/proc/self"));
    EXPECT_FALSE(are_on_different_disks("/none", "/"));
    EXPECT_FALSE(are_on_different_disks("/proc", "/none"));
}

TEST_F(Staging, SaysWhyNothingIsWritten) {
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const auto handler = signal(SIGXFSZ, SIG_IGN);
    for (const auto &[limit, error] : {std::pair<rlim_t, int>(0, EFBIG), {2, EIO}}) {
        const rlimit lowered{limit, before.rlim_max};
        setrlimit(RLIMIT_FSIZE, &lowered);
        EXPECT_EQ(stage("call_a_1", "four"), strerror(error));
        EXPECT_THAT(path, StartsWith(dir.path("staging/vesperd-call-")));
        setrlimit(RLIMIT_FSIZE, &before);
    }
    signal(SIGXFSZ, handler);
    EXPECT_TRUE(leaves_nothing());
    EXPECT_TRUE(fs::is_empty(dir.path("spool")));
}

TEST_F(Staging, CleaningLeavesWhatIsBeingWritten) {
    dir.write("staging/vesperd-call-1-1", "left behind");
    dir.write("staging/other", "of somebody else");
    const std::string busy = dir.write("staging/vesperd-call-1-2", "half");
    EXPECT_EQ(mkfifo(dir.path("staging/vesperd-call-1-3").c_str(), 0666), 0);
    const unique_fd_t writer(open(busy.c_str(), O_WRONLY));
    EXPECT_EQ(flock(writer.get(), LOCK_SH), 0);
    call_file_clean(dir.path("staging").c_str());
    EXPECT_EQ(dir.list("staging").size(), 1U);
    EXPECT_TRUE(fs::exists(busy));
    EXPECT_TRUE(fs::exists(dir.path("staging/other")));
    EXPECT_FALSE(fs::exists(dir.path("staging/vesperd-call-1-1")));
}

TEST(Charset, ConvertsEveryCharacter) {
    const struct {
        const char *name, *bytes, *text;
    } rows[] = {
        {"ISO-8859-1", "\xE4x", "\xC3\xA4x"},
        {"DIN_66003", "T]R {", "T\xC3\x9CR \xC3\xA4"},
        {"ASCII", "a\xE4\xF6z", "a\xEF\xBF\xBD\xEF\xBF\xBDz"},
        {"UTF-8", "\xC3\xA4\xE4", "\xC3\xA4\xEF\xBF\xBD"},
        {"CP1258", "FIRE", "FIRE"},  // holds the last one back
        {"CP1258", "E\x8Az", "E\xEF\xBF\xBDz"},
        {"", "\xE4{", "\xE4{"},
    };
    charset_t charset;
    for (const auto &[name, bytes, text] : rows) {
        EXPECT_TRUE(charset.open(name)) << name;
        EXPECT_EQ(charset.to_utf8(bytes), text) << name;
    }
    for (const char *name : {"KLINGON", "ISO-2022-CN-EXT", "iso2022cnext//", "ISO_2022-CN-EXT/"}) {
        EXPECT_FALSE(charset.open(name) || charset.open(name)) << name;
    }
    EXPECT_EQ(charset.to_utf8("\xE4"), "\xE4");
    charset.open("ISO-8859-1");
    EXPECT_EQ(charset.to_utf8(std::string(1000, '\xE4')).size(), 2000U);
}

TEST(Utf8, WhatIsNotValidIsLatin) {
    const std::pair<const char *, const char *> rows[] = {
        {"\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80", "\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80"},
        {"\xE4", "\xC3\xA4"},
        {"\xC3\xA4\xC3", "\xC3\x83\xC2\xA4\xC3\x83"},
        {"\xC0\x80", "\xC3\x80\xC2\x80"},              // overlong
        {"\xED\xA0\x80", "\xC3\xAD\xC2\xA0\xC2\x80"},  // a surrogate
        {"\xF4\x90\x80\x80", "\xC3\xB4\xC2\x90\xC2\x80\xC2\x80"},
    };
    for (const auto &[bytes, text] : rows) {
        EXPECT_EQ(as_utf8(bytes), text);
    }
}

// An alarm's own action must not make a line that is down look as if it just went down.
TEST(Stats, AnActionLeavesTheStateItsAge) {
    enter_state(line_state_t::IDLE);
    enter_state(line_state_t::CONNECTING);
    my_stats().state_since_ms = 5;
    {
        const acting_t acting;
        EXPECT_EQ(my_stats().state, line_state_t::ACTING);
        EXPECT_GT(my_stats().state_since_ms, 5);
    }
    EXPECT_EQ(my_stats().state, line_state_t::CONNECTING);
    EXPECT_EQ(my_stats().state_since_ms, 5);
}

}  // namespace
