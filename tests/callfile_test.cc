// Call files on their way through a staging directory, and texts on their way to UTF-8.

#include "callfile.h"

#include <sys/file.h>
#include <sys/stat.h>

#include "charset.h"
#include "clock.h"
#include "journal.h"
#include "stats.h"
#include "status.h"
#include "support.h"
#include "undelivered.h"
#include "utf8.h"

namespace {

struct Staging : Test {
    Staging() {
        for (const char *name : {"staging", "spool"}) {
            dir.make(name);
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
    EXPECT_EQ(stage("call_a_1"), "call_a_1_3");
    EXPECT_TRUE(leaves_nothing());
    EXPECT_EQ(direct_for, 0);
}

TEST_F(Staging, WritesDirectlyWithoutAStagingDirectory) {
    fs::remove(dir.path("staging"));
    EXPECT_EQ(stage("call_b_1", "text"), "call_b_1_0");
    EXPECT_EQ(direct_for, ENOENT);
    EXPECT_EQ(dir.read("spool/call_b_1_0"), "text");
    dir.write("spool/call_b_1_1", "of another process");
    EXPECT_EQ(stage("call_b_1"), "call_b_1_2");
    EXPECT_EQ(stage("none/call_b_1"), "No such file or directory");
}

TEST_F(Staging, ACallToFollowHasALinkUnderItsName) {
    const std::string spool = dir.path("spool"), staging = dir.path("staging");
    dir.make("staging/followed");
    dir.write("spool/call_f_1_0", "of another process");
    dir.write("staging/followed/call_f_1_1", "of another call");
    const auto follow = [&](const char *name) {
        staged_call_t call{staging.c_str(), spool.c_str(), name, "", 0};
        EXPECT_EQ(call_file_follow(&call, "set", "end").outcome == call_file_t::WRITTEN,
                  call.is_followed);
        const std::string made = call.is_followed ? call.path + spool.size() : "";
        return joined(made, call.follow_error, call.size);
    };
    fs::create_directory_symlink(staging, dir.path("link"));
    EXPECT_EQ(followed_dir(dir.path("link").c_str()), followed_dir(staging.c_str()));
    const std::string content = "setArchive: yes\r\nSetVar: VESPERD_CALL=call_f_1_2\r\nend";
    EXPECT_EQ(follow("call_f_1"), joined("/call_f_1_2", 0, content.size()));
    EXPECT_EQ(dir.read("spool/call_f_1_2"), content);
    EXPECT_EQ(fs::status(dir.path("spool/call_f_1_2")).permissions(), fs::perms(0666));
    fs::remove(dir.path("spool/call_f_1_2"));
    fs::rename(dir.path("spool"), dir.path("away"));
    EXPECT_EQ(follow("call_f_1"), joined("", ENOENT, 0));
    fs::rename(dir.path("away"), dir.path("spool"));
    // Linked, and not yet renamed, by a process that was killed; the first is no call's.
    for (const char *file : {"1", "2"}) {
        dir.write("staging/vesperd-call-1-"s + file, file);
    }
    fs::create_hard_link(dir.path("staging/vesperd-call-1-2"),
                         dir.path("staging/followed/call_g_1_0"));
    ints_t finished;
    for (const char *name : {"call_f_1_1", "none", "call_g_1_0", "call_g_1_0"}) {
        finished.push_back(call_file_finish(staging.c_str(), spool.c_str(), name));
    }
    EXPECT_EQ(finished, (ints_t{0, 0, 1, 0}));
    EXPECT_EQ(dir.read("spool/call_g_1_0"), "2");
    const auto links = fs::directory_iterator(dir.path("staging/followed"));
    EXPECT_EQ(std::distance(links, {}), 3);
    fs::remove(dir.path("staging/vesperd-call-1-1"));
    EXPECT_EQ(std::distance(fs::directory_iterator(staging), {}), 1);
}

TEST(Disks, AreDifferentWhenBothAreKnown) {
    EXPECT_TRUE(are_on_different_disks("/proc", "/"));
    EXPECT_FALSE(are_on_different_disks("/proc", "/proc/self"));
    EXPECT_FALSE(are_on_different_disks("/none", "/"));
    EXPECT_FALSE(are_on_different_disks("/proc", "/none"));
}

TEST_F(Staging, SaysWhyNothingIsWritten) {
    for (const auto &[limit, error] : {std::pair<rlim_t, int>(0, EFBIG), {2, EIO}}) {
        const lowered_t lowered(RLIMIT_FSIZE, limit);
        EXPECT_EQ(stage("call_a_1", "four"), strerror(error));
        EXPECT_THAT(path, StartsWith(dir.path("staging/vesperd-call-")));
    }
    // One descriptor is left, and errors that come late are not heard of.
    const int next = unique_fd_t(open("/dev/null", O_RDONLY | O_CLOEXEC)).get();
    {
        const lowered_t lowered(RLIMIT_NOFILE, rlim_t(next + 1));
        EXPECT_EQ(stage("call_a_1"), strerror(EBADF));
    }
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
    EXPECT_TRUE(fs::exists(busy));
    EXPECT_TRUE(fs::exists(dir.path("staging/other")));
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path("staging")), {}), 2);
    std::atomic<bool> is_over = false;
    std::thread cleaner([&] {
        while (!is_over) {
            call_file_clean(dir.path("staging").c_str());
        }
    });
    for (int i = 0; i < 1000; i++) {
        const std::string name = "call_" + std::to_string(i);
        EXPECT_EQ(stage(name), name + "_0");
    }
    is_over = true;
    cleaner.join();
}

TEST_F(Tables, AFullDiskCutsNoJournalLineButItsLast) {
    const std::string path = dir.path("journal");
    journal_init(path.c_str());
    setenv("TZ", "UTC0", 1);
    tzset();
    const auto write_entry = [](int alrm) {
        outcome_t outcome;
        outcome.exit_status = 0;
        journal_write({&pagers[0], alrm, "", "", nullptr, outcome, microseconds_passed()});
    };
    write_entry(ALARM_CONNECTED);
    {
        const lowered_t lowered(RLIMIT_FSIZE, fs::file_size(path) + 9);
        write_entry(ALARM_CONNECTED);  // nine bytes of it
        write_entry(ALARM_CONNECTED);  // nothing
    }
    write_entry(ALARM_STARTED);
    write_entry(ALARM_STARTED);
    journal_init("");
    EXPECT_THAT(dir.read("journal"),
                MatchesRegex("[{].*[+]00:00\".*\"connected\".*\"exit\":0.*[}]\n[{]\"time\":\"\n"
                             "[{].*\"started\".*[}]\n[{].*\"started\".*[}]\n"));
    EXPECT_THAT(log(), MatchesRegex("ERROR: Unable to write journal .*: No space left on .*\n+"));
}

TEST(Undelivered, TheLatestEightOfALineForAnHour) {
    const int64_t now = milliseconds_now();
    keep_undelivered({2, "old", "", now - 3'600'001});
    keep_undelivered({2, "recent", "", now - 3'540'000});
    for (const char call : "123456789"s) {
        keep_undelivered({1, {call}, "", now});
    }
    const auto calls = [] {
        std::string all;
        for (const undelivered_message_t &message : recently_undelivered()) {
            all += message.call + " ";
        }
        return all;
    };
    EXPECT_EQ(calls(), "recent 2 3 4 5 6 7 8 9 ");
    forget_undelivered(1);
    EXPECT_EQ(calls(), "recent ");
    forget_undelivered(2);
}

TEST_F(Tables, StatusLabels) {
    const std::string text(127, 'x');
    keep_undelivered({1, "a\n", text + "\xC3\xA4", milliseconds_now()});
    keep_undelivered({1, "b", text + "xy", milliseconds_now()});
    stats_begin(&pagers[0]);
    stats_begin(&pagers[1]);
    pagers[1].espa_address = '2';
    pagers[1].espa_control = '1';
    status_init(dir.path("status").c_str());
    status_update();
    for (const std::string &shown : {"a\\n\",text=\"" + text, "b\",text=\"" + text + "x"}) {
        EXPECT_THAT(dir.read("status"), HasSubstr("{line=\"#2\",call=\"" + shown + "\"} "));
    }
    EXPECT_THAT(dir.read("status"),
                HasSubstr("station{line=\"#2\",address=\"2\",control=\"1\"} 1\n"));
    status_init("");
    forget_undelivered(1);
    stats_end(&pagers[0]);
    stats_end(&pagers[1]);
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
        {"\xC3\xA4 \xE2\x82\xAC \xF4\x8F\xBF\xBF", "\xC3\xA4 \xE2\x82\xAC \xF4\x8F\xBF\xBF"},
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
