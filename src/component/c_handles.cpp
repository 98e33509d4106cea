#include "component/c_handles.h"

#include <mutex>
#include <string>
#include <unordered_set>

#include "component/c_event_bridge.h"
#include "component/class_names.h"
#include "larkpost/error.h"
#include "larkpost/mail_client.h"
#include "larkpost/mail_message.h"
#include "larkpost/string_builder.h"
#include "larkpost/tcp_stream.h"

namespace larkpost::capi {
namespace {

struct Registry {
    std::mutex lock;
    std::unordered_set<const larkpost_object*> live;
};

// Never destroyed: hosts may release handles from their own exit handlers.
Registry& TheRegistry() {
    static auto* registry = new Registry;
    return *registry;
}

std::u16string Ascii(std::string_view text) { return std::u16string(text.begin(), text.end()); }

}  // namespace

larkpost_object* NewHandle(Object object) {
    auto handle = std::make_unique<larkpost_object>(std::move(object));
    Registry& registry = TheRegistry();
    std::lock_guard guard(registry.lock);
    registry.live.insert(handle.get());
    return handle.release();
}

bool Retain(const larkpost_object* handle) {
    Registry& registry = TheRegistry();
    std::lock_guard guard(registry.lock);
    if (!registry.live.count(handle)) return false;
    ++const_cast<larkpost_object*>(handle)->references;
    return true;
}

bool Release(const larkpost_object* handle) {
    Registry& registry = TheRegistry();
    {
        std::lock_guard guard(registry.lock);
        auto found = registry.live.find(handle);
        if (found == registry.live.end()) return false;
        if (--const_cast<larkpost_object*>(handle)->references > 0) return true;
        registry.live.erase(found);
    }
    // Outside the lock: a MailClient's teardown may release handles of its own.
    delete handle;
    return true;
}

bool IsLive(const larkpost_object* handle) {
    Registry& registry = TheRegistry();
    std::lock_guard guard(registry.lock);
    return registry.live.count(handle) != 0;
}

Object CheckedObject(std::string_view function, const larkpost_object* handle) {
    if (handle == nullptr) {
        throw RaisedError(91, Ascii(function) + u": the object handle is null.", u"Larkpost");
    }
    Registry& registry = TheRegistry();
    std::lock_guard guard(registry.lock);
    if (!registry.live.count(handle)) {
        throw RaisedError(ERROR_INVALID_ARGUMENT,
                          Ascii(function) +
                              u": the handle is not a live Larkpost object (it was released, or "
                              u"it did not come from larkpost_create).",
                          u"Larkpost");
    }
    return handle->object;
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

}  // namespace larkpost::capi
