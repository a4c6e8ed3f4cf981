/// @file
/// Memory for large blocks that one thread fills and another one frees.
#pragma once

#include <cstddef>
#include <new>
#include <sys/mman.h>

/// Takes large blocks from the system and gives them back to it at once. The ordinary allocator
/// would keep what was freed for the thread that allocated it, while the thread that converts a
/// result needs memory: the process would hold both.
///
/// Stateless; any thread may free what another one allocated.
template <typename T>
class PageAllocator
{
public:
    using value_type = T;

    PageAllocator() = default;
    template <typename U>
    PageAllocator(const PageAllocator<U> &) noexcept // NOLINT: allocators convert
    {
    }

    T *allocate(std::size_t count)
    {
        const std::size_t bytes = count * sizeof(T);
        if (bytes < LargeBytes)
            return static_cast<T *>(::operator new(bytes));
        void *memory =
            mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED)
            throw std::bad_alloc();
        return static_cast<T *>(memory);
    }

    void deallocate(T *memory, std::size_t count) noexcept
    {
        const std::size_t bytes = count * sizeof(T);
        if (bytes < LargeBytes)
            ::operator delete(memory);
        else
            munmap(memory, bytes);
    }

    template <typename U>
    bool operator==(const PageAllocator<U> &) const noexcept
    {
        return true;
    }
    template <typename U>
    bool operator!=(const PageAllocator<U> &) const noexcept
    {
        return false;
    }

private:
    static constexpr std::size_t LargeBytes = 16384;
};
