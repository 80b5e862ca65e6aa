#pragma once
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

class M2DSliceContourPoint : public M3dBorderPointBase<int, void*, M2DSliceContourPoint>
{
public:
    using M3dBorderPointBase::M3dBorderPointBase;
};

class M2DSliceContour : public M3dBorderContourBase<int, void*, M2DSliceContourPoint, M2DSliceContour>,
                        public M2DSliceVectorTypeInfoHolder
{
public:
    explicit M2DSliceContour(std::shared_ptr<Pool> pool) : M3dBorderContourBase(std::move(pool)) {}
    // Used by the border when it copies or recycles contours.
    void CopyAttributesFrom(const M2DSliceContour& other) { _typeInfo = other._typeInfo; }
    void ResetAttributes() { _typeInfo = M2DSliceVectorTypeInfo(); }
};

// Counting view of a contour layer, by position.
class M2DSliceComponentContours
{
public:
    virtual ~M2DSliceComponentContours() = default;
    virtual std::size_t GetNumContours() const = 0;
    virtual std::uint32_t GetNumPoints(std::size_t i) const = 0;
    virtual bool GetIsClosed(std::size_t i) const = 0;
};

class M2DSliceContourLayer : public M3dBorder<int, void*, M2DSliceContour>, public M2DSliceComponentContours
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

// ---------------------------------------------------------------- vectors

class M2DSliceVectorBlock : public M2DSliceVectorTypeInfoHolder
{
public:
    M2DSliceVectorBlock* GetNextVectorBlock() const { return _next; }
    std::size_t GetNumVectors() const { return Vectors.size(); }

    std::vector<M2DSliceVector> Vectors;

private:
    friend class M2DSliceVectorLayer;
    M2DSliceVectorBlock* _next = nullptr;
};

class M2DSliceComponentVectors
{
public:
    virtual ~M2DSliceComponentVectors() = default;
    virtual std::size_t GetNumVectorBlocks() const = 0;
    virtual std::size_t GetNumVectors(std::size_t i) const = 0;
};

// A singly linked list of blocks, also reachable by position.
class M2DSliceVectorLayer : public M2DSliceComponentVectors
{
public:
    M2DSliceVectorLayer() = default;
    M2DSliceVectorLayer(const M2DSliceVectorLayer& other);
    M2DSliceVectorLayer(M2DSliceVectorLayer&& other) noexcept;
    M2DSliceVectorLayer& operator=(const M2DSliceVectorLayer& other);
    M2DSliceVectorLayer& operator=(M2DSliceVectorLayer&& other) noexcept;
    ~M2DSliceVectorLayer() override;

    M2DSliceVectorBlock* GetFirstVectorBlock() const { return _blocks.empty() ? nullptr : _blocks.front(); }
    M2DSliceVectorBlock* GetLastVectorBlock() const { return _blocks.empty() ? nullptr : _blocks.back(); }
    M2DSliceVectorBlock* GetVectorBlock(std::size_t i) const { return _blocks[i]; }
    std::size_t GetNumVectorBlocks() const override { return _blocks.size(); }
    std::size_t GetNumVectors(std::size_t i) const override { return _blocks[i]->Vectors.size(); }
    std::uint64_t GetTotalNumVectors() const;

    M2DSliceVectorBlock* AddVectorBlockAtEnd();
    // Takes the block out and destroys it. With release false the emptied block (and the
    // capacity of its vector storage) is kept for the next AddVectorBlockAtEnd.
    void RemoveVectorBlock(M2DSliceVectorBlock* block, bool release);
    // Visits the blocks in order and destroys those for which remove(block) is true, in one
    // pass: removing many blocks one by one would cost a search and a shift each.
    template <class F>
    void RemoveVectorBlocksIf(F remove)
    {
        std::size_t kept = 0;
        std::size_t i = 0;
        try
        {
            for (; i < _blocks.size(); ++i)
            {
                if (remove(*_blocks[i]))
                    delete _blocks[i];
                else
                    _blocks[kept++] = _blocks[i];
            }
        }
        catch (...)
        {
            // Keep the blocks not yet visited, so that the list stays valid.
            for (; i < _blocks.size(); ++i)
                _blocks[kept++] = _blocks[i];
            _blocks.resize(kept);
            _Relink();
            throw;
        }
        _blocks.resize(kept);
        _Relink();
    }
    void MakeEmpty();
    void Swap(M2DSliceVectorLayer& other) noexcept;

private:
    void _Relink();
    std::vector<M2DSliceVectorBlock*> _blocks;
    M2DSliceVectorBlock* _spare = nullptr;
};

// ---------------------------------------------------------------- points

class M2DSlicePointBlock : public M2DSliceVectorTypeInfoHolder
{
public:
    M2DSlicePointBlock* GetNextPointBlock() const { return _next; }
    MBlockArray<M2DSlicePoint, 1024> Points;

private:
    friend class M2DSlicePointLayer;
    M2DSlicePointBlock* _next = nullptr;
};

class M2DSlicePointLayer
{
public:
    M2DSlicePointLayer() = default;
    M2DSlicePointLayer(const M2DSlicePointLayer& other);
    M2DSlicePointLayer(M2DSlicePointLayer&& other) noexcept;
    M2DSlicePointLayer& operator=(const M2DSlicePointLayer& other);
    M2DSlicePointLayer& operator=(M2DSlicePointLayer&& other) noexcept;
    ~M2DSlicePointLayer();

    M2DSlicePointBlock* GetFirstPointBlock() const { return _blocks.empty() ? nullptr : _blocks.front(); }
    M2DSlicePointBlock* GetLastPointBlock() const { return _blocks.empty() ? nullptr : _blocks.back(); }
    M2DSlicePointBlock* GetPointBlock(std::size_t i) const { return _blocks[i]; }
    std::size_t GetNumPointBlocks() const { return _blocks.size(); }
    std::uint64_t GetTotalNumPoints() const;

    M2DSlicePointBlock* AddPointBlockAtEnd();
    // Takes the block out and destroys it; release false keeps the emptied object for reuse.
    void RemovePointBlock(M2DSlicePointBlock* block, bool release);
    void MakeEmpty();
    void Swap(M2DSlicePointLayer& other) noexcept;

private:
    void _Relink();
    std::vector<M2DSlicePointBlock*> _blocks;
    M2DSlicePointBlock* _spare = nullptr;
};

// The vector blocks of a slice grouped by base kind, in the slice's order within a kind.
struct M2DSliceBaseInfoVectors
{
    std::map<e2DSliceVectorType, std::vector<const M2DSliceVectorBlock*>> Blocks;
};

// ---------------------------------------------------------------- slice

// One layer: a height, a contour layer, a vector layer and a point layer.
class M2DSlice
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
