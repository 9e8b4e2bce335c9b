// Any configuration file.

#include "conf.h"

#include "conf_world.h"
#include "rule.h"

namespace {

template <size_t N>
bool is_ended(const char (&field)[N]) {
    return field[N - 1] == '\0';
}

void check_tables() {
    require(num_pagers >= 0 && num_pagers <= MAX_PAGERS);
    for (const pager_t &pager : pagers) {
        require(is_ended(pager.name) && is_ended(pager.host) && is_ended(pager.callscript) &&
                is_ended(pager.spool_dir) && is_ended(pager.default_rule) && is_ended(pager.rules));
    }
    for (const rule_t &rule : rules) {
        if (rule.name[0] == '\0') {
            return;
        }
        require(is_ended(rule.name) && is_ended(rule.values[MAX_VALUES - 1].name) &&
                is_ended(rule.callscript) && is_ended(rule.callerid) && is_ended(rule.context) &&
                is_ended(rule.extension) && is_ended(rule.channel));
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static bool is_loaded = false;
    configuration = "[logger]\nlog_level = 0\n" + tamed(as_text(data, size));
    if (is_loaded) {
        free_confvals();
    }
    is_loaded = true;
    require(load_conf(PATH) == 0);
    check_tables();
    select_rule(&pagers[0], "FIRE");
    return 0;
}
