#include "M2DSlice.h"

#include <algorithm>
#include <utility>

// ---------------------------------------------------------------- contour layer

bool M2DSliceContourLayer::GetIsClosed() const
{
    for (const M2DSliceContour& c : *this)
        if (!c.GetIsClosed())
            return false;
    return true;
}

std::uint64_t M2DSliceContourLayer::GetTotalNumPoints() const
{
    std::uint64_t n = 0;
    for (const M2DSliceContour& c : *this)
        n += c.GetNumPoints();
    return n;
}

// ---------------------------------------------------------------- block lists

namespace {

template <class Block>
void DeleteBlocks(std::vector<Block*>& blocks)
{
    for (Block* b : blocks)
        delete b;
    blocks.clear();
}

template <class Block>
bool EraseBlock(std::vector<Block*>& blocks, Block* block)
{
    // Readers remove the last block nearly always: search from the end.
    for (std::size_t i = blocks.size(); i > 0; --i)
        if (blocks[i - 1] == block)
        {
            blocks.erase(blocks.begin() + static_cast<std::ptrdiff_t>(i - 1));
            return true;
        }
    return false;
}

} // namespace

M2DSliceVectorLayer::M2DSliceVectorLayer(const M2DSliceVectorLayer& other) { *this = other; }

M2DSliceVectorLayer::M2DSliceVectorLayer(M2DSliceVectorLayer&& other) noexcept { Swap(other); }

M2DSliceVectorLayer& M2DSliceVectorLayer::operator=(const M2DSliceVectorLayer& other)
{
    if (this == &other)
        return *this;
    MakeEmpty();
    _blocks.reserve(other._blocks.size());
    for (const M2DSliceVectorBlock* b : other._blocks)
    {
        auto* copy = new M2DSliceVectorBlock(*b);
        _blocks.push_back(copy);
    }
    _Relink();
    return *this;
}

M2DSliceVectorLayer& M2DSliceVectorLayer::operator=(M2DSliceVectorLayer&& other) noexcept
{
    if (this != &other)
    {
        MakeEmpty();
        Swap(other);
    }
    return *this;
}

M2DSliceVectorLayer::~M2DSliceVectorLayer()
{
    MakeEmpty();
    delete _spare;
}

void M2DSliceVectorLayer::Swap(M2DSliceVectorLayer& other) noexcept
{
    std::swap(_blocks, other._blocks);
    std::swap(_spare, other._spare);
}

void M2DSliceVectorLayer::_Relink()
{
    for (std::size_t i = 0; i < _blocks.size(); ++i)
        _blocks[i]->_next = i + 1 < _blocks.size() ? _blocks[i + 1] : nullptr;
}

std::uint64_t M2DSliceVectorLayer::GetTotalNumVectors() const
{
    std::uint64_t n = 0;
    for (const M2DSliceVectorBlock* b : _blocks)
        n += b->Vectors.size();
    return n;
}

M2DSliceVectorBlock* M2DSliceVectorLayer::AddVectorBlockAtEnd()
{
    M2DSliceVectorBlock* b = _spare;
    _spare = nullptr;
    if (!b)
        b = new M2DSliceVectorBlock();
    b->_next = nullptr;
    if (!_blocks.empty())
        _blocks.back()->_next = b;
    _blocks.push_back(b);
    return b;
}

void M2DSliceVectorLayer::RemoveVectorBlock(M2DSliceVectorBlock* block, bool release)
{
    if (!block || !EraseBlock(_blocks, block))
        return;
    _Relink();
    if (!release && !_spare)
    {
        block->Vectors.clear();
        block->SetTypeInfo(M2DSliceVectorTypeInfo());
        block->_next = nullptr;
        _spare = block;
    }
    else
        delete block;
}

void M2DSliceVectorLayer::MakeEmpty() { DeleteBlocks(_blocks); }

M2DSlicePointLayer::M2DSlicePointLayer(const M2DSlicePointLayer& other) { *this = other; }

M2DSlicePointLayer::M2DSlicePointLayer(M2DSlicePointLayer&& other) noexcept { Swap(other); }

M2DSlicePointLayer& M2DSlicePointLayer::operator=(const M2DSlicePointLayer& other)
{
    if (this == &other)
        return *this;
    MakeEmpty();
    _blocks.reserve(other._blocks.size());
    for (const M2DSlicePointBlock* b : other._blocks)
        _blocks.push_back(new M2DSlicePointBlock(*b));
    _Relink();
    return *this;
}

M2DSlicePointLayer& M2DSlicePointLayer::operator=(M2DSlicePointLayer&& other) noexcept
{
    if (this != &other)
    {
        MakeEmpty();
        Swap(other);
    }
    return *this;
}

M2DSlicePointLayer::~M2DSlicePointLayer()
{
    MakeEmpty();
    delete _spare;
}

void M2DSlicePointLayer::Swap(M2DSlicePointLayer& other) noexcept
{
    std::swap(_blocks, other._blocks);
    std::swap(_spare, other._spare);
}

void M2DSlicePointLayer::_Relink()
{
    for (std::size_t i = 0; i < _blocks.size(); ++i)
        _blocks[i]->_next = i + 1 < _blocks.size() ? _blocks[i + 1] : nullptr;
}

std::uint64_t M2DSlicePointLayer::GetTotalNumPoints() const
{
    std::uint64_t n = 0;
    for (const M2DSlicePointBlock* b : _blocks)
        n += b->Points.size();
    return n;
}

M2DSlicePointBlock* M2DSlicePointLayer::AddPointBlockAtEnd()
{
    M2DSlicePointBlock* b = _spare;
    _spare = nullptr;
    if (!b)
        b = new M2DSlicePointBlock();
    b->_next = nullptr;
    if (!_blocks.empty())
        _blocks.back()->_next = b;
    _blocks.push_back(b);
    return b;
}

void M2DSlicePointLayer::RemovePointBlock(M2DSlicePointBlock* block, bool release)
{
    if (!block || !EraseBlock(_blocks, block))
        return;
    _Relink();
    if (!release && !_spare)
    {
        block->Points.clear();
        block->SetTypeInfo(M2DSliceVectorTypeInfo());
        block->_next = nullptr;
        _spare = block;
    }
    else
        delete block;
}

void M2DSlicePointLayer::MakeEmpty() { DeleteBlocks(_blocks); }

// ---------------------------------------------------------------- slice

bool M2DSlice::IsEmpty() const
{
    for (const M2DSliceContour& c : _border)
        if (c.GetNumPoints() > 0)
            return false;
    for (std::size_t i = 0; i < _vectors.GetNumVectorBlocks(); ++i)
        if (_vectors.GetNumVectors(i) > 0)
            return false;
    for (std::size_t i = 0; i < _points.GetNumPointBlocks(); ++i)
        if (!_points.GetPointBlock(i)->Points.empty())
            return false;
    return true;
}

void M2DSlice::Clear()
{
    _border.MakeEmpty();
    _vectors.MakeEmpty();
    _points.MakeEmpty();
    _area.Clear();
    DataKnown = false;
}

const M2DSliceXYArea& M2DSlice::GetXYArea(bool update) const
{
    if (update && !DataKnown)
    {
        M2DSliceXYArea a;
        for (const M2DSliceContour& c : _border)
            for (const M2DSliceContourPoint& p : c)
                a.Extend(p.x, p.y);
        for (std::size_t i = 0; i < _vectors.GetNumVectorBlocks(); ++i)
            for (const M2DSliceVector& v : _vectors.GetVectorBlock(i)->Vectors)
            {
                a.Extend(v.x1, v.y1);
                a.Extend(v.x2, v.y2);
            }
        for (std::size_t i = 0; i < _points.GetNumPointBlocks(); ++i)
            for (const M2DSlicePoint& p : _points.GetPointBlock(i)->Points)
                a.Extend(p.x, p.y);
        _area = a;
        DataKnown = true;
    }
    return _area;
}

void M2DSlice::CopyFrom(M2DSlice& other, bool take)
{
    if (&other == this)
        return;
    Z = other.Z;
    DataKnown = other.DataKnown;
    _area = other._area;
    if (take)
    {
        _border = std::move(other._border);
        _vectors = std::move(other._vectors);
        _points = std::move(other._points);
        other.Clear();
    }
    else
    {
        _border = other._border;
        _vectors = other._vectors;
        _points = other._points;
    }
}

void M2DSlice::AppendFrom(const M2DSlice& other)
{
    if (&other == this)
        return;
    DataKnown = false;
    for (const M2DSliceContour& src : other._border)
    {
        M2DSliceContour* dst = _border.AddContourAtEnd();
        dst->CopyAttributesFrom(src);
        dst->SetIsClosed(src.GetIsClosed());
        dst->SetIsOuterContour(src.GetIsOuterContour());
        for (const M2DSliceContourPoint& p : src)
            dst->InsertAtEnd(p.x, p.y, p.data);
    }
    for (std::size_t i = 0; i < other._vectors.GetNumVectorBlocks(); ++i)
    {
        const M2DSliceVectorBlock* src = other._vectors.GetVectorBlock(i);
        M2DSliceVectorBlock* dst = _vectors.AddVectorBlockAtEnd();
        dst->SetTypeInfo(src->GetTypeInfo());
        dst->Vectors = src->Vectors;
    }
    for (std::size_t i = 0; i < other._points.GetNumPointBlocks(); ++i)
    {
        const M2DSlicePointBlock* src = other._points.GetPointBlock(i);
        M2DSlicePointBlock* dst = _points.AddPointBlockAtEnd();
        dst->SetTypeInfo(src->GetTypeInfo());
        dst->Points = src->Points;
    }
}

void M2DSlice::GetBaseInfoVectors(M2DSliceBaseInfoVectors& out) const
{
    out.Blocks.clear();
    for (std::size_t i = 0; i < _vectors.GetNumVectorBlocks(); ++i)
    {
        const M2DSliceVectorBlock* b = _vectors.GetVectorBlock(i);
        out.Blocks[b->GetTypeInfo().GetType()].push_back(b);
    }
}

std::size_t M2DSlice::GetMemorySize() const
{
    std::size_t bytes = sizeof(M2DSlice);
    bytes += _border.GetNumContours() * (sizeof(M2DSliceContour) + sizeof(void*));
    bytes += static_cast<std::size_t>(_border.GetTotalNumPoints()) * sizeof(M2DSliceContourPoint);
    for (std::size_t i = 0; i < _vectors.GetNumVectorBlocks(); ++i)
        bytes += sizeof(M2DSliceVectorBlock) + sizeof(void*) +
                 _vectors.GetVectorBlock(i)->Vectors.capacity() * sizeof(M2DSliceVector);
    for (std::size_t i = 0; i < _points.GetNumPointBlocks(); ++i)
        bytes += sizeof(M2DSlicePointBlock) + sizeof(void*) +
                 _points.GetPointBlock(i)->Points.size() * sizeof(M2DSlicePoint);
    return bytes;
}
