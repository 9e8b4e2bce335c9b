// The built daemon with a configuration and a spool directory of its own, and the converters that
// it connects to.
#pragma once

#include <sys/prctl.h>

#include <random>

#include "espasend/control_station.h"
#include "espasend/line.h"
#include "support.h"

struct Installed : Test {
    void SetUp() override {
        if (geteuid() != 0 || getpwnam("ovo") == nullptr) {
            GTEST_SKIP() << "needs root and the daemon's account";
        }
    }
};

// A listening socket on a free port; a configuration holds no more than 32767.
inline unique_fd_t listen_anywhere(std::string *port) {
    *port = std::to_string(20000 + std::random_device()() % 12000);
    std::string error;
    unique_fd_t sock = listen_on("127.0.0.1", std::stoi(*port), &error);
    return sock ? std::move(sock) : listen_anywhere(port);
}

inline call_t to(const std::string &address, const std::string &message) {
    return {address, message, "", "", "", ""};
}

// Whether a line takes the call FIRE.
inline bool delivers(const unique_fd_t &sock, const std::string &address) {
    return control_station_t(sock.get(), 60, nullptr).send_call(to(address, "FIRE"));
}

struct daemon_t {
    struct line_t {
        std::string name, keys;  // of its pager, besides host, port and spool directory
    };

    // One converter for each line. In the keys and in `rest`, the sections that follow, "@" stands
    // for the spool directory and "/".
    daemon_t(const std::vector<line_t> &lines, const std::string &rest) : ports(lines.size()) {
        for (std::string &port : ports) {
            listeners.push_back(listen_anywhere(&port));
        }
        configure(lines, rest);
        name = "vesper-" + ports[0];
        fs::copy_file(PROGRAM_DIR "/vesperd", dir.path(name));  // the account may not enter there
    }
    daemon_t(const std::string &keys, const std::string &rest) : daemon_t({{"line", keys}}, rest) {}
    ~daemon_t() {
        for (const char *directory : {"/var/run/", "/tmp/"}) {
            fs::remove(directory + name + ".pid");
        }
    }
    void configure(const std::vector<line_t> &lines, const std::string &rest) const {
        std::string text = "[logger]\nlog_level = 4\nlog_file = @log\n";
        for (size_t i = 0; i < lines.size(); i++) {
            text += "[" + lines[i].name + "]\nhost = 127.0.0.1\nport = " + ports[i] +
                    "\nspool_dir = @\n" + lines[i].keys + "\n";
        }
        dir.write("conf", replaced(text + rest, "@", dir.path()));
    }
    void run_in_foreground(const std::string &options = "-d") {
        const std::string command = "vesperd -f -c " + dir.path("conf ") + options;
        foreground = std::make_unique<program_t>(command);
    }
    // Starts an instance, `prefix` in front of its command; the log tells its process, which leads
    // a session and becomes a child of this one.
    child_t start(const std::string &prefix = "") const {
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        const size_t seen = log().size();
        run(0, prefix + "env -C " + dir.path() + " " + dir.path(name) + " -c " + conf);
        pid_t pid = 0;
        EXPECT_TRUE(eventually([&] {
            const std::string text = log();
            const size_t at = text.find("Starting thread", seen);
            pid = at != std::string::npos ? std::stoi(text.substr(text.rfind('[', at) + 1)) : 0;
            return pid > 0 && getsid(pid) == pid &&
                   waitid(P_PID, id_t(pid), nullptr, WEXITED | WNOHANG | WNOWAIT) == 0;
        }));
        return child_t(pid);
    }
    unique_fd_t accept(size_t line = 0, int wait_seconds = 90) const {
        std::string error;
        unique_fd_t sock = accept_within(listeners[line].get(), wait_seconds, &error);
        EXPECT_TRUE(sock || wait_seconds == 0) << line << ": " << error;
        return sock;
    }
    std::string log() const { return foreground ? foreground->output() : dir.read("log"); }
    int count(const std::string &text) const {
        const std::string seen = log();
        int found = 0;
        for (size_t at = 0; (at = seen.find(text, at)) != std::string::npos; at++) {
            found++;
        }
        return found;
    }
    void expect_logged(const std::string &text) const {
        EXPECT_TRUE(eventually([&] { return count(text) > 0; })) << text;
    }
    // The call files named call_`extension`_..., once there is one and it is complete.
    std::string call(const std::string &extension) const {
        std::string content;
        EXPECT_TRUE(eventually([&] {
            content = "";
            for (const std::string &file : dir.list("call_" + extension + "_")) {
                content += dir.read(file);
            }
            return content.ends_with("MaxRetries: 0\r\n");
        })) << extension;
        return content;
    }

    temp_dir_t dir;
    std::vector<std::string> ports;
    std::vector<unique_fd_t> listeners;
    std::string conf = "conf";  // as the background daemon is told
    std::string name;           // under which it is started
    std::unique_ptr<program_t> foreground;
};
