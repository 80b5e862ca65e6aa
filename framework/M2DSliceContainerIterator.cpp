#include "M2DSliceContainerIterator.h"

#include "../contracts/M2DSliceStack.h"
#include "M2DSliceIOFactory.h"

namespace {
constexpr std::uint64_t kDefaultBufferSize = 0x40000;

std::shared_ptr<I2DSliceIO> MakeFormat(unsigned short code)
{
    std::shared_ptr<I2DSliceIO> io = M2DSliceIOFactory::GetSliceIO(static_cast<short>(code));
    if (io)
        io->SetFileType(code);
    return io;
}
} // namespace

M2DSliceContainerIterator::M2DSliceContainerIterator(const std::wstring& path, unsigned short code,
                                                     bool readVectors, std::uint64_t bufferSize, bool scan)
    : M2DSliceContainerIterator(path, MakeFormat(code), readVectors, bufferSize, scan)
{
}

M2DSliceContainerIterator::M2DSliceContainerIterator(const std::wstring& path, std::shared_ptr<I2DSliceIO> io,
                                                     bool readVectors, std::uint64_t bufferSize, bool scan)
    : _path(path), _readVectors(readVectors), _io(std::move(io)),
      _bufferSize(bufferSize == 0 ? kDefaultBufferSize : bufferSize)
{
    if (_io)
        _io->SetFileBufferSize(_bufferSize);
    if (scan)
        _ScanFile();
}

M2DSliceContainerIterator::M2DSliceContainerIterator(const M2DSliceContainerIterator& other)
    : ISource2DSlices(other), _path(other._path), _readVectors(other._readVectors),
      _io(other._io ? MakeFormat(other._io->GetFileType()) : nullptr), _sliceParameters(other._sliceParameters),
      _ioParameters(other._ioParameters), _layers(other._layers), _totals(other._totals), _valid(other._valid),
      _bufferSize(other._bufferSize)
{
    if (!_io)
        return;
    _io->SetFileBufferSize(_bufferSize);
    if (!_valid)
        return;
    // The copy reads the same file through a format object of its own, so that it has its
    // own file position. The header is read again because a format may keep state from it
    // that no property carries (an ASCII CLI file is read from layer texts in memory); then
    // the units and statistics of the original are taken over as they stand.
    M2DSliceContainerIOProperties properties;
    other._io->GetIoProperties(properties);
    _io->SetReadOptions(other._io->GetReadOptions());
    if (_io->OpenFile(_path, I2DSliceIO::Read))
        _io->ReadHeader(nullptr);
    _io->SetIoProperties(properties);
}

M2DSliceContainerIterator::~M2DSliceContainerIterator()
{
    if (!_io)
        return;
    _io->_file.CLOSE();
    if (_io->_file.GET_ERROR() == 0)
        _io->_CloseFile();
}

void M2DSliceContainerIterator::SetFileBufferSize(std::uint64_t size)
{
    if (size == 0)
        return;
    _bufferSize = size;
    if (_io)
        _io->SetFileBufferSize(size);
}

bool M2DSliceContainerIterator::_ScanFile()
{
    _totals.Clear();
    _layers.clear();
    _valid = false;
    if (!_io)
        return false;
    if (!_io->OpenFile(_path, I2DSliceIO::Read) || !_io->ReadHeader(_GetScanTarget()))
        return false;

    LayerEntry entry;
    entry.Position = _io->_TellFilePos();
    while (_ScanLayer(entry.Info))
    {
        const M2DSliceContainerScanInfo& info = entry.Info;
        _totals.Area.Extend(info.Area);
        _totals.NumContours += info.NumContours;
        _totals.ContourLength += info.ContourLength;
        _totals.SurfaceArea += info.SurfaceArea;
        _totals.NumVectorBlocks += info.NumVectorBlocks;
        _totals.Z = info.Z;
        _layers.push_back(entry);
        entry.Position = _io->_TellFilePos();
        entry.Info.Clear();
    }
    if (!_io->ReadFooter(_GetScanTarget()))
        return false;

    M2DSliceContainerIOProperties properties;
    _io->GetIoProperties(properties);
    _sliceParameters.Resolution = static_cast<unsigned short>(properties.InverseResolution);
    _sliceParameters.LayerThickness = properties.LayerThickness;
    _sliceParameters.HatchDistanceX = properties.HatchDistanceX;
    _sliceParameters.HatchDistanceY = properties.HatchDistanceY;
    _ioParameters.HatchDistanceX = properties.HatchDistanceX;
    _ioParameters.HatchDistanceY = properties.HatchDistanceY;
    // The file stays open for the iterator's lifetime.
    _valid = true;
    return true;
}

M2DSliceXYArea M2DSliceContainerIterator::_OnGetXYArea(std::uint64_t i) const
{
    return i < _layers.size() ? _layers[i].Info.Area : M2DSliceXYArea();
}

M2DSliceZArea M2DSliceContainerIterator::_OnGetSliceZArea(std::uint64_t i) const
{
    return M2DSliceZArea(i < _layers.size() ? _layers[i].Info.Z : M2DSLICE_UNSET);
}

void M2DSliceContainerIterator::_OnGetSlice(M2DSlice& slice, std::uint64_t i) const
{
    slice.Clear();
    if (!_valid || !_io || i >= _layers.size())
        return;

    const std::int64_t position = _layers[i].Position;
    if (_io->_TellFilePos() == position)
    {
        // Reading on in order: the reader already stands at the layer.
        _readAheadMark = INT64_MAX;
    }
    else
    {
        if (i < _lastIndex && _readAheadMark > position)
        {
            // Walking downward past the last read-ahead: when the layer fits into one
            // buffer, seek first to where a buffer ending with this layer starts, so that
            // the layers below are read from it too.
            const std::int64_t next = _layers[i + 1].Position;
            const auto bufferSize = static_cast<std::int64_t>(_bufferSize);
            if (next <= position + bufferSize)
            {
                std::int64_t mark = next - bufferSize + 1;
                if (mark < 0)
                    mark = _layers.front().Position;
                _readAheadMark = mark;
                _io->_SeekFilePos(mark);
            }
            else
                _readAheadMark = position;
        }
        _io->_SeekFilePos(position);
    }

    M2DSlice local;
    if (_ReadLayer(local))
    {
        local.Z = _layers[i].Info.Z;
        slice.CopyFrom(local, true);
    }
    _lastIndex = i;
}

bool M2DSliceContainerIterator::_ScanLayer(M2DSliceContainerScanInfo& info) const
{
    return _io->ScanLayer(info, nullptr, false);
}

bool M2DSliceContainerIterator::_ReadLayer(M2DSlice& slice) const
{
    return _io->ReadLayer(slice, nullptr, _readVectors);
}

MFile* M2DSliceContainerIterator::_GetFile() const
{
    return _io ? &_io->_file : nullptr;
}

// ------------------------------------------------------------------ stack source

M2DSliceStackInitialSource::M2DSliceStackInitialSource(const std::wstring& path, std::shared_ptr<I2DSliceIO> io,
                                                       M2DSliceStack* stack)
    : M2DSliceContainerIterator(path, std::move(io), true, 0, false), _stack(stack)
{
}

M2DSliceStackInitialSource::~M2DSliceStackInitialSource()
{
    delete _tempFile;
}

void M2DSliceStackInitialSource::SetTempFile(M2DSliceTempFile* file)
{
    if (file == _tempFile)
        return;
    delete _tempFile;
    _tempFile = file;
}

void M2DSliceStackInitialSource::_OnGetSlice(M2DSlice& slice, std::uint64_t i) const
{
    if (_tempFile)
        _tempFile->InitForReading(0);
    M2DSliceContainerIterator::_OnGetSlice(slice, i);
}

bool M2DSliceStackInitialSource::_ScanLayer(M2DSliceContainerScanInfo& info) const
{
    return _io->ScanLayer(info, _GetScanTarget(), false);
}

bool M2DSliceStackInitialSource::_ReadLayer(M2DSlice& slice) const
{
    return _io->ReadLayer(slice, _GetScanTarget(), _readVectors);
}

ITarget2DSlices* M2DSliceStackInitialSource::_GetScanTarget() const
{
    return _stack;
}

namespace ZanSDK {
namespace AM {
namespace SliceIO {

bool InitSliceStackFromSliceFile(unsigned short code, const std::wstring& path, M2DSliceStack& stack,
                                 bool removeAtEnd)
{
    return InitSliceStackFromSliceFile(MakeFormat(code), path, stack, removeAtEnd);
}

bool InitSliceStackFromSliceFile(std::shared_ptr<I2DSliceIO> io, const std::wstring& path, M2DSliceStack& stack,
                                 bool removeAtEnd)
{
    auto source = std::make_shared<M2DSliceStackInitialSource>(path, std::move(io), &stack);
    // A failed scan goes on: the stack then holds an invalid source, which gives no slices.
    const bool valid = source->_ScanFile();
    if (MFile* file = source->_GetFile())
    {
        auto* temp = new M2DSliceTempFile(file, path);
        temp->SetRemoveAtEnd(removeAtEnd);
        source->SetTempFile(temp);
    }
    stack.InitFromSourceSlices(source);
    return valid;
}

} // namespace SliceIO
} // namespace AM
} // namespace ZanSDK
