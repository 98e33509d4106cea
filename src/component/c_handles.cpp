#include "component/c_handles.h"

#include <cstdint>
#include <deque>
#include <mutex>
#include <new>
#include <string>
#include <vector>

#include "component/c_event_bridge.h"
#include "component/class_names.h"
#include "larkpost/error.h"
#include "larkpost/mail_client.h"
#include "larkpost/mail_message.h"
#include "larkpost/string_builder.h"
#include "larkpost/tcp_stream.h"

namespace larkpost::capi {
namespace {

// The bits of a handle: the slot's index plus one in the lower half, the slot's generation in the
// upper half. Generations start at 1, so no handle is null.
constexpr unsigned kIndexBits = sizeof(std::uintptr_t) * 4;
constexpr std::uintptr_t kIndexMask = (std::uintptr_t{1} << kIndexBits) - 1;
constexpr std::uintptr_t kLastGeneration = kIndexMask;

struct Slot {
    std::uintptr_t generation = 1;
    std::size_t references = 0;
    std::optional<Object> object;  // empty while the slot is free
    std::shared_ptr<EventBridge> events;
};

struct Registry {
    std::mutex lock;
    std::vector<Slot> slots;
    // Free slots, the one freed first at the front: a slot is taken again as late as possible.
    std::deque<std::size_t> free;

    // The index of the live slot the handle was made for, or nothing. Under the lock.
    std::optional<std::size_t> Find(const larkpost_object* handle) const {
        const auto bits = reinterpret_cast<std::uintptr_t>(handle);
        const std::uintptr_t number = bits & kIndexMask;
        if (number == 0 || number > slots.size()) return std::nullopt;
        const Slot& slot = slots[number - 1];
        if (!slot.object || slot.generation != bits >> kIndexBits) return std::nullopt;
        return number - 1;
    }

    Slot* Live(const larkpost_object* handle) {
        const std::optional<std::size_t> index = Find(handle);
        return index ? &slots[*index] : nullptr;
    }

    std::size_t TakeSlot() {
        if (!free.empty()) {
            const std::size_t index = free.front();
            free.pop_front();
            return index;
        }
        if (slots.size() >= kIndexMask) throw std::bad_alloc();
        slots.emplace_back();
        return slots.size() - 1;
    }

    // The slot's next object gets a new generation; a slot whose generations are used up is
    // never taken again.
    void FreeSlot(std::size_t index) noexcept {
        Slot& slot = slots[index];
        if (slot.generation == kLastGeneration) return;
        ++slot.generation;
        try {
            free.push_back(index);
        } catch (const std::bad_alloc&) {
            // No memory to list it: the slot stays unused, which is safe.
        }
    }
};

// Never destroyed: hosts may release handles from their own exit handlers.
Registry& TheRegistry() {
    static auto* registry = new Registry;
    return *registry;
}

std::u16string Ascii(std::string_view text) { return std::u16string(text.begin(), text.end()); }

[[noreturn]] void RaiseNotLive(std::string_view function) {
    throw RaisedError(ERROR_INVALID_ARGUMENT,
                      Ascii(function) +
                          u": the handle is not a live Larkpost object (it was released, or it "
                          u"did not come from larkpost_create).",
                      u"Larkpost");
}

}  // namespace

larkpost_object* NewHandle(Object object) {
    Registry& registry = TheRegistry();
    std::lock_guard guard(registry.lock);
    const std::size_t index = registry.TakeSlot();
    Slot& slot = registry.slots[index];
    slot.object.emplace(std::move(object));
    slot.references = 1;
    // A handle is never followed as a pointer: it only names its slot and generation.
    return reinterpret_cast<larkpost_object*>(  // NOLINT(performance-no-int-to-ptr)
        (slot.generation << kIndexBits) | (index + 1));
}

bool Retain(const larkpost_object* handle) {
    Registry& registry = TheRegistry();
    std::lock_guard guard(registry.lock);
    Slot* slot = registry.Live(handle);
    if (slot == nullptr) return false;
    ++slot->references;
    return true;
}

bool Release(const larkpost_object* handle) {
    Registry& registry = TheRegistry();
    std::optional<Object> object;
    std::shared_ptr<EventBridge> events;
    {
        std::lock_guard guard(registry.lock);
        const std::optional<std::size_t> index = registry.Find(handle);
        if (!index) return false;
        Slot& slot = registry.slots[*index];
        if (--slot.references > 0) return true;
        object.swap(slot.object);
        events.swap(slot.events);
        registry.FreeSlot(*index);
    }
    // The object goes outside the lock: a MailClient's teardown may release handles of its own.
    events.reset();
    object.reset();
    return true;
}

bool IsLive(const larkpost_object* handle) {
    Registry& registry = TheRegistry();
    std::lock_guard guard(registry.lock);
    return registry.Find(handle).has_value();
}

std::optional<Object> LiveObject(const larkpost_object* handle) {
    Registry& registry = TheRegistry();
    std::lock_guard guard(registry.lock);
    const Slot* slot = registry.Live(handle);
    return slot ? slot->object : std::nullopt;
}

Object CheckedObject(std::string_view function, const larkpost_object* handle) {
    if (handle == nullptr) {
        throw RaisedError(91, Ascii(function) + u": the object handle is null.", u"Larkpost");
    }
    std::optional<Object> object = LiveObject(handle);
    if (!object) RaiseNotLive(function);
    return *std::move(object);
}

template <class T>
std::shared_ptr<T> CheckedInstance(std::string_view function, const larkpost_object* handle) {
    Object object = CheckedObject(function, handle);
    if (!object.Is<T>()) {
        std::size_t wanted = Object::Instance(std::in_place_type<std::shared_ptr<T>>).index();
        throw RaisedError(ERROR_TYPE_MISMATCH,
                          Ascii(function) + u": type mismatch: the handle is a " +
                              Ascii(object.ClassName()) + u", but this function needs a " +
                              Ascii(detail::kClassNames[wanted]) + u".",
                          u"Larkpost");
    }
    return object.As<T>();
}

template std::shared_ptr<MailClient> CheckedInstance(std::string_view, const larkpost_object*);
template std::shared_ptr<TcpStream> CheckedInstance(std::string_view, const larkpost_object*);
template std::shared_ptr<MailMessage> CheckedInstance(std::string_view, const larkpost_object*);
template std::shared_ptr<StringBuilder> CheckedInstance(std::string_view, const larkpost_object*);

std::shared_ptr<EventBridge> EventBridgeOf(std::string_view function, const larkpost_object* handle,
                                           MailClient& client) {
    Registry& registry = TheRegistry();
    std::lock_guard guard(registry.lock);
    Slot* slot = registry.Live(handle);
    if (slot == nullptr) RaiseNotLive(function);
    if (!slot->events) {
        // Adding a listener calls no host code, so it may run under the lock.
        auto bridge = std::make_shared<EventBridge>();
        client.AddListener(bridge);
        slot->events = std::move(bridge);
    }
    return slot->events;
}

}  // namespace larkpost::capi
