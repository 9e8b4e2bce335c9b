#include "delivery.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "fd.h"
#include "replay.h"
#include "standard_station.h"

namespace {

constexpr int IDLE_SECONDS = 5;          // between two signs to vesperd that the line is alive
constexpr int TRANSACTION_SECONDS = 10;  // after which the procedure takes one for over

// The line, from a first connection over any number of later ones.
class delivery_t {
  public:
    explicit delivery_t(const options_t &options)
        : options_(options), station_(-1, options.wait, stdout), standard_(-1, 1, stdout, '1') {}

    void run() {
        read_recording_to_replay();
        open_line();
        begin_recording();
        if (!options_.replay.empty()) {
            replay();
            return;
        }
        for (int round = 0; round < options_.count; round++) {
            for (const std::string &message : options_.messages) {
                if (delivered_ > 0) {
                    keep_up(options_.interval);
                }
                deliver(message);
            }
        }
        keep_up(options_.hold);
        check_recording();
    }

  private:
    void print_result() const {
        const size_t wanted = options_.messages.size() * static_cast<size_t>(options_.count);
        printf("%d of %zu %s\n", delivered_, wanted,
               options_.ascii ? "lines sent" : "calls acknowledged");
        fflush(stdout);
    }

    [[noreturn]] void fail(const std::string &why) const {
        const bool is_refused =
            !options_.connect.empty() && delivered_ == 0 && line_ && station_.is_closed();
        fflush(stdout);
        fprintf(stderr, "espasend: %s%s\n", why.c_str(),
                is_refused ? ". Is this machine the host of the line's section?" : "");
        exit(EXIT_FAILURE);
    }

    void read_recording_to_replay() {
        std::string error;
        if (!options_.replay.empty() && !read_recording(options_.replay, &recorded_, &error)) {
            fail(error);
        }
    }

    void begin_recording() {
        std::string error;
        if (!options_.record.empty() && !recorder_.open(options_.record, &error)) {
            fail(error);
        }
    }

    void check_recording() const {
        if (!recorder_.is_whole()) {
            fail("the recording could not be written whole");
        }
    }

    void replay() {
        replay_t replayed(line_.get(), options_.wait, stdout);
        replayed.set_recorder(&recorder_);
        const bool is_whole = replayed.run(recorded_);
        const int others = replayed.different();
        printf("%d answers recorded, %d different\n", replayed.answers(), others);
        if (!is_whole) {
            fail(replayed.error());
        }
        check_recording();
        if (others > 0) {
            fail("not all is answered as it was recorded");
        }
    }

    void open_line() {
        std::string error;
        if (!options_.device.empty()) {
            line_ = open_serial(options_.device, options_.serial, &error);
        } else if (!options_.connect.empty()) {
            line_ = connect_to(options_.connect, options_.wait, &error);
        } else {
            line_ = accept_connection(&error);
        }
        if (!line_) {
            fail(error);
        }
        station_ = control_station_t(line_.get(), options_.wait, stdout);
        station_.set_repeats(options_.repeat, options_.garble);
        station_.set_recorder(&recorder_);
        const int wait = std::min(options_.wait, TRANSACTION_SECONDS);
        standard_ = standard_station_t(line_.get(), wait, stdout, options_.own[0]);
        standard_.set_repeats(options_.repeat, options_.garble);
        standard_.set_asks_again(options_.enq);
        standard_.set_recorder(&recorder_);
    }

    unique_fd_t accept_connection(std::string *error) {
        if (!listener_) {
            listener_ = listen_on(options_.bind, options_.port, error);
            if (!listener_) {
                return unique_fd_t();
            }
        }
        printf("waiting for a connection on %s:%d\n", options_.bind.c_str(),
               bound_port(listener_.get()));
        fflush(stdout);
        unique_fd_t line = accept_within(listener_.get(), options_.wait, error);
        if (line) {
            printf("connected\n");
        }
        return line;
    }

    void deliver(const std::string &message) {
        if (station_.is_closed()) {
            printf("the line was closed\n");
            open_line();
        }
        options_.call.message = message;
        if (options_.standard) {
            deliver_by_standard();
        } else if (!(options_.ascii ? station_.send_line(message)
                                    : station_.send_call(options_.call))) {
            fail(station_.error());
        }
        delivered_++;
        print_result();
    }

    void deliver_by_standard() {
        poll_all();
        for (const char other : digits_of(options_.also_select)) {
            if (!standard_.send_unheard(other, options_.call)) {
                fail(standard_.error());
            }
        }
        if (!standard_.send_call(options_.to[0], options_.call) || !standard_.expect_silence()) {
            fail(standard_.error());
        }
    }

    void poll_all() {
        std::string report;
        if (options_.poll > 0 && !standard_.poll_station(options_.to[0], &report)) {
            fail(standard_.error());
        }
        for (const char other : digits_of(options_.also_poll)) {
            if (options_.poll > 0 && !standard_.poll_other(other)) {
                fail(standard_.error());
            }
        }
    }

    void keep_polling(int seconds) {
        const int pause = options_.poll > 0 ? options_.poll : IDLE_SECONDS;
        for (int left = seconds; left > 0; left -= pause) {
            sleep(static_cast<unsigned>(std::min(left, pause)));
            if (standard_.is_closed()) {
                printf("the line was closed\n");
                open_line();
            }
            poll_all();
        }
    }

    // Waits; an ESPA line that stays quiet for long would be taken down by vesperd.
    void keep_up(int seconds) {
        if (options_.standard) {
            keep_polling(seconds);
            return;
        }
        for (int left = seconds; left > 0; left -= IDLE_SECONDS) {
            sleep(static_cast<unsigned>(std::min(left, IDLE_SECONDS)));
            if (!options_.ascii && !station_.is_closed() && !station_.end_transmission()) {
                fail(station_.error());
            }
        }
    }

    options_t options_;
    std::vector<exchange_t> recorded_;
    recorder_t recorder_;
    unique_fd_t listener_;
    unique_fd_t line_;
    control_station_t station_;
    standard_station_t standard_;
    int delivered_ = 0;
};

}  // namespace

void deliver_all(const options_t &options) {
    delivery_t(options).run();
}
