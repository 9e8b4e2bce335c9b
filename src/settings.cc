#include "settings.h"

#include <algorithm>
#include <cstring>

namespace {

// Calls `visit` with every setting but `protocol`.
template <typename visitor_t>
void visit_settings(visitor_t visit) {
    visit(&pager_t::name);
    visit(&pager_t::host);
    visit(&pager_t::port);
    visit(&pager_t::callscript);
    visit(&pager_t::spool_dir);
    visit(&pager_t::default_rule);
    visit(&pager_t::rules);
    visit(&pager_t::sin);
    visit(&pager_t::no_check_bcc);
    visit(&pager_t::espa_poll);
    visit(&pager_t::read_timeout);
    visit(&pager_t::send_service_actions);
    visit(&pager_t::recover_link);
    visit(&pager_t::ack_when_done);
    visit(&pager_t::staging_dir);
    visit(&pager_t::configured_protocol);
    visit(&pager_t::charset);
    visit(&pager_t::espa_address);
    visit(&pager_t::espa_control);
    visit(&pager_t::listen);
    visit(&pager_t::listen_address);
    visit(&pager_t::peers);
    visit(&pager_t::follow_calls);
    visit(&pager_t::status_called);
    visit(&pager_t::status_answered);
    visit(&pager_t::status_unanswered);
}

template <typename field_t>
bool is_same(const field_t &one, const field_t &other) {
    return memcmp(&one, &other, sizeof one) == 0;  // texts are filled up with zeros
}

}  // namespace

std::optional<addresses_t> addresses_of(const hostent *host) noexcept {
    if (host == nullptr || host->h_addrtype != AF_INET || host->h_addr_list[0] == nullptr) {
        return std::nullopt;
    }
    addresses_t found{};
    for (size_t i = 0; i < found.size() && host->h_addr_list[i] != nullptr; i++) {
        memcpy(&found[i], host->h_addr_list[i], sizeof found[i]);
    }
    return found;
}

void settings_set_addresses(pager_t *pager, const addresses_t &addresses) noexcept {
    pager->sin = {};
    pager->sin.sin_family = AF_INET;
    pager->sin.sin_port = htons(static_cast<uint16_t>(pager->port));
    pager->sin.sin_addr.s_addr = addresses[0];
    std::copy(addresses.begin(), addresses.end(), std::begin(pager->peers));
}

addresses_t settings_addresses(const pager_t &pager) noexcept {
    addresses_t addresses{};
    std::copy(std::begin(pager.peers), std::end(pager.peers), addresses.begin());
    return addresses;
}

void settings_store(pager_t *pager, const pager_t &fresh) noexcept {
    visit_settings([&](auto field) { copy_shared(&(pager->*field), fresh.*field); });
}

void settings_reconnect(pager_t *pager, int protocol) noexcept {
    store_shared(&pager->protocol, protocol);
    store_shared(&pager->socket, -1);
}

void settings_renumber(pager_t *pager) noexcept {
    static unsigned last = 0;
    store_shared(&pager->load, ++last);
}

bool settings_are_same(const pager_t &one, const pager_t &other) noexcept {
    bool are_same = true;
    visit_settings([&](auto field) { are_same = are_same && is_same(one.*field, other.*field); });
    return are_same;
}

std::string settings_moved(const pager_t &before, const pager_t &after) {
    const struct {
        const char *name;
        bool is_other;
    } rows[] = {
        {"host", !is_same(before.host, after.host)},
        {"port", before.port != after.port},
        {"protocol", before.configured_protocol != after.configured_protocol},
        {"listen", before.listen != after.listen},
        {"addresses", before.listen_address != after.listen_address ||
                          before.espa_address != after.espa_address ||
                          before.espa_control != after.espa_control},
    };
    std::string moved;
    for (const auto &row : rows) {
        if (row.is_other) {
            moved += (moved.empty() ? "other " : " and ") + std::string(row.name);
        }
    }
    return moved;
}
