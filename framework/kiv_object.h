#pragma once

// Base object of the framework, the framework's reference on objects and the property map.
//
// Ownership: every framework object lives under boost::shared_ptr. kiv_object_ref makes the
// framework hold one more owning handle (at most one per object) until kiv_object_unref_real;
// whatever is still held when the process exits is released then.

#include <boost/any.hpp>
#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>

#include <map>
#include <mutex>
#include <string>

#include "framework/kiv_framework_export.h"

// Carries the weak self-reference that the first owning boost::shared_ptr records.
class KIV_FRAMEWORK_API kiv_object_base : public boost::enable_shared_from_this<kiv_object_base> {};

class KIV_FRAMEWORK_API _kiv_object : public kiv_object_base {
public:
    // Enters "object-destroyed" = false into `properties`.
    _kiv_object();

    // Virtual slots, in this order: destructor, shared_object, type_tag, destroy, describe.
    virtual ~_kiv_object();
    // Owning handle to this object, sharing ownership with its owners; boost::bad_weak_ptr
    // when none is left.
    virtual boost::shared_ptr<_kiv_object> shared_object();
    // Console tag of the class, e.g. "[kiv_object]".
    virtual std::string type_tag();
    // Marks the object destroyed; the base only sets "object-destroyed".
    virtual void destroy(std::string file, int line);
    // Writes one console line naming type_tag() and the address. Never locks `mutex`.
    virtual void describe();

    // Whether the framework currently holds its reference (kiv_object_ref) on this object.
    bool is_reffed();

    std::map<std::string, boost::any> properties;
    // Object mutex; guards what derived classes say it guards. Not recursive.
    std::mutex mutex;
};

// Takes the framework's reference on `object`; a second call changes nothing. Empty: no-op.
KIV_FRAMEWORK_API void kiv_object_ref(boost::shared_ptr<_kiv_object> object);
// Gives that reference back; an object that is not reffed is left alone. Empty: no-op.
KIV_FRAMEWORK_API void kiv_object_unref_real(boost::shared_ptr<_kiv_object> object);
// If `properties` holds `key`, copies its value into `value` and returns true; else false
// and `value` is untouched.
KIV_FRAMEWORK_API bool kiv_property_get(std::map<std::string, boost::any>& properties, std::string key,
                                        boost::any& value);

// Host and test helper (never used by libraries): number of objects the framework holds.
KIV_FRAMEWORK_API std::size_t kiv_object_reffed_count();
