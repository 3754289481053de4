#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <new>
#include <vector>

/// Base of a class of which a fleet has tens of thousands of objects, made and deleted with `new` and
/// `delete` on one thread. They stand next to each other, so that walking over all of them touches few
/// pages; what an object leaves free serves the next one and is never given back. A derived class of
/// another size, and every class under the address sanitizer, comes from the heap as usual.
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
        static constexpr std::size_t PerBlock = 128;
        struct alignas(64) Place {
            std::array<std::byte, sizeof(Class)> bytes;
        };

        // The first place of a block is taken first.
        void grow() {
            m_blocks.push_back(std::make_unique<std::array<Place, PerBlock>>());
            for (auto place = m_blocks.back()->rbegin(); place != m_blocks.back()->rend(); ++place)
                m_free.push_back(&*place);
        }

        std::vector<std::unique_ptr<std::array<Place, PerBlock>>> m_blocks;
        std::vector<void*> m_free;
    };

    /// Lives until the process ends: objects may be deleted late.
    static Pool& pool() {
        static Pool* const only = new Pool;
        return *only;
    }
};
