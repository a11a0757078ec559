// Arrays that the library hands out.
#pragma once

#include "handles.hpp"

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <type_traits>
#include <utility>

namespace vandrel {

/// A growing array of plain records whose block a C caller gets and free()s; without records there is no block.
template <typename Record> class heap_array {
    static_assert(std::is_trivially_copyable_v<Record>);

public:
    explicit heap_array(std::size_t first_capacity) noexcept : next_capacity_{first_capacity} {}

    std::size_t size() const noexcept { return size_; }
    Record &back() noexcept { return records_.get()[size_ - 1]; }

    /// False when memory runs out; the array is then as it was.
    bool push_back(const Record &record) noexcept
    {
        if (size_ == capacity_ && !grow())
            return false;
        records_.get()[size_++] = record;
        return true;
    }

    Record *release() noexcept { return records_.release(); }

private:
    bool grow() noexcept
    {
        // a record may be a pointer, and a capacity is never 0
        // NOLINTNEXTLINE(bugprone-sizeof-expression,clang-analyzer-optin.portability.UnixAPI)
        auto *grown = static_cast<Record *>(std::realloc(records_.get(), next_capacity_ * sizeof(Record)));
        if (!grown)
            return false;
        static_cast<void>(records_.release());
        records_.reset(grown);
        capacity_ = std::exchange(next_capacity_, 2 * next_capacity_);
        return true;
    }

    std::unique_ptr<Record, released_by<::free>> records_;
    std::size_t size_ = 0, capacity_ = 0, next_capacity_;
};

} // namespace vandrel
