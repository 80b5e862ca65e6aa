#pragma once
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <new>
#include <utility>
#include <vector>

// A pool of fixed-size objects, allocated in chunks that double in size and recycled
// through a free list. Contour points of a layer share one pool, so a layer of a
// million points costs a few dozen allocations instead of a million. Objects are
// released one by one back to the free list; the chunks go when the pool goes.
// Not thread-safe: a pool belongs to one layer, which serves one thread at a time.
template <class T>
class MCyclicMemoryPool
{
public:
    MCyclicMemoryPool() = default;
    MCyclicMemoryPool(const MCyclicMemoryPool&) = delete;
    MCyclicMemoryPool& operator=(const MCyclicMemoryPool&) = delete;
    ~MCyclicMemoryPool()
    {
        for (auto& chunk : _chunks)
            ::operator delete(chunk.first, std::align_val_t(alignof(Slot)));
    }

    template <class... Args>
    T* New(Args&&... args)
    {
        Slot* slot = _free;
        if (slot)
            _free = slot->next;
        else
            slot = _Grow();
        ++_live;
        return ::new (static_cast<void*>(slot)) T(std::forward<Args>(args)...);
    }

    void Delete(T* object)
    {
        if (!object)
            return;
        object->~T();
        Slot* slot = reinterpret_cast<Slot*>(object);
        slot->next = _free;
        _free = slot;
        --_live;
    }

    std::size_t GetNumLive() const { return _live; }
    // Bytes held in chunks, used or free.
    std::size_t GetCapacityBytes() const { return _capacity * sizeof(Slot); }

private:
    union Slot {
        Slot* next;
        alignas(T) unsigned char storage[sizeof(T)];
    };

    Slot* _Grow()
    {
        if (_nextInChunk == _chunkEnd)
        {
            std::size_t count = _chunks.empty() ? 64 : std::min<std::size_t>(_chunks.back().second * 2, 65536);
            Slot* chunk = static_cast<Slot*>(::operator new(count * sizeof(Slot), std::align_val_t(alignof(Slot))));
            _chunks.emplace_back(chunk, count);
            _nextInChunk = chunk;
            _chunkEnd = chunk + count;
            _capacity += count;
        }
        return _nextInChunk++;
    }

    std::vector<std::pair<Slot*, std::size_t>> _chunks;
    Slot* _free = nullptr;
    Slot* _nextInChunk = nullptr;
    Slot* _chunkEnd = nullptr;
    std::size_t _live = 0;
    std::size_t _capacity = 0;
};

// An array that grows block by block, so that growing never moves the elements already
// stored and never needs one large contiguous allocation.
template <class T, std::size_t N>
class MBlockArray
{
public:
    MBlockArray() = default;
    MBlockArray(const MBlockArray& other) { *this = other; }
    // A moved-from array is empty: its size must not outlive the blocks it gave away.
    MBlockArray(MBlockArray&& other) noexcept : _blocks(std::move(other._blocks)), _size(other._size)
    {
        other._size = 0;
    }
    MBlockArray& operator=(MBlockArray&& other) noexcept
    {
        if (this != &other)
        {
            _blocks = std::move(other._blocks);
            _size = other._size;
            other._blocks.clear();
            other._size = 0;
        }
        return *this;
    }
    MBlockArray& operator=(const MBlockArray& other)
    {
        if (this != &other)
        {
            clear();
            for (const T& value : other)
                push_back(value);
        }
        return *this;
    }

    void push_back(const T& value)
    {
        if (_size == _blocks.size() * N)
            _blocks.emplace_back(new T[N]);
        _blocks[_size / N][_size % N] = value;
        ++_size;
    }
    bool empty() const { return _size == 0; }
    std::size_t size() const { return _size; }
    void clear()
    {
        _blocks.clear();
        _size = 0;
    }
    T& operator[](std::size_t i) { return _blocks[i / N][i % N]; }
    const T& operator[](std::size_t i) const { return _blocks[i / N][i % N]; }

    template <class A, class V>
    class Iterator
    {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = T;
        using difference_type = std::ptrdiff_t;
        using pointer = V*;
        using reference = V&;
        Iterator(A* array, std::size_t i) : _array(array), _i(i) {}
        reference operator*() const { return (*_array)[_i]; }
        pointer operator->() const { return &(*_array)[_i]; }
        Iterator& operator++()
        {
            ++_i;
            return *this;
        }
        Iterator operator++(int)
        {
            Iterator old = *this;
            ++_i;
            return old;
        }
        bool operator==(const Iterator& other) const { return _i == other._i; }
        bool operator!=(const Iterator& other) const { return _i != other._i; }

    private:
        A* _array;
        std::size_t _i;
    };
    using iterator = Iterator<MBlockArray, T>;
    using const_iterator = Iterator<const MBlockArray, const T>;
    iterator begin() { return iterator(this, 0); }
    iterator end() { return iterator(this, _size); }
    const_iterator begin() const { return const_iterator(this, 0); }
    const_iterator end() const { return const_iterator(this, _size); }

private:
    std::vector<std::unique_ptr<T[]>> _blocks;
    std::size_t _size = 0;
};

// Destroys, in one pass, the owned objects of a list for which remove(object) is true and
// closes the gaps; then calls relink(). Should remove throw, the objects not yet visited stay
// in the list, relink() still runs, and the exception goes on.
template <class T, class F, class R>
void DeleteIfAndCompact(std::vector<T*>& items, F remove, R relink)
{
    std::size_t kept = 0;
    std::size_t i = 0;
    try
    {
        for (; i < items.size(); ++i)
        {
            if (remove(*items[i]))
                delete items[i];
            else
                items[kept++] = items[i];
        }
    }
    catch (...)
    {
        for (; i < items.size(); ++i)
            items[kept++] = items[i];
        items.resize(kept);
        relink();
        throw;
    }
    items.resize(kept);
    relink();
}
