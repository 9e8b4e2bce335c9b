#include "lookup.h"

#include <arpa/inet.h>

#include <atomic>
#include <cerrno>
#include <map>
#include <memory>
#include <system_error>
#include <thread>
#include <vector>

#include "wake.h"

namespace {

constexpr size_t MAX_ASKED = 64;  // names at a time
constexpr size_t FIRST_ANSWER_SIZE = 1024;
constexpr size_t LARGEST_ANSWER_SIZE = 1 << 20;

// A question, which its thread may answer when nobody waits for it any more.
struct question_t {
    std::atomic<bool> is_answered = false;
    std::optional<addresses_t> addresses = {};
};
using questions_t = std::map<std::string, std::shared_ptr<question_t>>;

questions_t &questions() {
    static questions_t &asked = *std::make_unique<questions_t>().release();
    return asked;
}

// Returns null where no thread is to be had.
std::shared_ptr<question_t> ask(const std::string &name) {
    auto question = std::make_shared<question_t>();
    try {
        std::thread([question, name] {
            int fault = 0;
            question->addresses = look_up(name, &fault);
            question->is_answered = true;
            wake();
        }).detach();
    } catch (const std::system_error &) {
        return nullptr;
    }
    return question;
}

}  // namespace

std::optional<addresses_t> look_up(const std::string &name, int *fault) {
    std::vector<char> buffer(FIRST_ANSWER_SIZE);
    hostent answer{};
    hostent *found = nullptr;
    *fault = 0;
    while (gethostbyname_r(name.c_str(), &answer, buffer.data(), buffer.size(), &found, fault) ==
               ERANGE &&
           buffer.size() < LARGEST_ANSWER_SIZE) {
        buffer.resize(2 * buffer.size());
    }
    if (found != nullptr) {
        *fault = 0;
    }
    return addresses_of(found);
}

host_answer_t lookup_ask(const char *name) noexcept {
    host_answer_t answer{host_state_t::FOUND};
    if (inet_pton(AF_INET, name, answer.addresses.data()) == 1) {
        return answer;
    }
    questions_t &asked = questions();
    auto found = asked.find(name);
    if (found == asked.end()) {
        const auto question = asked.size() < MAX_ASKED ? ask(name) : nullptr;
        if (question == nullptr) {
            return {host_state_t::ASKED};  // by the next who wants to know
        }
        found = asked.emplace(name, question).first;
    }
    const question_t &question = *found->second;
    if (!question.is_answered) {
        return {host_state_t::ASKED};
    }
    if (!question.addresses) {
        return {host_state_t::NOT_FOUND};
    }
    return {host_state_t::FOUND, *question.addresses};
}

void lookup_forget() noexcept {
    std::erase_if(questions(), [](const auto &asked) { return bool(asked.second->is_answered); });
}
