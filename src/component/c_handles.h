// The handles of the C interface: each is one counted reference to one Object, kept in a
// registry so that a released, foreign or null pointer is recognised instead of followed.
#ifndef LARKPOST_COMPONENT_C_HANDLES_H
#define LARKPOST_COMPONENT_C_HANDLES_H

#include <memory>
#include <string_view>

#include "larkpost/create.h"
#include "larkpost/larkpost_c.h"

namespace larkpost::capi {

class EventBridge;

}  // namespace larkpost::capi

struct larkpost_object {
    explicit larkpost_object(larkpost::Object instance) : object(std::move(instance)) {}

    larkpost::Object object;
    // Guarded by the registry's lock.
    int references = 1;
    // MailClient only: the listener that forwards events to the C callbacks, made when the first
    // callbacks are attached and kept for the client's life.
    std::shared_ptr<larkpost::capi::EventBridge> events;
};

namespace larkpost::capi {

// Registers a new handle with one reference.
larkpost_object* NewHandle(Object object);
// Adds a reference; false when the handle is not live.
bool Retain(const larkpost_object* handle);
// Drops a reference and destroys the handle with the last one; false when it is not live.
bool Release(const larkpost_object* handle);
bool IsLive(const larkpost_object* handle);

// The handle's Object for one call: raises 91 for a null handle and 5 for one that is not live.
// The copy keeps the instance alive for the call even if the handle is released meanwhile.
Object CheckedObject(std::string_view function, const larkpost_object* handle);

// The instance as T: raises 13, naming both classes, for a handle of another class.
template <class T>
std::shared_ptr<T> CheckedInstance(std::string_view function, const larkpost_object* handle);

}  // namespace larkpost::capi

#endif
