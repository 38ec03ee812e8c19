#pragma once

// Test helpers: byte-exact capture of std::cout and a recorder of assertion calls.

#include <iostream>
#include <mutex>
#include <streambuf>
#include <string>
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

// How often `needle` occurs in `text` (overlaps counted).
inline std::size_t count_of(const std::string& text, const std::string& needle) {
    std::size_t n = 0;
    for (std::size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
    return n;
}

// Unbuffered and locked, so that lines written from several threads land whole per insertion
// and the capture stays race-free.
class locked_stringbuf : public std::streambuf {
public:
    std::string str() const {
        std::lock_guard<std::mutex> guard(lock_);
        return text_;
    }
    void clear() {
        std::lock_guard<std::mutex> guard(lock_);
        text_.clear();
    }
    int flushes() const {
        std::lock_guard<std::mutex> guard(lock_);
        return flushes_;
    }

protected:
    int_type overflow(int_type ch) override {
        if (traits_type::eq_int_type(ch, traits_type::eof())) return traits_type::not_eof(ch);
        std::lock_guard<std::mutex> guard(lock_);
        text_.push_back(traits_type::to_char_type(ch));
        return ch;
    }
    std::streamsize xsputn(const char* s, std::streamsize n) override {
        std::lock_guard<std::mutex> guard(lock_);
        text_.append(s, static_cast<std::size_t>(n));
        return n;
    }
    int sync() override {
        std::lock_guard<std::mutex> guard(lock_);
        ++flushes_;
        return 0;
    }

private:
    mutable std::mutex lock_;
    std::string text_;
    int flushes_ = 0;
};

// Redirects std::cout into a buffer for its lifetime.
class cout_capture {
public:
    cout_capture() : old_(std::cout.rdbuf(&buf_)) {}
    ~cout_capture() { std::cout.rdbuf(old_); }
    cout_capture(const cout_capture&) = delete;
    cout_capture& operator=(const cout_capture&) = delete;
    std::string str() const { return buf_.str(); }
    // Returns what was captured so far and starts afresh.
    std::string take() {
        std::string s = buf_.str();
        buf_.clear();
        return s;
    }
    int flushes() const { return buf_.flushes(); }

private:
    locked_stringbuf buf_;
    std::streambuf* old_;
};

struct assertion_call {
    bool cond;
    std::string cond_text;
    std::string message;
    std::string file;
    int line;
};

// Installs an assertion handler that records every call, holding or not.
class assertion_recorder {
public:
    assertion_recorder() {
        kiv_assertion_set_handler([this](bool cond, const std::string& text, const std::string& msg,
                                         const std::string& file, int line) {
            std::lock_guard<std::mutex> guard(lock_);
            calls_.push_back({cond, text, msg, file, line});
        });
    }
    ~assertion_recorder() { kiv_assertion_clear_handler(); }
    assertion_recorder(const assertion_recorder&) = delete;
    assertion_recorder& operator=(const assertion_recorder&) = delete;

    std::vector<assertion_call> take() {
        std::lock_guard<std::mutex> guard(lock_);
        std::vector<assertion_call> out;
        out.swap(calls_);
        return out;
    }

private:
    std::mutex lock_;
    std::vector<assertion_call> calls_;
};

}  // namespace kiv_test
