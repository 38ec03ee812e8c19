#include "framework/kiv_object.h"

#include <pthread.h>

#include <iostream>
#include <unordered_map>
#include <utility>

namespace {

// The framework's references: one owning handle per reffed object. Never destroyed, so that
// objects released late in process exit still find it; the handles themselves are released at
// exit by release_all().
struct reference_table {
    std::mutex lock;
    std::unordered_map<const _kiv_object*, boost::shared_ptr<_kiv_object>> held;
};

void release_all();

reference_table& references() {
    static reference_table* table = [] {
        auto* t = new reference_table;
        std::atexit(release_all);
        // Held across fork(), so that a child forked beside a reference call finds it free.
        pthread_atfork([] { references().lock.lock(); }, [] { references().lock.unlock(); },
                       [] { references().lock.unlock(); });
        return t;
    }();
    return *table;
}

void release_all() {
    std::unique_lock<std::mutex> lk(references().lock);
    const auto dropped = std::exchange(references().held, {});
    lk.unlock();  // the objects' destructors run after it
}

}  // namespace

_kiv_object::_kiv_object() { properties["object-destroyed"] = false; }

_kiv_object::~_kiv_object() = default;

boost::shared_ptr<_kiv_object> _kiv_object::shared_object() {
    return boost::static_pointer_cast<_kiv_object>(shared_from_this());
}

std::string _kiv_object::type_tag() { return "[kiv_object]"; }

void _kiv_object::destroy(std::string, int) { properties["object-destroyed"] = true; }

void _kiv_object::describe() {
    std::cout << "\x1b[0;35m" << type_tag() << "\x1b[0;0m object at " << static_cast<const void*>(this) << std::endl;
}

bool _kiv_object::is_reffed() {
    reference_table& t = references();
    std::lock_guard<std::mutex> guard(t.lock);
    return t.held.count(this) != 0;
}

void kiv_object_ref(boost::shared_ptr<_kiv_object> object) {
    if (!object) return;
    reference_table& t = references();
    std::lock_guard<std::mutex> guard(t.lock);
    t.held.emplace(object.get(), std::move(object));
}

void kiv_object_unref_real(boost::shared_ptr<_kiv_object> object) {
    if (!object) return;
    decltype(reference_table::held)::node_type dropped;  // released after the lock
    std::lock_guard<std::mutex> guard(references().lock);
    dropped = references().held.extract(object.get());
}

bool kiv_property_get(std::map<std::string, boost::any>& properties, std::string key, boost::any& value) {
    auto it = properties.find(key);
    if (it == properties.end()) return false;
    value = it->second;
    return true;
}

std::size_t kiv_object_reffed_count() {
    reference_table& t = references();
    std::lock_guard<std::mutex> guard(t.lock);
    return t.held.size();
}
