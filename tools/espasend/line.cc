#include "line.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <termios.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>

#include "clock.h"
#include "link.h"

namespace {

constexpr long CONNECT_PAUSE_US = 200'000;
constexpr const char *LOOK_AT_CONNECTION =
    ". Look at host and port of the line's section, whether it listens, and whether vesperd runs "
    "(vesperstat)";

struct baud_t {
    int rate;
    speed_t speed;
};
constexpr std::array<baud_t, 8> bauds = {{{1200, B1200},
                                          {2400, B2400},
                                          {4800, B4800},
                                          {9600, B9600},
                                          {19200, B19200},
                                          {38400, B38400},
                                          {57600, B57600},
                                          {115200, B115200}}};

unique_fd_t failed(std::string *error, const std::string &what) {
    *error = what + ": " + strerror(errno);
    return unique_fd_t();
}

// Raw mode is 8 bits without parity; the rest may be what another program has left.
void set_frame(const serial_settings_t &wanted, termios *settings) {
    settings->c_cflag &= ~static_cast<tcflag_t>(PARODD | CSTOPB | CRTSCTS);
    if (wanted.bits == 7) {
        settings->c_cflag = (settings->c_cflag & ~static_cast<tcflag_t>(CSIZE)) | CS7;
    }
    if (wanted.parity != "none") {
        settings->c_cflag |= PARENB;
    }
    if (wanted.parity == "odd") {
        settings->c_cflag |= PARODD;
    }
    if (wanted.stop == 2) {
        settings->c_cflag |= CSTOPB;
    }
}

}  // namespace

unique_fd_t listen_on(const std::string &address, int port, std::string *error) {
    sockaddr_in where{};
    where.sin_family = AF_INET;
    where.sin_port = htons(static_cast<uint16_t>(port));
    if (inet_pton(AF_INET, address.c_str(), &where.sin_addr) != 1) {
        *error = "not an IPv4 address: " + address;
        return unique_fd_t();
    }
    unique_fd_t sock(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    setsockopt(sock.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    if (bind(sock.get(), reinterpret_cast<sockaddr *>(&where), sizeof where) != 0 ||
        listen(sock.get(), 1) != 0) {
        return failed(error, "cannot listen on " + address + ":" + std::to_string(port));
    }
    return sock;
}

int bound_port(int sock) {
    sockaddr_in where{};
    socklen_t size = sizeof where;
    getsockname(sock, reinterpret_cast<sockaddr *>(&where), &size);
    return ntohs(where.sin_port);
}

unique_fd_t accept_within(int listener, int wait_seconds, std::string *error) {
    pollfd waiting{listener, POLLIN, 0};
    if (poll(&waiting, 1, wait_seconds < 0 ? -1 : wait_seconds * 1000) == 0) {
        *error = "nobody connected within " + std::to_string(wait_seconds) + " seconds" +
                 LOOK_AT_CONNECTION;
        return unique_fd_t();
    }
    unique_fd_t sock(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
    if (!sock) {
        return failed(error, "cannot accept a connection");
    }
    const int on = 1;
    setsockopt(sock.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    return sock;
}

unique_fd_t connect_to(const std::string &where, int wait_seconds, std::string *error) {
    const size_t colon = where.rfind(':');
    const std::string host = where.substr(0, colon);
    const std::string port = colon == std::string::npos ? "" : where.substr(colon + 1);
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    const int fault = getaddrinfo(host.c_str(), port.c_str(), &hints, &found);
    if (fault != 0 || port.empty()) {
        *error = "not a host and its port: " + where;
        return unique_fd_t();
    }
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
    sockaddr_in to{};
    memcpy(&to, found->ai_addr, sizeof to);
    const int64_t wait_us = wait_seconds * int64_t{1'000'000};
    const int64_t until = microseconds_passed() + wait_us;
    for (int64_t left = wait_us; left > 0; left = until - microseconds_passed()) {
        unique_fd_t sock(link_socket());
        if (link_connect(sock.get(), to, static_cast<int>(left / 1'000'000) + 1)) {
            return sock;
        }
        pause_us(CONNECT_PAUSE_US);
    }
    *error = "no connection to " + where + LOOK_AT_CONNECTION;
    return unique_fd_t();
}

unique_fd_t open_serial(const std::string &path, const serial_settings_t &wanted,
                        std::string *error) {
    speed_t speed = B0;
    for (const baud_t &known : bauds) {
        speed = known.rate == wanted.baud ? known.speed : speed;
    }
    if (speed == B0) {
        *error = "no such baud rate: " + std::to_string(wanted.baud);
        return unique_fd_t();
    }
    // Without O_NONBLOCK the opening would wait for a carrier that a three-wire line does not have.
    unique_fd_t device(open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK));
    termios settings{};
    if (!device || tcgetattr(device.get(), &settings) != 0) {
        return failed(error, "cannot open serial device " + path);
    }
    cfmakeraw(&settings);
    settings.c_cflag |= CLOCAL | CREAD;
    set_frame(wanted, &settings);
    cfsetspeed(&settings, speed);
    if (tcsetattr(device.get(), TCSANOW, &settings) != 0 || fcntl(device.get(), F_SETFL, 0) != 0) {
        return failed(error, "cannot set up serial device " + path);
    }
    return device;
}
