#pragma once

#include <atomic>
#include <cstddef>
#include <new>
#include <type_traits>

#include <ovra/concurrent/SubmittedTask.h>
#include <ovra/concurrent/TaskHandle.h>

namespace ovra::concurrent {

/// One piece of memory for the parts of a submission: the task, its handle and, where a function
/// was submitted, its work. Freed with the last part.
///
/// Private to the library.
class SubmissionMemory {
    using Work = SubmittedTask::LambdaFunctionTask;

    // Includes the control block of `std::shared_ptr`: a table, two counters, an allocator and
    // padding.
    template <typename Part>
    static constexpr std::size_t sizeOf() {
        return 24 + sizeof(Part);
    }
    template <typename Part>
    static constexpr std::size_t offsetOf() {
        if constexpr (std::is_same_v<Part, SubmittedTask>) {
            return alignof(SubmittedTask);
        } else if constexpr (std::is_same_v<Part, TaskHandle>) {
            return offsetOf<SubmittedTask>() + sizeOf<SubmittedTask>();
        } else if constexpr (std::is_same_v<Part, Work>) {
            return offsetOf<TaskHandle>() + sizeOf<TaskHandle>();
        } else {
            return offsetOf<Work>() + sizeOf<Work>();
        }
    }

public:
    /// For `std::allocate_shared` of the part `Part`.
    template <typename Part, typename Block = Part>
    class Allocator {
    public:
        using value_type = Block;
        template <typename Other>
        struct rebind {  // NOLINT(readability-identifier-naming): the standard's.
            using other = Allocator<Part, Other>;
        };

        explicit Allocator(SubmissionMemory* submissionMemory) : memory(submissionMemory) {}
        template <typename Other>
        explicit Allocator(Allocator<Part, Other> const& other) : memory(other.memory) {}

        Block* allocate(std::size_t) {
            static_assert(sizeof(Block) <= sizeOf<Part>() && alignof(Block) <= alignof(Part));
            ++memory->parts;
            void* const place = reinterpret_cast<char*>(memory) + offsetOf<Part>();
            return static_cast<Block*>(place);
        }
        void deallocate(Block*, std::size_t) {
            if (--memory->parts == 0) {
                ::operator delete(memory);
            }
        }

        SubmissionMemory* memory;
    };

    /// The caller owns it until the first part is allocated in it.
    static SubmissionMemory* make(bool hasWork) {
        return new (::operator new(hasWork ? offsetOf<void>() : offsetOf<Work>())) SubmissionMemory;
    }

private:
    std::atomic<int> parts{0};
};

}  // namespace ovra::concurrent
