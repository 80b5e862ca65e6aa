#pragma once
#include "../framework/Export.h"
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "M2DSliceVectorTypeInfo.h"
#include "M3dBorder.h"
#include "MMemoryPool.h"

// 0x80000000: an unset coordinate or height.
constexpr std::int32_t M2DSLICE_UNSET = INT32_MIN;

// Bounding box in internal units. Empty: minimum 0x7fffffff, maximum 0x80000000.
struct M2DSliceXYArea
{
    std::int32_t XMin = INT32_MAX;
    std::int32_t XMax = INT32_MIN;
    std::int32_t YMin = INT32_MAX;
    std::int32_t YMax = INT32_MIN;

    void Clear() { *this = M2DSliceXYArea(); }
    bool IsEmpty() const { return XMin > XMax || YMin > YMax; }
    void Extend(const M2DSliceXYArea& other)
    {
        if (other.XMin < XMin) XMin = other.XMin;
        if (other.XMax > XMax) XMax = other.XMax;
        if (other.YMin < YMin) YMin = other.YMin;
        if (other.YMax > YMax) YMax = other.YMax;
    }
    void Extend(std::int32_t x, std::int32_t y)
    {
        if (x < XMin) XMin = x;
        if (x > XMax) XMax = x;
        if (y < YMin) YMin = y;
        if (y > YMax) YMax = y;
    }
    bool operator==(const M2DSliceXYArea& o) const
    {
        return XMin == o.XMin && XMax == o.XMax && YMin == o.YMin && YMax == o.YMax;
    }
    bool operator!=(const M2DSliceXYArea& o) const { return !(*this == o); }
};

// The height record of a layer.
struct M2DSliceZArea
{
    explicit M2DSliceZArea(std::int32_t z = M2DSLICE_UNSET) : Z(z) {}
    std::int32_t Z;
};

// A line from (x1, y1) to (x2, y2). The fields are stored x1, x2, y1, y2 while the
// constructor takes x1, y1, x2, y2.
struct M2DSliceVector
{
    M2DSliceVector() = default;
    M2DSliceVector(int px1, int py1, int px2, int py2) : x1(px1), x2(px2), y1(py1), y2(py2) {}
    bool operator==(const M2DSliceVector& o) const { return x1 == o.x1 && x2 == o.x2 && y1 == o.y1 && y2 == o.y2; }
    bool operator!=(const M2DSliceVector& o) const { return !(*this == o); }
    int x1;
    int x2;
    int y1;
    int y2;
};

struct M2DSlicePoint
{
    M2DSlicePoint() = default;
    M2DSlicePoint(int px, int py) : x(px), y(py) {}
    bool operator==(const M2DSlicePoint& o) const { return x == o.x && y == o.y; }
    int x;
    int y;
};

// ---------------------------------------------------------------- contours

class M2DSliceContour;

class SLICEIO_API M2DSliceContourPoint : public M3dBorderPointBase<int, void*, M2DSliceContourPoint>
{
public:
    using M3dBorderPointBase::M3dBorderPointBase;
};

class SLICEIO_API M2DSliceContour : public M3dBorderContourBase<int, void*, M2DSliceContourPoint, M2DSliceContour>,
                        public M2DSliceVectorTypeInfoHolder
{
public:
    explicit M2DSliceContour(std::shared_ptr<Pool> pool) : M3dBorderContourBase(std::move(pool)) {}
    // Used by the border when it copies or recycles contours.
    void CopyAttributesFrom(const M2DSliceContour& other) { _typeInfo = other._typeInfo; }
    void ResetAttributes() { _typeInfo = M2DSliceVectorTypeInfo(); }
};

// Counting view of a contour layer, by position.
class SLICEIO_API M2DSliceComponentContours
{
public:
    virtual ~M2DSliceComponentContours() = default;
    virtual std::size_t GetNumContours() const = 0;
    virtual std::uint32_t GetNumPoints(std::size_t i) const = 0;
    virtual bool GetIsClosed(std::size_t i) const = 0;
};

class SLICEIO_API M2DSliceContourLayer : public M3dBorder<int, void*, M2DSliceContour>, public M2DSliceComponentContours
{
public:
    M2DSliceContourLayer() = default;
    M2DSliceContourLayer(const M2DSliceContourLayer&) = default;
    M2DSliceContourLayer(M2DSliceContourLayer&&) noexcept = default;
    M2DSliceContourLayer& operator=(const M2DSliceContourLayer&) = default;
    M2DSliceContourLayer& operator=(M2DSliceContourLayer&&) noexcept = default;

    std::size_t GetNumContours() const override { return M3dBorder::GetNumContours(); }
    std::uint32_t GetNumPoints(std::size_t i) const override { return GetContour(i)->GetNumPoints(); }
    bool GetIsClosed(std::size_t i) const override { return GetContour(i)->GetIsClosed(); }
    // True when every contour of the layer is closed.
    bool GetIsClosed() const;
    std::uint64_t GetTotalNumPoints() const;
};

// ---------------------------------------------------------------- block lists

// The blocks of a vector or point layer: a singly linked list (each block knows its next),
// also reachable by position so that counting and indexed access need no walk. Blocks are
// owned; one removed block may be kept as a spare for the next AddAtEnd.
template <class Block>
class MBlockList
{
public:
    MBlockList() = default;
    MBlockList(const MBlockList& other) { _CopyFrom(other); }
    MBlockList(MBlockList&& other) noexcept { Swap(other); }
    MBlockList& operator=(const MBlockList& other)
    {
        if (this != &other)
        {
            MakeEmpty();
            _CopyFrom(other);
        }
        return *this;
    }
    MBlockList& operator=(MBlockList&& other) noexcept
    {
        if (this != &other)
        {
            MakeEmpty();
            Swap(other);
        }
        return *this;
    }
    ~MBlockList()
    {
        MakeEmpty();
        delete _spare;
    }

    Block* First() const { return _blocks.empty() ? nullptr : _blocks.front(); }
    Block* Last() const { return _blocks.empty() ? nullptr : _blocks.back(); }
    Block* At(std::size_t i) const { return _blocks[i]; }
    std::size_t Size() const { return _blocks.size(); }

    Block* AddAtEnd()
    {
        Block* b = _spare ? _spare : new Block();
        _spare = nullptr;
        b->_next = nullptr;
        if (!_blocks.empty())
            _blocks.back()->_next = b;
        _blocks.push_back(b);
        return b;
    }

    // Takes the block out and destroys it. With release false the emptied block (and the
    // capacity of its storage) is kept for the next AddAtEnd.
    void Remove(Block* block, bool release)
    {
        // Readers remove the last block nearly always: search from the end.
        std::size_t i = _blocks.size();
        while (i > 0 && _blocks[i - 1] != block)
            --i;
        if (!block || i == 0)
            return;
        _blocks.erase(_blocks.begin() + static_cast<std::ptrdiff_t>(i - 1));
        _Relink();
        if (!release && !_spare)
        {
            block->Reset();
            _spare = block;
        }
        else
            delete block;
    }

    // Visits the blocks in order and destroys those for which remove(block) is true, in one
    // pass: removing many blocks one by one would cost a search and a shift each.
    template <class F>
    void RemoveIf(F remove)
    {
        DeleteIfAndCompact(_blocks, remove, [this] { _Relink(); });
    }

    void MakeEmpty()
    {
        for (Block* b : _blocks)
            delete b;
        _blocks.clear();
    }

    void Swap(MBlockList& other) noexcept
    {
        std::swap(_blocks, other._blocks);
        std::swap(_spare, other._spare);
    }

private:
    void _CopyFrom(const MBlockList& other)
    {
        _blocks.reserve(other._blocks.size());
        for (const Block* b : other._blocks)
            _blocks.push_back(new Block(*b));
        _Relink();
    }
    void _Relink()
    {
        for (std::size_t i = 0; i < _blocks.size(); ++i)
            _blocks[i]->_next = i + 1 < _blocks.size() ? _blocks[i + 1] : nullptr;
    }

    std::vector<Block*> _blocks;
    Block* _spare = nullptr;
};

// ---------------------------------------------------------------- vectors

class SLICEIO_API M2DSliceVectorBlock : public M2DSliceVectorTypeInfoHolder
{
public:
    M2DSliceVectorBlock() = default;
    M2DSliceVectorBlock(const M2DSliceVectorBlock& other) : M2DSliceVectorTypeInfoHolder(other), Vectors(other.Vectors) {}
    // Assignment takes label and vectors; the block keeps its place in its list.
    M2DSliceVectorBlock& operator=(const M2DSliceVectorBlock& other)
    {
        _typeInfo = other._typeInfo;
        Vectors = other.Vectors;
        return *this;
    }
    M2DSliceVectorBlock& operator=(M2DSliceVectorBlock&& other) noexcept
    {
        _typeInfo = std::move(other._typeInfo);
        Vectors = std::move(other.Vectors);
        return *this;
    }
    // Empties the block and its label; the vector storage keeps its capacity.
    void Reset()
    {
        _typeInfo = M2DSliceVectorTypeInfo();
        Vectors.clear();
    }

    M2DSliceVectorBlock* GetNextVectorBlock() const { return _next; }
    std::size_t GetNumVectors() const { return Vectors.size(); }

    std::vector<M2DSliceVector> Vectors;

private:
    friend class MBlockList<M2DSliceVectorBlock>;
    M2DSliceVectorBlock* _next = nullptr;
};

class SLICEIO_API M2DSliceComponentVectors
{
public:
    virtual ~M2DSliceComponentVectors() = default;
    virtual std::size_t GetNumVectorBlocks() const = 0;
    virtual std::size_t GetNumVectors(std::size_t i) const = 0;
};

class SLICEIO_API M2DSliceVectorLayer : public M2DSliceComponentVectors
{
public:
    M2DSliceVectorBlock* GetFirstVectorBlock() const { return _list.First(); }
    M2DSliceVectorBlock* GetLastVectorBlock() const { return _list.Last(); }
    M2DSliceVectorBlock* GetVectorBlock(std::size_t i) const { return _list.At(i); }
    std::size_t GetNumVectorBlocks() const override { return _list.Size(); }
    std::size_t GetNumVectors(std::size_t i) const override { return _list.At(i)->Vectors.size(); }
    std::uint64_t GetTotalNumVectors() const;

    M2DSliceVectorBlock* AddVectorBlockAtEnd() { return _list.AddAtEnd(); }
    // Takes the block out and destroys it. With release false the emptied block (and the
    // capacity of its vector storage) is kept for the next AddVectorBlockAtEnd.
    void RemoveVectorBlock(M2DSliceVectorBlock* block, bool release) { _list.Remove(block, release); }
    // One-pass removal of the blocks for which remove(block) is true.
    template <class F>
    void RemoveVectorBlocksIf(F remove)
    {
        _list.RemoveIf(remove);
    }
    void MakeEmpty() { _list.MakeEmpty(); }
    void Swap(M2DSliceVectorLayer& other) noexcept { _list.Swap(other._list); }

private:
    MBlockList<M2DSliceVectorBlock> _list;
};

// ---------------------------------------------------------------- points

class SLICEIO_API M2DSlicePointBlock : public M2DSliceVectorTypeInfoHolder
{
public:
    M2DSlicePointBlock() = default;
    M2DSlicePointBlock(const M2DSlicePointBlock& other) : M2DSliceVectorTypeInfoHolder(other), Points(other.Points) {}
    // Assignment takes label and points; the block keeps its place in its list.
    M2DSlicePointBlock& operator=(const M2DSlicePointBlock& other)
    {
        _typeInfo = other._typeInfo;
        Points = other.Points;
        return *this;
    }
    M2DSlicePointBlock& operator=(M2DSlicePointBlock&& other) noexcept
    {
        _typeInfo = std::move(other._typeInfo);
        Points = std::move(other.Points);
        return *this;
    }
    void Reset()
    {
        _typeInfo = M2DSliceVectorTypeInfo();
        Points.clear();
    }

    M2DSlicePointBlock* GetNextPointBlock() const { return _next; }
    MBlockArray<M2DSlicePoint, 1024> Points;

private:
    friend class MBlockList<M2DSlicePointBlock>;
    M2DSlicePointBlock* _next = nullptr;
};

class SLICEIO_API M2DSlicePointLayer
{
public:
    M2DSlicePointBlock* GetFirstPointBlock() const { return _list.First(); }
    M2DSlicePointBlock* GetLastPointBlock() const { return _list.Last(); }
    M2DSlicePointBlock* GetPointBlock(std::size_t i) const { return _list.At(i); }
    std::size_t GetNumPointBlocks() const { return _list.Size(); }
    std::uint64_t GetTotalNumPoints() const;

    M2DSlicePointBlock* AddPointBlockAtEnd() { return _list.AddAtEnd(); }
    // Takes the block out and destroys it; release false keeps the emptied object for reuse.
    void RemovePointBlock(M2DSlicePointBlock* block, bool release) { _list.Remove(block, release); }
    void MakeEmpty() { _list.MakeEmpty(); }
    void Swap(M2DSlicePointLayer& other) noexcept { _list.Swap(other._list); }

private:
    MBlockList<M2DSlicePointBlock> _list;
};

// The vector blocks of a slice grouped by base kind, in the slice's order within a kind.
struct M2DSliceBaseInfoVectors
{
    std::map<e2DSliceVectorType, std::vector<const M2DSliceVectorBlock*>> Blocks;
};

// ---------------------------------------------------------------- slice

// One layer: a height, a contour layer, a vector layer and a point layer.
class SLICEIO_API M2DSlice
{
public:
    M2DSlice() = default;
    M2DSlice(const M2DSlice&) = default;
    M2DSlice(M2DSlice&&) noexcept = default;
    M2DSlice& operator=(const M2DSlice&) = default;
    M2DSlice& operator=(M2DSlice&&) noexcept = default;
    virtual ~M2DSlice() = default;

    std::int32_t GetZ() const { return Z; }
    void SetZ(std::int32_t z) { Z = z; }

    // True when no contour has a point, no vector block a vector and no point block a point.
    bool IsEmpty() const;
    // Removes all geometry and empties the box; the height stays.
    void Clear();

    // The box. With update true it is first recomputed from the geometry unless it is
    // known to be current (DataKnown); with false the stored box is returned as it stands.
    const M2DSliceXYArea& GetXYArea(bool update) const;
    // The stored box, for readers that widen it in place as they read.
    M2DSliceXYArea& GetXYAreaUpdate() { return _area; }

    const M2DSliceContourLayer* GetSliceBorder() const { return &_border; }
    M2DSliceContourLayer* GetSliceBorderUpdate()
    {
        DataKnown = false;
        return &_border;
    }
    const M2DSliceVectorLayer* GetVectors() const { return &_vectors; }
    M2DSliceVectorLayer* GetVectorsUpdate()
    {
        DataKnown = false;
        return &_vectors;
    }
    const M2DSlicePointLayer* GetPoints() const { return &_points; }
    M2DSlicePointLayer* GetPointsUpdate()
    {
        DataKnown = false;
        return &_points;
    }

    // Takes over height, geometry and box of another slice: moved when take is true
    // (the other slice is left empty), copied otherwise.
    void CopyFrom(M2DSlice& other, bool take);
    // Adds copies of the contours, vector blocks and point blocks of another slice after
    // the own ones. The height stays; the box counts as out of date.
    void AppendFrom(const M2DSlice& other);
    void GetBaseInfoVectors(M2DSliceBaseInfoVectors& out) const;
    // Bytes of memory the geometry occupies (points, vectors, blocks, contours).
    std::size_t GetMemorySize() const;

    // Height in internal units.
    std::int32_t Z = M2DSLICE_UNSET;
    // Set by a successful read: the stored box and derived data are current.
    mutable bool DataKnown = false;

private:
    M2DSliceContourLayer _border;
    M2DSliceVectorLayer _vectors;
    M2DSlicePointLayer _points;
    mutable M2DSliceXYArea _area;
};
