// The handles of the C interface. A handle is not an address but a slot number and the slot's
// generation, kept in one registry: a null, foreign or released handle is recognised instead of
// followed, and a slot that is used again gets a new generation, so a stale handle never reaches
// the object that came after its own.
#ifndef LARKPOST_COMPONENT_C_HANDLES_H
#define LARKPOST_COMPONENT_C_HANDLES_H

#include <memory>
#include <optional>
#include <string_view>

#include "larkpost/create.h"
#include "larkpost/larkpost_c.h"

namespace larkpost {
class MailClient;
}  // namespace larkpost

namespace larkpost::capi {

class EventBridge;

// Registers the object under a new handle with one reference.
larkpost_object* NewHandle(Object object);
// Adds a reference; false when the handle is not live.
bool Retain(const larkpost_object* handle);
// Drops a reference and lets the object go with the last one; false when it is not live.
bool Release(const larkpost_object* handle);
bool IsLive(const larkpost_object* handle);
// The handle's Object, or nothing when the handle is not live.
std::optional<Object> LiveObject(const larkpost_object* handle);

// The handle's Object for one call: raises 91 for a null handle and 5 for one that is not live.
// The copy keeps the instance alive for the call even if the handle is released meanwhile.
Object CheckedObject(std::string_view function, const larkpost_object* handle);

// The instance as T: raises 13, naming both classes, for a handle of another class.
template <class T>
std::shared_ptr<T> CheckedInstance(std::string_view function, const larkpost_object* handle);

// The listener that forwards the client's events to the C callbacks of its handle: made and
// added to the client at the first call, then kept with the handle for the client's life.
std::shared_ptr<EventBridge> EventBridgeOf(std::string_view function, const larkpost_object* handle,
                                           MailClient& client);

}  // namespace larkpost::capi

#endif
