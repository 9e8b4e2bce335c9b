// Text in fixed-size fields: the two ways in which the daemon writes it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string_view>

// Copies text into a fixed field, cut to the field's size less one, and fills the rest with zeros.
// The last byte of a field that started out zeroed is zero at every moment, so a thread that reads
// the field during the copy always finds an end.
template <size_t N>
void copy_text(char (&field)[N], std::string_view text) noexcept {
    const size_t length = std::min(text.size(), N - 1);
    if (length > 0) {
        memcpy(field, text.data(), length);
    }
    memset(field + length, 0, N - length);
}

// Appends to a caller's buffer of `size` bytes, the terminating zero included. What does not fit is
// dropped, and everything behind it. The buffer is not touched before the first append.
class text_writer_t {
  public:
    text_writer_t(char *buffer, int size) noexcept : buffer_(buffer), size_(size) {}

    void append(std::string_view text) noexcept {
        const size_t count = is_cut_ ? 0 : std::min(text.size(), left());
        is_cut_ = is_cut_ || count < text.size();
        if (count == 0) {
            return;
        }
        memcpy(buffer_ + length_, text.data(), count);
        length_ += static_cast<int>(count);
        buffer_[length_] = '\0';
    }

    // All of it or nothing.
    void append_whole(std::string_view text) noexcept {
        is_cut_ = is_cut_ || left() < text.size();
        append(is_cut_ ? std::string_view() : text);
    }

    // Whether something was dropped.
    bool is_cut() const noexcept { return is_cut_; }

  private:
    size_t left() const noexcept {
        return length_ < size_ - 1 ? static_cast<size_t>(size_ - 1 - length_) : 0;
    }

    char *buffer_;
    int size_;
    int length_ = 0;
    bool is_cut_ = false;
};
