#include "I2DSliceIO.h"

#include <algorithm>
#include <cmath>

namespace {

// A reserve is only a hint from the file: cap it so that a bad count cannot make one block
// take a large allocation before any vector has been read. Growing past it stays amortised.
constexpr std::size_t kMaxVectorReserve = 65536;

} // namespace

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
