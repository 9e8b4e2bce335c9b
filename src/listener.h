// The socket on which a line waits for a paging system that connects by itself.
#pragma once

#include <set>

#include "fd.h"
#include "tables.h"

class listener_t {
  public:
    // Waits where the pager says as it is loaded now; a socket that does so already is kept. Returns
    // whether it waits; logs why not.
    bool open(const pager_t *pager);

    void close() { sock_.reset(); }

    // The socket, to be polled for connections; -1: none.
    int fd() const noexcept { return sock_.get(); }

    // Takes the next connection of the pager's host. Those of others are closed, a few in one call,
    // each counted and each address logged once per load. Returns the descriptor, set up as by
    // link_socket(), or -1 when no such connection is there at the moment.
    int take(const pager_t *pager);

  private:
    void refuse(int sock, const pager_t *pager, in_addr from);

    unique_fd_t sock_;
    sockaddr_in where_ = {};       // that it waits on
    unsigned load_ = 0;            // of which `refused_` is
    std::set<in_addr_t> refused_;  // addresses that were logged
};
