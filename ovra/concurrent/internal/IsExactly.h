#pragma once

#include <typeinfo>

namespace ovra::concurrent {

/// Whether `object` is a `Class` and nothing derived from it, so that no override sees a shortcut.
///
/// Compares where the type information lies and never looks into it: an application that is built
/// without leaves a null pointer in its classes.
///
/// Private to the library.
template <typename Class, typename Object>
bool isExactly(Object const& object) {
    return &typeid(object) == &typeid(Class);
}

}  // namespace ovra::concurrent
