#pragma once

#include <typeinfo>

namespace ovra::concurrent {

/// Whether the class of `object` is `Class` itself, and not a derived one. Each shortcut asks this
/// first, so that it never bypasses an override.
///
/// Compares the addresses of the type information and never reads it: classes of an application
/// that is built with `-fno-rtti` have a null pointer in its place.
///
/// Private to the library.
template <typename Class, typename Object>
bool isExactly(Object const& object) {
    return &typeid(object) == &typeid(Class);
}

}  // namespace ovra::concurrent
