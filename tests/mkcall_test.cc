// What the PBX reads of the call files that share/mkcall.sh writes, whatever it is called with.

#include <random>

#include "call_file_reader.h"
#include "support.h"

namespace {

constexpr size_t LINE_LIMIT = 253;
constexpr size_t NUMBER_LIMIT = 119;
constexpr int DEFAULT_RUNS = 200;

struct arguments_t {
    std::string interface, alarm, number, message;
};

// A text of pieces that mean something to a shell, to awk or to the PBX.
class hostile_t {
  public:
    std::string text() {
        static const texts_t pieces = [] {
            std::istringstream all(
                ";|\\|\\;|#| #| |\n|\r\n|\t|\x01|\"|<|>|'|$|`id`|%|&|a|7|\xC3\xA9|"
                "\xE2\x82\xAC|\xF0\x9F\x94\xA5|\xFF|\x80|:|=|Application: System\n|"
                "-n|\\n|\\\\|");
            texts_t parts{std::string(60, ';')};
            for (std::string part; std::getline(all, part, '|');) {
                parts.push_back(part);
            }
            return parts;
        }();
        std::string text;
        const int length = up_to(3) == 0 ? up_to(300) : up_to(12);
        for (int i = 0; i < length; i++) {
            text += pieces[size_t(up_to(int(pieces.size()) - 1))];
        }
        return text;
    }
    std::string number() {
        std::string digits(size_t(up_to(9) == 0 ? up_to(NUMBER_LIMIT + 10) : up_to(6)), '0');
        for (char &digit : digits) {
            digit = "0123456789*+_.-Zz"[up_to(16)];
        }
        return digits;
    }

  private:
    int up_to(int most) { return std::uniform_int_distribution<int>(0, most)(random_); }

    std::mt19937 random_;
};

// A text in one line that begins no comment.
std::string clean(const std::string &text) {
    std::string kept;
    for (const char c : text) {
        const bool is_control = (c >= 0 && c < ' ') || c == '\x7F';
        if (c != '#') {
            kept += is_control ? ' ' : c;
        } else if (!kept.empty() && kept.back() != ' ') {
            kept += c;
        }
    }
    return kept.substr(0, kept.find_last_not_of(' ') + 1);
}

// As much of it as fits into the line, with a backslash before every ";".
std::string fitting(const std::string &text, size_t others) {
    size_t used = others;
    size_t end = 0;
    while (end < text.size() && used + (text[end] == ';' ? 2 : 1) <= LINE_LIMIT) {
        used += text[end++] == ';' ? 2 : 1;
    }
    for (int i = 0; i < 3 && end < text.size() && (text[end] & 0xC0) == 0x80; i++) {
        end--;
    }
    const std::string fits = text.substr(0, end);
    return end == text.size() ? fits : fits.substr(0, fits.find_last_not_of(' ') + 1);
}

texts_t expected_settings(const arguments_t &with) {
    std::string alarm = with.alarm;
    std::erase_if(alarm, [](char c) { return strchr("\"<>", c) != nullptr; });
    alarm = clean(alarm);
    const auto variable = [](const std::string &name, const std::string &value) {
        const std::string setting = "QUILLET_" + name + "=";
        const std::string text = setting + fitting(value, "Setvar: "s.size() + setting.size());
        return "Setvar:" + text.substr(0, text.find_last_not_of(' ') + 1);
    };
    const std::string caller =
        with.number.empty() ? fitting(alarm, "CallerID: \"\" <>"s.size()) : with.number;
    return {"Channel:Local/1234@users",
            "Context:alarm",
            "Extension:" + (with.number.empty() ? "s" : with.number),
            "Priority:1",
            "MaxRetries:0",
            "CallerID:\"" + caller + "\" <" + with.number + ">",
            variable("INTERFACE", clean(with.interface)),
            variable("ALARM", alarm),
            variable("NUMBER", with.number),
            variable("MESSAGE", clean(with.message))};
}

// Calls the script, whose message arrives in two words; its exit status.
int mkcall(const temp_dir_t &dir, const arguments_t &with) {
    child_t child(fork());
    if (child.pid == 0) {
        setenv("MKCALL_SPOOL", dir.path().c_str(), 1);
        setenv("MKCALL_TMP", dir.path().c_str(), 1);
        const int said = open(dir.path("said").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(said, STDERR_FILENO);
        execl(SOURCE_DIR "/share/mkcall.sh", "mkcall.sh", with.interface.c_str(),
              with.alarm.c_str(), with.number.c_str(), "of", with.message.c_str(), nullptr);
        _exit(127);
    }
    return child.wait();
}

// VESPER_MKCALL_RUNS in the environment is how many calls are made.
TEST(Mkcall, ThePbxReadsWhatWasMeant) {
    const char *wanted = getenv("VESPER_MKCALL_RUNS");
    const int runs = wanted != nullptr ? atoi(wanted) : DEFAULT_RUNS;
    hostile_t hostile;
    for (int i = 0; i < runs && !HasFailure(); i++) {
        const temp_dir_t dir;
        const arguments_t with{hostile.text(), hostile.text(), hostile.number(), hostile.text()};
        const bool is_refused = with.number.size() > NUMBER_LIMIT;
        SCOPED_TRACE(joined(i, with.interface, with.alarm, with.number, with.message));
        EXPECT_EQ(mkcall(dir, with), is_refused ? 2 : 0) << dir.read("said");
        const texts_t files = dir.list("mkcall_");
        ASSERT_EQ(dir.list().size(), is_refused ? 1 : 2);
        if (is_refused) {
            continue;
        }
        ASSERT_EQ(files.size(), 1);
        const std::string content = dir.read(files[0]);
        arguments_t read_with = with;
        read_with.message = "of " + with.message;
        EXPECT_EQ(read_as_pbx(content), expected_settings(read_with)) << content;
        std::istringstream lines(content);
        for (std::string line; std::getline(lines, line);) {
            EXPECT_LE(line.size(), LINE_LIMIT) << line;
        }
    }
}

}  // namespace
