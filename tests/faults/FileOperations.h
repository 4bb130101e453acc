#pragma once

#include <functional>
#include <memory>

#include <ovra/fs/FileHandle.h>

#include <tests/faults/Sweep.h>

namespace ovra::faults {

/// What changes entries, and what opens streams on them; `fileOperations()` has all.
std::vector<Operation> changeOperations();
std::vector<Operation> streamOperations();

/// Hands `use` a handle on an entry of the tree.
template <typename Use>
std::function<Action()> on(char const* entry, Use use) {
    return [entry, use] {
        auto const handle = std::make_shared<fs::FileHandle>(tree().at(entry));
        return Action([handle, use] { return use(*handle); });
    };
}

/// The same with a second handle.
template <typename Use>
std::function<Action()> onTwo(char const* entry, char const* other, Use use) {
    return [entry, other, use] {
        auto const handle = std::make_shared<fs::FileHandle>(tree().at(entry));
        auto const target = std::make_shared<fs::FileHandle>(tree().at(other));
        return Action([handle, target, use] { return use(*handle, *target); });
    };
}

}  // namespace ovra::faults
