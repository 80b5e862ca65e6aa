#include "I2DSliceIO.h"

#include <algorithm>
#include <cmath>

namespace {

// A reserve is only a hint from the file: cap it so that a bad count cannot make one block
// take a large allocation before any vector has been read. Growing past it stays amortised.
constexpr std::size_t kMaxVectorReserve = 65536;

// The baseline x86-64 instruction set has no 32-bit minimum and maximum; where the loader
// can pick a version for the processor, one with them is built too. Not under the thread
// sanitizer, whose runtime is not up yet when the loader resolves such functions.
#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define SLICEIO_NO_CLONES
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define SLICEIO_NO_CLONES
#endif
#if defined(__x86_64__) && defined(__ELF__) && defined(__has_attribute) && !defined(SLICEIO_NO_CLONES)
#if __has_attribute(target_clones)
#define SLICEIO_MINMAX_CLONES __attribute__((target_clones("avx2", "default")))
#endif
#endif
#ifndef SLICEIO_MINMAX_CLONES
#define SLICEIO_MINMAX_CLONES
#endif

// Widens area by the smallest and largest x and y of the vectors, as extending it by both
// ends of each vector would. Kept branch-free so that it runs as vector instructions.
SLICEIO_MINMAX_CLONES void ExtendByVectors(M2DSliceXYArea& area, const M2DSliceVector* vectors, std::size_t n)
{
    if (n == 0)
        return;
    int lo[4] = {vectors[0].x1, vectors[0].x2, vectors[0].y1, vectors[0].y2};
    int hi[4] = {lo[0], lo[1], lo[2], lo[3]};
    for (std::size_t i = 1; i < n; ++i)
    {
        const M2DSliceVector& v = vectors[i];
        lo[0] = v.x1 < lo[0] ? v.x1 : lo[0];
        lo[1] = v.x2 < lo[1] ? v.x2 : lo[1];
        lo[2] = v.y1 < lo[2] ? v.y1 : lo[2];
        lo[3] = v.y2 < lo[3] ? v.y2 : lo[3];
        hi[0] = v.x1 > hi[0] ? v.x1 : hi[0];
        hi[1] = v.x2 > hi[1] ? v.x2 : hi[1];
        hi[2] = v.y1 > hi[2] ? v.y1 : hi[2];
        hi[3] = v.y2 > hi[3] ? v.y2 : hi[3];
    }
    area.Extend(std::min(lo[0], lo[1]), std::min(lo[2], lo[3]));
    area.Extend(std::max(hi[0], hi[1]), std::max(hi[2], hi[3]));
}

} // namespace

// ---------------------------------------------------------------- layer input

void I2DSliceIO::ILayerInput::AddVectors(const M2DSliceVector* vectors, std::size_t n)
{
    for (std::size_t i = 0; i < n; ++i)
        AddVector(vectors[i]);
}

void I2DSliceIO::ILayerInput::AddMeasuredVectors(const M2DSliceVector* vectors, std::size_t n,
                                                 const M2DSliceXYArea& /*box*/)
{
    AddVectors(vectors, n);
}

// ---------------------------------------------------------------- contour meter

I2DSliceIO::MContourMeter::MContourMeter(M2DSliceContainerScanInfo* info) : _info(info)
{
    _info->Clear();
}

void I2DSliceIO::MContourMeter::Start()
{
    Finish(false);
    ++_info->NumContours;
    _length = 0.0;
    _signedSum = 0.0;
    _count = 0;
    _closed = true;
    _outer = true;
    _active = true;
}

void I2DSliceIO::MContourMeter::_Segment(int x, int y)
{
    const double dx = static_cast<double>(x) - static_cast<double>(_lastX);
    const double dy = static_cast<double>(y) - static_cast<double>(_lastY);
    _length += std::sqrt(dx * dx + dy * dy);
    // The sum of the two heights is taken in 32-bit arithmetic, wrapping like the integer
    // addition it stands for, before it is widened.
    const auto ySum = static_cast<std::int32_t>(static_cast<std::uint32_t>(_lastY) + static_cast<std::uint32_t>(y));
    _signedSum += static_cast<double>(ySum) * dx;
}

void I2DSliceIO::MContourMeter::Finish(bool invert)
{
    if (!_active)
        return;
    if (_closed && _count > 0)
        _Segment(_firstX, _firstY);
    _info->ContourLength += _length;
    if (_closed)
    {
        if (invert)
            _signedSum = -_signedSum;
        _info->SurfaceArea += _signedSum * 0.5;
    }
    _active = false;
}

// ---------------------------------------------------------------- layer reader

I2DSliceIO::MLayerReader::MLayerReader(M2DSlice& slice, M2DSliceContainerScanInfo& info)
    : _meter(&info),
      _slice(&slice),
      _border(slice.GetSliceBorderUpdate()),
      _vectors(slice.GetVectorsUpdate()),
      _points(slice.GetPointsUpdate()),
      _block(_vectors->GetLastVectorBlock())
{
}

I2DSliceIO::MLayerReader::~MLayerReader()
{
    EndContour(false);
}

void I2DSliceIO::MLayerReader::SetZ(std::int32_t z)
{
    _meter.GetInfo()->Z = z;
    _slice->SetZ(z);
}

void I2DSliceIO::MLayerReader::StartContour(e2DSliceVectorType type)
{
    if (_contour)
        EndContour(false);
    _contour = _border->AddContourAtEnd();
    _contour->SetTypeInfo(M2DSliceVectorTypeInfo(type));
    _meter.Start();
}

void I2DSliceIO::MLayerReader::AddContourPoint(int x, int y)
{
    // A point outside a contour has nowhere to go; it is still measured, as a scan would.
    if (_contour)
        _contour->InsertAtEnd(x, y, nullptr);
    _meter.Measure(x, y);
}

void I2DSliceIO::MLayerReader::SetContourClosed(bool closed)
{
    _meter.SetClosed(closed);
    if (_contour)
        _contour->SetIsClosed(closed);
}

void I2DSliceIO::MLayerReader::SetContourOuter(bool outer)
{
    _meter.SetOuter(outer);
    if (_contour)
        _contour->SetIsOuterContour(outer);
}

void I2DSliceIO::MLayerReader::EndContour(bool invert)
{
    if (!_contour)
        return;
    _meter.Finish(invert);
    if (invert)
        _contour->Invert();
    // The area decides: whatever the file said about the sense is overridden here.
    _contour->SetIsOuterContour(_meter.GetSignedSum() > 0);
    _contour = nullptr;
}

std::uint64_t I2DSliceIO::MLayerReader::GetNumContours() const
{
    return _border->GetNumContours();
}

M2DSliceVectorTypeInfo* I2DSliceIO::MLayerReader::GetContourTypeInfo()
{
    M2DSliceContour* last = _border->GetLastContour();
    return last ? &last->GetTypeInfoUpdate() : &_spareLabel;
}

void I2DSliceIO::MLayerReader::StartVectorBlock(const M2DSliceVectorTypeInfo& info, std::size_t reserve)
{
    _block = _vectors->AddVectorBlockAtEnd();
    _block->Vectors.reserve(std::min(reserve, kMaxVectorReserve));
    _block->SetTypeInfo(info);
}

void I2DSliceIO::MLayerReader::AddVector(const M2DSliceVector& vector)
{
    if (!_block)
        _block = _vectors->AddVectorBlockAtEnd();
    _block->Vectors.push_back(vector);
    M2DSliceXYArea& area = _meter.GetInfo()->Area;
    area.Extend(vector.x1, vector.y1);
    area.Extend(vector.x2, vector.y2);
}

void I2DSliceIO::MLayerReader::AddVectors(const M2DSliceVector* vectors, std::size_t n)
{
    M2DSliceXYArea box;
    ExtendByVectors(box, vectors, n);
    AddMeasuredVectors(vectors, n, box);
}

void I2DSliceIO::MLayerReader::AddMeasuredVectors(const M2DSliceVector* vectors, std::size_t n,
                                                  const M2DSliceXYArea& box)
{
    if (n == 0)
        return;
    if (!_block)
        _block = _vectors->AddVectorBlockAtEnd();
    _block->Vectors.insert(_block->Vectors.end(), vectors, vectors + n);
    _meter.GetInfo()->Area.Extend(box);
}

void I2DSliceIO::MLayerReader::EndVectorBlock(bool release)
{
    if (_block && _block->Vectors.empty())
    {
        _vectors->RemoveVectorBlock(_block, release);
        _block = _vectors->GetLastVectorBlock();
    }
}

std::uint64_t I2DSliceIO::MLayerReader::GetNumVectorBlocks() const
{
    return _vectors->GetNumVectorBlocks();
}

M2DSliceVectorTypeInfo* I2DSliceIO::MLayerReader::GetVectorBlockTypeInfo()
{
    return _block ? &_block->GetTypeInfoUpdate() : &_spareLabel;
}

void I2DSliceIO::MLayerReader::StartPointBlock(const M2DSliceVectorTypeInfo& info)
{
    M2DSlicePointBlock* last = _points->GetLastPointBlock();
    if (last && last->GetTypeInfo() == info)
        return;
    _points->AddPointBlockAtEnd()->SetTypeInfo(info);
}

void I2DSliceIO::MLayerReader::AddPoint(int x, int y)
{
    M2DSlicePointBlock* block = _points->GetLastPointBlock();
    if (!block)
        block = _points->AddPointBlockAtEnd();
    block->Points.push_back(M2DSlicePoint(x, y));
    _meter.GetInfo()->Area.Extend(x, y);
}

void I2DSliceIO::MLayerReader::EndPointBlock()
{
    M2DSlicePointBlock* last = _points->GetLastPointBlock();
    if (last && last->Points.empty())
        _points->RemovePointBlock(last, false);
}

std::uint64_t I2DSliceIO::MLayerReader::GetNumPointBlocks() const
{
    return _points->GetNumPointBlocks();
}

M2DSliceVectorTypeInfo* I2DSliceIO::MLayerReader::GetPointBlockTypeInfo()
{
    M2DSlicePointBlock* last = _points->GetLastPointBlock();
    return last ? &last->GetTypeInfoUpdate() : &_spareLabel;
}

// ---------------------------------------------------------------- layer scanner

I2DSliceIO::MLayerScanner::MLayerScanner(M2DSliceContainerScanInfo& info)
    : _meter(&info), _info(&info), _contourLabel(e2DSliceVectorType_None), _vectorLabel(e2DSliceVectorType_None),
      _pointLabel(e2DSliceVectorType_None)
{
}

void I2DSliceIO::MLayerScanner::SetZ(std::int32_t z)
{
    _info->Z = z;
}

void I2DSliceIO::MLayerScanner::StartContour(e2DSliceVectorType type)
{
    _meter.Start();
    _contourLabel = M2DSliceVectorTypeInfo(type);
}

void I2DSliceIO::MLayerScanner::AddContourPoint(int x, int y)
{
    _meter.Measure(x, y);
}

void I2DSliceIO::MLayerScanner::SetContourClosed(bool closed)
{
    _meter.SetClosed(closed);
}

void I2DSliceIO::MLayerScanner::SetContourOuter(bool outer)
{
    _meter.SetOuter(outer);
}

void I2DSliceIO::MLayerScanner::EndContour(bool invert)
{
    _meter.Finish(invert);
}

std::uint64_t I2DSliceIO::MLayerScanner::GetNumContours() const
{
    return _info->NumContours;
}

M2DSliceVectorTypeInfo* I2DSliceIO::MLayerScanner::GetContourTypeInfo()
{
    return &_contourLabel;
}

void I2DSliceIO::MLayerScanner::StartVectorBlock(const M2DSliceVectorTypeInfo& info, std::size_t /*reserve*/)
{
    ++_info->NumVectorBlocks;
    _vectorLabel = info;
}

void I2DSliceIO::MLayerScanner::AddVector(const M2DSliceVector& vector)
{
    _info->Area.Extend(vector.x1, vector.y1);
    _info->Area.Extend(vector.x2, vector.y2);
}

void I2DSliceIO::MLayerScanner::AddVectors(const M2DSliceVector* vectors, std::size_t n)
{
    ExtendByVectors(_info->Area, vectors, n);
}

void I2DSliceIO::MLayerScanner::EndVectorBlock(bool /*release*/) {}

std::uint64_t I2DSliceIO::MLayerScanner::GetNumVectorBlocks() const
{
    return _info->NumVectorBlocks;
}

M2DSliceVectorTypeInfo* I2DSliceIO::MLayerScanner::GetVectorBlockTypeInfo()
{
    return &_vectorLabel;
}

void I2DSliceIO::MLayerScanner::StartPointBlock(const M2DSliceVectorTypeInfo& info)
{
    ++_info->NumPointBlocks;
    _pointLabel = info;
}

void I2DSliceIO::MLayerScanner::AddPoint(int x, int y)
{
    _info->Area.Extend(x, y);
}

void I2DSliceIO::MLayerScanner::EndPointBlock() {}

std::uint64_t I2DSliceIO::MLayerScanner::GetNumPointBlocks() const
{
    return _info->NumPointBlocks;
}

M2DSliceVectorTypeInfo* I2DSliceIO::MLayerScanner::GetPointBlockTypeInfo()
{
    return &_pointLabel;
}
