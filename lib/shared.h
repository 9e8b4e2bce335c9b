// Data that one thread rewrites while others read it, without a lock.
//
// Whatever may be written and read at the same time goes through these. Loads acquire and stores
// release, so a reader that sees a pointer sees what it points to, and one that sees a part of a
// rewriting sees its generation.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <thread>
#include <type_traits>

// One number, character or pointer.
template <typename T>
T load_shared(const T &field) noexcept {
    return __atomic_load_n(&field, __ATOMIC_ACQUIRE);
}

template <typename T>
void store_shared(T *field, std::type_identity_t<T> value) noexcept {
    __atomic_store_n(field, value, __ATOMIC_RELEASE);
}

// Adds one to a count, which stays at the largest number. For one writer. Returns the new count.
inline int count_up_shared(int *count) noexcept {
    const int before = load_shared(*count);
    const int after = before < std::numeric_limits<int>::max() ? before + 1 : before;
    store_shared(count, after);
    return after;
}

// Copies a record or an array, of which either side may be shared, in units of its alignment.
template <typename T>
void copy_shared(T *to, const T &from) noexcept {
    static_assert(std::is_trivially_copyable_v<T>);
    typedef uint64_t word_t __attribute__((may_alias));
    if constexpr (alignof(T) % sizeof(word_t) == 0) {
        for (size_t i = 0; i < sizeof(T) / sizeof(word_t); i++) {
            store_shared(reinterpret_cast<word_t *>(to) + i,
                         load_shared(reinterpret_cast<const word_t *>(&from)[i]));
        }
    } else {
        for (size_t i = 0; i < sizeof(T); i++) {
            store_shared(reinterpret_cast<unsigned char *>(to) + i,
                         load_shared(reinterpret_cast<const unsigned char *>(&from)[i]));
        }
    }
}

// A copy of a shared text field, up to its end.
template <size_t N>
struct text_copy_t {
    char text[N];

    text_copy_t() noexcept { text[0] = '\0'; }
    explicit text_copy_t(const char (&field)[N]) noexcept {
        size_t length = 0;
        while (length < N - 1 && (text[length] = load_shared(field[length])) != '\0') {
            length++;
        }
        text[length] = '\0';
    }
};

// Counts the beginnings and ends of rewriting something: odd while one is under way. For one
// writer.
class generation_t {
  public:
    void begin_writing() noexcept { count_.fetch_add(1); }
    void end_writing() noexcept { count_.fetch_add(1); }

    // Calls `read`, and again if there was a rewriting meanwhile: what it copied last belongs
    // together.
    template <typename reader_t>
    void read(reader_t read) const noexcept {
        for (;;) {
            const unsigned before = count_.load();
            if (before % 2 == 0) {
                read();
                if (count_.load() == before) {
                    return;
                }
            }
            std::this_thread::yield();
        }
    }

    // Another number after every rewriting.
    unsigned number() const noexcept { return count_.load(); }

  private:
    std::atomic<unsigned> count_ = 0;
};
