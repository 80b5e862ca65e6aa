#pragma once
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <memory>
#include <utility>
#include <vector>

#include "MMemoryPool.h"

// Generic border geometry: a border is a list of contours, a contour a circular doubly
// linked list of points taken from a pool that all contours of one border share.

template <class T, class D, class P>
class M3dBorderPointBase
{
public:
    M3dBorderPointBase(T px, T py, const D& pdata) : x(px), y(py), data(pdata) {}

    P* GetNextPoint() const { return _next; }
    P* GetPreviousPoint() const { return _prev; }
    bool operator!=(const M3dBorderPointBase& other) const { return x != other.x || y != other.y; }
    bool operator==(const M3dBorderPointBase& other) const { return x == other.x && y == other.y; }

    T x;
    T y;
    D data;

private:
    template <class, class, class, class>
    friend class M3dBorderContourBase;
    P* _next = nullptr;
    P* _prev = nullptr;
};

template <class T, class D, class P, class C>
class M3dBorderContourBase
{
public:
    using PointType = P;
    using Pool = MCyclicMemoryPool<P>;

    explicit M3dBorderContourBase(std::shared_ptr<Pool> pool) : _pool(std::move(pool)) {}
    M3dBorderContourBase(const M3dBorderContourBase&) = delete;
    M3dBorderContourBase& operator=(const M3dBorderContourBase&) = delete;
    ~M3dBorderContourBase() { RemoveAllPoints(); }

    C* GetNextContour() const { return _nextContour; }
    C* GetPreviousContour() const { return _prevContour; }

    P* GetFirstPoint() const { return _first; }
    P* GetLastPoint() const { return _first ? _first->_prev : nullptr; }
    std::uint32_t GetNumPoints() const { return _numPoints; }

    P* InsertAtEnd(T x, T y, const D& data)
    {
        P* p = _pool->New(x, y, data);
        if (!_first)
        {
            p->_next = p->_prev = p;
            _first = p;
        }
        else
        {
            P* last = _first->_prev;
            p->_prev = last;
            p->_next = _first;
            last->_next = p;
            _first->_prev = p;
        }
        ++_numPoints;
        return p;
    }

    // Unlinks the point and gives it back to the pool.
    void RemovePoint(P* p)
    {
        if (!p || !_first)
            return;
        if (_numPoints == 1)
            _first = nullptr;
        else
        {
            p->_prev->_next = p->_next;
            p->_next->_prev = p->_prev;
            if (p == _first)
                _first = p->_next;
        }
        --_numPoints;
        _pool->Delete(p);
    }

    void RemoveAllPoints()
    {
        P* p = _first;
        for (std::uint32_t i = 0; i < _numPoints; ++i)
        {
            P* next = p->_next;
            _pool->Delete(p);
            p = next;
        }
        _first = nullptr;
        _numPoints = 0;
    }

    bool GetIsClosed() const { return _closed; }
    void SetIsClosed(bool closed) { _closed = closed; }
    bool GetIsOuterContour() const { return _outer; }
    void SetIsOuterContour(bool outer) { _outer = outer; }

    // Reverses the order of the points: the last point becomes the first.
    void Invert()
    {
        if (!_first)
            return;
        P* p = _first;
        for (std::uint32_t i = 0; i < _numPoints; ++i)
        {
            std::swap(p->_next, p->_prev);
            p = p->_prev; // the old next
        }
        _first = _first->_next; // the old last
    }

    template <class Q>
    class Iterator
    {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = P;
        using difference_type = std::ptrdiff_t;
        using pointer = Q*;
        using reference = Q&;
        Iterator(Q* p, std::uint32_t left) : _p(p), _left(left) {}
        reference operator*() const { return *_p; }
        pointer operator->() const { return _p; }
        Iterator& operator++()
        {
            _p = _p->GetNextPoint();
            --_left;
            return *this;
        }
        bool operator==(const Iterator& other) const { return _left == other._left; }
        bool operator!=(const Iterator& other) const { return _left != other._left; }

    private:
        Q* _p;
        std::uint32_t _left;
    };
    using iterator = Iterator<P>;
    using const_iterator = Iterator<const P>;
    iterator begin() { return iterator(_first, _numPoints); }
    iterator end() { return iterator(nullptr, 0); }
    const_iterator begin() const { return const_iterator(_first, _numPoints); }
    const_iterator end() const { return const_iterator(nullptr, 0); }

protected:
    template <class, class, class>
    friend class M3dBorder;

    std::shared_ptr<Pool> _pool;
    P* _first = nullptr;
    std::uint32_t _numPoints = 0;
    bool _closed = true;
    bool _outer = true;
    C* _nextContour = nullptr;
    C* _prevContour = nullptr;
};

// A border owns its contours. Contours are reachable both as a linked list and by
// position, so that counting and indexed access need no walk.
template <class T, class D, class C>
class M3dBorder
{
public:
    using ContourType = C;
    using PointType = typename C::PointType;
    using Pool = MCyclicMemoryPool<PointType>;

    M3dBorder() : _pool(std::make_shared<Pool>()) {}
    M3dBorder(const M3dBorder& other) : _pool(std::make_shared<Pool>()) { _CopyContours(other); }
    M3dBorder(M3dBorder&& other) noexcept : _pool(std::make_shared<Pool>()) { Swap(other); }
    M3dBorder& operator=(const M3dBorder& other)
    {
        if (this != &other)
        {
            MakeEmpty();
            _CopyContours(other);
        }
        return *this;
    }
    M3dBorder& operator=(M3dBorder&& other) noexcept
    {
        if (this != &other)
        {
            MakeEmpty();
            Swap(other);
        }
        return *this;
    }
    ~M3dBorder()
    {
        MakeEmpty();
        delete _spare;
    }

    void Swap(M3dBorder& other) noexcept
    {
        std::swap(_pool, other._pool);
        std::swap(_contours, other._contours);
        std::swap(_spare, other._spare);
    }

    C* GetFirstContour() const { return _contours.empty() ? nullptr : _contours.front(); }
    C* GetLastContour() const { return _contours.empty() ? nullptr : _contours.back(); }
    C* GetContour(std::size_t i) const { return _contours[i]; }
    std::size_t GetNumContours() const { return _contours.size(); }

    C* AddContourAtEnd()
    {
        C* c = _spare;
        _spare = nullptr;
        if (!c)
            c = new C(_pool);
        c->_prevContour = GetLastContour();
        c->_nextContour = nullptr;
        if (c->_prevContour)
            c->_prevContour->_nextContour = c;
        _contours.push_back(c);
        return c;
    }

    // Takes the contour out of the border and destroys it; its points go back to the
    // pool. With release false the emptied contour object is kept for the next
    // AddContourAtEnd, which saves an allocation when a reader drops a contour.
    void RemoveContour(C* c, bool release)
    {
        std::size_t i = _contours.size();
        while (i > 0 && _contours[i - 1] != c)
            --i;
        if (i == 0)
            return;
        --i;
        if (c->_prevContour)
            c->_prevContour->_nextContour = c->_nextContour;
        if (c->_nextContour)
            c->_nextContour->_prevContour = c->_prevContour;
        _contours.erase(_contours.begin() + static_cast<std::ptrdiff_t>(i));
        if (!release && !_spare && c->_pool == _pool)
        {
            c->RemoveAllPoints();
            c->_closed = true;
            c->_outer = true;
            c->ResetAttributes();
            _spare = c;
        }
        else
            delete c;
    }

    // Visits the contours in order and destroys those for which remove(contour) is true, in
    // one pass: removing many contours one by one would cost a search and a shift each.
    template <class F>
    void RemoveContoursIf(F remove)
    {
        DeleteIfAndCompact(_contours, remove, [this] {
            for (std::size_t i = 0; i < _contours.size(); ++i)
            {
                _contours[i]->_prevContour = i > 0 ? _contours[i - 1] : nullptr;
                _contours[i]->_nextContour = i + 1 < _contours.size() ? _contours[i + 1] : nullptr;
            }
        });
    }

    void MakeEmpty()
    {
        for (C* c : _contours)
            delete c;
        _contours.clear();
    }

    // Reverses every contour and swaps outer and inner.
    void Invert()
    {
        for (C* c : _contours)
        {
            c->Invert();
            c->SetIsOuterContour(!c->GetIsOuterContour());
        }
    }

    template <class Q>
    class Iterator
    {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = C;
        using difference_type = std::ptrdiff_t;
        using pointer = Q*;
        using reference = Q&;
        explicit Iterator(Q* c) : _c(c) {}
        reference operator*() const { return *_c; }
        pointer operator->() const { return _c; }
        Iterator& operator++()
        {
            _c = _c->GetNextContour();
            return *this;
        }
        bool operator==(const Iterator& other) const { return _c == other._c; }
        bool operator!=(const Iterator& other) const { return _c != other._c; }

    private:
        Q* _c;
    };
    using iterator = Iterator<C>;
    using const_iterator = Iterator<const C>;
    iterator begin() { return iterator(GetFirstContour()); }
    iterator end() { return iterator(nullptr); }
    const_iterator begin() const { return const_iterator(GetFirstContour()); }
    const_iterator end() const { return const_iterator(nullptr); }

    const std::shared_ptr<Pool>& GetPool() const { return _pool; }

private:
    void _CopyContours(const M3dBorder& other)
    {
        for (const C* src : other._contours)
        {
            C* dst = AddContourAtEnd();
            dst->CopyAttributesFrom(*src);
            dst->SetIsClosed(src->GetIsClosed());
            dst->SetIsOuterContour(src->GetIsOuterContour());
            for (const auto& p : *src)
                dst->InsertAtEnd(p.x, p.y, p.data);
        }
    }

    std::shared_ptr<Pool> _pool;
    std::vector<C*> _contours;
    C* _spare = nullptr;
};
