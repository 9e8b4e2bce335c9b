// What a load of the configuration sets of a pager's record, and nothing of what its service thread keeps.
#pragma once

#include <netdb.h>

#include <array>
#include <iterator>
#include <optional>
#include <string>

#include "tables.h"

// IPv4 addresses of a host; those behind the last are 0.
using addresses_t = std::array<in_addr_t, std::size(pager_t{}.peers)>;

// Those of an answer of gethostbyname(), which can be null; none when it has none.
std::optional<addresses_t> addresses_of(const hostent *host) noexcept;

// Has a pager's connections go to the first of the addresses, and come from all of them.
void settings_set_addresses(pager_t *pager, const addresses_t &addresses) noexcept;
addresses_t settings_addresses(const pager_t &pager) noexcept;

// Copies the settings of `fresh` to a record that others read meanwhile, but for the protocol that the
// line speaks.
void settings_store(pager_t *pager, const pager_t &fresh) noexcept;

// Has the line's thread begin anew with another connection. To be called when everything else is in place.
//   protocol  that it begins with
void settings_reconnect(pager_t *pager, int protocol) noexcept;

// Gives the record the number of another load.
void settings_renumber(pager_t *pager) noexcept;

// Whether all settings are the same.
bool settings_are_same(const pager_t &one, const pager_t &other) noexcept;

// What is other, in words, of the settings that make a connection: "other host and port"; empty: nothing.
std::string settings_moved(const pager_t &before, const pager_t &after);
