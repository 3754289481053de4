#pragma once

#include <cstddef>
#include <new>
#include <sys/mman.h>
#include <vector>

/// Base of a class of which a fleet has tens of thousands of objects, made and deleted with `new` and
/// `delete` on one thread. They stand next to each other, and once they fill half a huge page the next ones
/// stand on such pages where the system has any: a walk over all of them otherwise waits longer for the
/// addresses to be looked up than for the memory itself. What an object leaves free serves the next one and
/// is never given back. A derived class of another size, and every class under the address sanitizer, comes
/// from the heap as usual.
template<typename Class>
class Pooled {
public:
    static void* operator new(std::size_t size) {
        return isPooled(size) ? pool().take() : ::operator new(size);
    }
    static void operator delete(void* place, std::size_t size) {
        if (isPooled(size))
            pool().giveBack(place);
        else
            ::operator delete(place);
    }

private:
    static bool isPooled(std::size_t size) {
#ifdef __SANITIZE_ADDRESS__
        return size == 0;
#else
        return size == sizeof(Class);
#endif
    }

    class Pool {
    public:
        void* take() {
            if (m_free.empty())
                grow();
            void* const place = m_free.back();
            m_free.pop_back();
            return place;
        }
        void giveBack(void* place) { m_free.push_back(place); }

    private:
        static constexpr std::size_t CacheLine = 64;
        static constexpr std::size_t PlaceSize = (sizeof(Class) + CacheLine - 1) / CacheLine * CacheLine;
        static constexpr std::size_t SmallBlock = 128 * PlaceSize;
        static constexpr std::size_t HugePage = std::size_t{2} << 20;

        void grow() {
            const std::size_t size = m_size < HugePage / 2 ? SmallBlock : HugePage;
            const std::size_t alignment = size == HugePage ? HugePage : CacheLine;
            auto* const block = static_cast<std::byte*>(::operator new (size, std::align_val_t{alignment}));
            if (size == HugePage)
                madvise(block, size, MADV_HUGEPAGE); // a system without them refuses, which does no harm
            m_size += size;
            // The first place of the block is taken first.
            for (std::size_t i = size / PlaceSize; i-- > 0;)
                m_free.push_back(block + i * PlaceSize);
        }

        std::size_t m_size = 0;
        std::vector<void*> m_free;
    };

    /// Lives until the process ends: objects may be deleted late.
    static Pool& pool() {
        static Pool* const only = new Pool;
        return *only;
    }
};
