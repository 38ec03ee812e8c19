#include "framework/kiv_assertion.h"

#include <pthread.h>

#include <atomic>
#include <iostream>
#include <memory>
#include <mutex>

#include "framework/kiv_console.h"

namespace {

// The flag keeps the holding-condition path to one relaxed load when no handler is installed.
std::atomic<bool> handler_installed{false};
std::mutex handler_lock;
std::shared_ptr<const kiv_assertion_handler> installed_handler;
// Held across fork(), so that a child forked beside an assertion call finds it free.
// NOLINTNEXTLINE(cert-err58-cpp): a C function, it does not throw
const int fork_handler =
    pthread_atfork([] { handler_lock.lock(); }, [] { handler_lock.unlock(); }, [] { handler_lock.unlock(); });

}  // namespace

void kiv_assertion_faild(bool cond, std::string cond_text, std::string message, std::string file, int line) {
    if (handler_installed.load(std::memory_order_acquire)) {
        std::shared_ptr<const kiv_assertion_handler> handler;
        {
            std::lock_guard<std::mutex> guard(handler_lock);
            handler = installed_handler;
        }
        if (handler) {
            (*handler)(cond, cond_text, message, file, line);
            return;
        }
    }
    if (cond) return;
    std::cout << kiv_framework_detail::error_banner << "assertion failed: " << cond_text << " - " << message << " at "
              << file << ":" << line << std::endl;
}

void kiv_assertion_set_handler(kiv_assertion_handler handler) {
    std::shared_ptr<const kiv_assertion_handler> next;
    if (handler) next = std::make_shared<const kiv_assertion_handler>(std::move(handler));
    std::lock_guard<std::mutex> guard(handler_lock);
    installed_handler.swap(next);
    handler_installed.store(installed_handler != nullptr, std::memory_order_release);
}

void kiv_assertion_clear_handler() { kiv_assertion_set_handler(nullptr); }
