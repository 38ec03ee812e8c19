#pragma once

// Test helpers: byte-exact capture of std::cout and a recorder of assertion calls.

#include <iostream>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "framework/kiv_assertion.h"

namespace kiv_test {

inline const std::string warning_banner = "\x1b[1;35mKIV-SYSTEM**WARNING**\x1b[0;0m: ";
inline const std::string error_banner = "\x1b[1;31mKIV-SYSTEM**ERROR**\x1b[0;0m: ";
inline std::string coloured(const std::string& name) { return "\x1b[0;35m" + name + "\x1b[0;0m"; }
// The exact line an exported function writes for an empty handle.
inline std::string null_object_line(const std::string& function) {
    return warning_banner + "null object supplied: " + coloured(function) + "\n";
}

inline std::size_t count_of(const std::string& text, const std::string& needle) {
    std::size_t n = 0;
    for (std::size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
    return n;
}

// Redirects std::cout for its lifetime (not copyable: it holds a mutex) into an unbuffered, locked buffer, so that lines written
// from several threads are captured race-free; counts the flushes.
class cout_capture : private std::streambuf {
public:
    cout_capture() : old_(std::cout.rdbuf(this)) {}
    ~cout_capture() override { std::cout.rdbuf(old_); }
    std::string str() const { return locked([this] { return text_; }); }
    std::string take() { return locked([this] { return std::exchange(text_, std::string()); }); }  // starting afresh
    int flushes() const { return locked([this] { return flushes_; }); }

private:
    int_type overflow(int_type ch) override {
        const char c = traits_type::to_char_type(ch);
        if (!traits_type::eq_int_type(ch, traits_type::eof())) xsputn(&c, 1);
        return traits_type::not_eof(ch);
    }
    std::streamsize xsputn(const char* s, std::streamsize n) override {
        locked([&] { text_.append(s, static_cast<std::size_t>(n)); });
        return n;
    }
    int sync() override {
        locked([this] { ++flushes_; });
        return 0;
    }
    template <class F>
    auto locked(F f) const -> decltype(f()) {
        std::lock_guard<std::mutex> guard(lock_);
        return f();
    }
    mutable std::mutex lock_;
    std::string text_;
    int flushes_ = 0;
    std::streambuf* old_;
};

struct assertion_call {
    bool cond;
    std::string cond_text, message, file;
    int line;
};

// Records every assertion call, holding or not, for its lifetime (not copyable: it holds a mutex).
class assertion_recorder {
public:
    assertion_recorder() {
        kiv_assertion_set_handler([this](bool cond, const std::string& text, const std::string& message,
                                         const std::string& file, int line) {
            std::lock_guard<std::mutex> guard(lock_);
            calls_.push_back({cond, text, message, file, line});
        });
    }
    ~assertion_recorder() { kiv_assertion_clear_handler(); }
    std::vector<assertion_call> take() {
        std::lock_guard<std::mutex> guard(lock_);
        return std::exchange(calls_, {});
    }

private:
    std::mutex lock_;
    std::vector<assertion_call> calls_;
};

}  // namespace kiv_test
