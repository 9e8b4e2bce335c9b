// Any configuration file.

#include "conf.h"

#include <netdb.h>

#include <algorithm>
#include <cstring>

#include "fuzz.h"
#include "rule.h"

namespace {

// The log goes where the target says, hosts are the loopback address, and no interval of a pattern piles
// up memory: compiled patterns are kept for the life of the process.
std::string tamed(std::string text) {
    std::replace(text.begin(), text.end(), '{', 'x');
    for (const std::string_view key : {"host", "HOST", "log_file", "LOG_FILE", "log_type"}) {
        for (size_t at = text.find(key); at != std::string::npos; at = text.find(key, at)) {
            text[at] = 'x';
        }
    }
    for (size_t at = text.find("@ip"); at != std::string::npos; at = text.find("@ip", at)) {
        text.replace(at, 3, "host = 127.0.0.1");
    }
    return text;
}

}  // namespace

// The resolver of this program: only the loopback address exists.
extern "C" hostent *gethostbyname(const char *name) {
    static in_addr address{htonl(INADDR_LOOPBACK)};
    static char *addresses[] = {reinterpret_cast<char *>(&address), nullptr};
    static hostent host{nullptr, nullptr, AF_INET, sizeof address, addresses};
    return strcmp(name, "127.0.0.1") == 0 ? &host : nullptr;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool loaded = false;
    const std::string text = tamed(std::string(as_text(data, size)));
    const std::string path =
        scratch_file("conf", "[logger]\nlog_file = /dev/null\nlog_level = 0\n" + text);
    if (loaded) {
        free_confvals();
    }
    loaded = true;
    require(load_conf(path.c_str()) == 0);
    require(num_pagers >= 0 && num_pagers <= MAX_PAGERS);
    for (const pager_t &pager : pagers) {
        require(memchr(pager.name, 0, sizeof pager.name) != nullptr);
        require(memchr(pager.rules, 0, sizeof pager.rules) != nullptr);
        require(memchr(pager.spool_dir, 0, sizeof pager.spool_dir) != nullptr);
    }
    for (const rule_t &rule : rules) {
        require(memchr(rule.name, 0, sizeof rule.name) != nullptr);
        require(memchr(rule.values[MAX_VALUES - 1].name, 0, sizeof rule.values[0].name) != nullptr);
    }
    select_rule(&pagers[0], "FIRE");
    return 0;
}
