// The library's own way from a public object to its implementation object. The public classes
// hold nothing but that object, and name this as their one friend.
#ifndef LARKPOST_PLATFORM_IMPL_ACCESS_H
#define LARKPOST_PLATFORM_IMPL_ACCESS_H

namespace larkpost::detail {

struct ImplAccess {
    template <class Public>
    static auto& Of(Public& object) {
        return *object.m_impl;
    }
};

}  // namespace larkpost::detail

#endif
