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

// ---------------------------------------------------------------- block layers

std::uint64_t M2DSliceVectorLayer::GetTotalNumVectors() const
{
    std::uint64_t n = 0;
    for (std::size_t i = 0; i < _list.Size(); ++i)
        n += _list.At(i)->Vectors.size();
    return n;
}

std::uint64_t M2DSlicePointLayer::GetTotalNumPoints() const
{
    std::uint64_t n = 0;
    for (std::size_t i = 0; i < _list.Size(); ++i)
        n += _list.At(i)->Points.size();
    return n;
}

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
