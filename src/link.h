// The TCP connection to a converter.
#pragma once

#include <netinet/in.h>

#include "knock.h"

// Waits as long as the system tries, about two minutes.
constexpr int AS_LONG_AS_THE_SYSTEM_TRIES = -1;

// Returns the descriptor of a new socket, or -1. Programs that the process runs do not inherit it,
// select() can hold it, and a converter that vanishes without a word is noticed after two minutes.
int link_socket() noexcept;

// Sets up a socket in this way, whoever made it. Returns whether select() can hold it.
bool link_prepare(int sock) noexcept;

// Connects a socket; a signal does not end the attempt.
//   seconds  when an attempt that gets no answer is given up, or AS_LONG_AS_THE_SYSTEM_TRIES
//   heard    who may have it given up; null: nobody
// Returns whether it is connected.
bool link_connect(int sock, const sockaddr_in &address, int seconds,
                  const knock_t *heard = nullptr) noexcept;

// Whether a descriptor, or -1 for a socket that could not be made, shows that descriptors run short:
// it lies in the upper half of what the process can use.
bool link_is_short_of_descriptors(int sock) noexcept;
