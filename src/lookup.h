// Finding hosts by their names while everything else goes on.
//
// Every name is asked for in a thread of its own: a name server that answers nothing holds up nobody, for
// as long as the C library asks it. For the main thread.
#pragma once

#include <optional>

#include "settings.h"

// Asks as gethostbyname() does, and waits for the answer. For any thread.
//   fault  receives why there is none, for hstrerror(); 0: the host has no IPv4 address
std::optional<addresses_t> look_up(const std::string &name, int *fault);

enum class host_state_t { ASKED, FOUND, NOT_FOUND };

struct host_answer_t {
    host_state_t state;
    addresses_t addresses = {};  // when it was found
};

// What is known of a host. A name that nobody has asked for is asked for now, where threads allow; one that is
// written as an address is found at once.
host_answer_t lookup_ask(const char *name) noexcept;

// Forgets what was answered: who asks again may hear something else.
void lookup_forget() noexcept;
