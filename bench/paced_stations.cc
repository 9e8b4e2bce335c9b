#include "paced_stations.h"

#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "clock.h"
#include "espa.h"
#include "site.h"

namespace {

constexpr int BYTES_PER_SECOND = 960;  // 9,600 baud, 8 data bits, no parity, one stop bit
constexpr int64_t LOOK_US = 100'000;
// A tenth of a byte's time: what falls due in between leaves together.
constexpr int64_t SHORTEST_PAUSE_US = 100;
constexpr int64_t PATIENCE_US = 60'000'000;

// When a byte of a packet has come over the line, from the packet's beginning on, rounded up.
int64_t arrival_us(size_t byte) {
    return (static_cast<int64_t>(byte + 1) * 1'000'000 + BYTES_PER_SECOND - 1) / BYTES_PER_SECOND;
}

size_t bytes_arrived(int64_t since_us) {
    return static_cast<size_t>(since_us * BYTES_PER_SECOND / 1'000'000);
}

}  // namespace

paced_stations_t::paced_stations_t(std::vector<unique_fd_t> socks, int64_t period_us,
                                   std::function<std::string(int)> packet_of)
    : period_us_(period_us),
      packet_of_(std::move(packet_of)),
      answers_(epoll_create1(EPOLL_CLOEXEC)) {
    const int64_t now = microseconds_passed();
    const auto count = std::ssize(socks);
    for (int line = 0; line < count; line++) {
        const int64_t first = now + period_us * line / count;
        unique_fd_t &sock = socks[static_cast<size_t>(line)];
        epoll_event wanted{};
        wanted.events = EPOLLIN;
        wanted.data.fd = line;
        epoll_ctl(answers_.get(), EPOLL_CTL_ADD, sock.get(), &wanted);
        lines_.push_back({std::move(sock), first, 0, "", 0, 0});
        due_.push({first, line});
    }
    player_ = std::thread([this] { run(); });
}

void paced_stations_t::stop() {
    if (player_.joinable()) {
        end_us_ = microseconds_passed() + PATIENCE_US;
        done_ = true;
        player_.join();
    }
}

double paced_stations_t::bytes_per_send() const {
    return static_cast<double>(bytes_) / static_cast<double>(std::max(sends_, 1L));
}

void paced_stations_t::run() {
    go_first();
    while (!done_ || playing_ > 0) {
        send_what_is_due();
        const int64_t now = microseconds_passed();
        const int64_t next = due_.empty() ? now + LOOK_US : due_.top().at_us;
        wait_until(std::clamp(next, now + SHORTEST_PAUSE_US, now + LOOK_US));
        if (done_ && now > end_us_) {
            give_up("a call is never acknowledged");
        }
    }
}

void paced_stations_t::send_what_is_due() {
    while (!due_.empty() && due_.top().at_us <= microseconds_passed()) {
        const int number = due_.top().line;
        line_t *line = &lines_[static_cast<size_t>(number)];
        due_.pop();
        const int64_t now = microseconds_passed();
        if (line->packet.empty()) {
            if (done_) {
                continue;
            }
            begin_call(line, now);
        } else {
            send_bytes(line, now);
        }
        if (line->sent < line->packet.size()) {
            due_.push({line->begun_us + arrival_us(line->sent), number});
        }
    }
}

void paced_stations_t::begin_call(line_t *line, int64_t now_us) {
    line->number = static_cast<int>(calls_.size());
    calls_.emplace_back();
    line->packet = packet_of_(line->number);
    line->sent = 0;
    line->begun_us = now_us;
    line->next_call_us += period_us_;
    playing_++;
}

void paced_stations_t::send_bytes(line_t *line, int64_t now_us) {
    const size_t arrived = std::min(bytes_arrived(now_us - line->begun_us), line->packet.size());
    const std::string_view bytes =
        std::string_view(line->packet).substr(line->sent, arrived - line->sent);
    if (bytes.empty()) {
        return;
    }
    if (arrived == line->packet.size()) {
        calls_[static_cast<size_t>(line->number)].last_byte_us = microseconds_passed();
    }
    if (send(line->sock.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) !=
        std::ssize(bytes)) {
        give_up("a line takes no more bytes");
    }
    line->sent = arrived;
    bytes_ += std::ssize(bytes);
    sends_++;
}

void paced_stations_t::wait_until(int64_t at_us) {
    const int64_t left_us = std::max<int64_t>(at_us - microseconds_passed(), 0);
    const timespec left{left_us / 1'000'000, left_us % 1'000'000 * 1000};
    std::array<epoll_event, 64> events{};
    const int ready = epoll_pwait2(answers_.get(), events.data(), static_cast<int>(events.size()),
                                   &left, nullptr);
    for (int i = 0; i < ready; i++) {
        take_answer(events[static_cast<size_t>(i)].data.fd);
    }
}

void paced_stations_t::take_answer(int number) {
    line_t *line = &lines_[static_cast<size_t>(number)];
    char answer = 0;
    if (recv(line->sock.get(), &answer, 1, MSG_DONTWAIT) != 1 || answer != ACK ||
        line->packet.empty() || line->sent < line->packet.size()) {
        give_up("line " + std::to_string(number) + " was not acknowledged");
    }
    const int64_t now = microseconds_passed();
    calls_[static_cast<size_t>(line->number)].acknowledged_us = now;
    line->packet.clear();
    line->sent = 0;
    line->next_call_us = std::max(line->next_call_us, now);
    due_.push({line->next_call_us, number});
    playing_--;
}
