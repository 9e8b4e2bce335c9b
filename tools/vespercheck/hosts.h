// The search for the addresses of hosts, which a name service may leave unanswered.
#pragma once

#include <netinet/in.h>

#include <string>
#include <vector>

// For how long all names together may take.
constexpr double HOSTS_LIMIT_SECONDS = 10;

// What the search for a pager's host came to.
struct host_t {
    std::string name;
    bool is_found;
    bool is_asked;       // false: nobody was asked for the address
    std::string reason;  // why it is not found
    in_addr address;
};

// Finds the hosts of these names, in their order.
using host_asker_t = std::vector<host_t> (*)(const std::vector<std::string> &names, double seconds);

// Asks for each as gethostbyname() does, for many at a time. What is not answered within `seconds`
// is not found, and a search that is still on goes on aside, until the process ends.
std::vector<host_t> ask_hosts(const std::vector<std::string> &names, double seconds);

// Asks nobody: an address is found as such, and every name that is not empty without its address.
std::vector<host_t> take_hosts(const std::vector<std::string> &names, double seconds);
