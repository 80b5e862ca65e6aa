#include "M2DSliceContainerAppendableIO.h"

#include <stdexcept>

M2DSliceContainerAppendableIO::M2DSliceContainerAppendableIO(unsigned short code)
    : _driver(new M2DSliceContainerIO(code))
{
}

M2DSliceContainerAppendableIO::M2DSliceContainerAppendableIO(std::shared_ptr<I2DSliceIO>& io)
    : _driver(new M2DSliceContainerIO(io))
{
}

M2DSliceContainerAppendableIO::~M2DSliceContainerAppendableIO()
{
    ReleaseAppendWriter();
    delete _driver;
}

std::shared_ptr<I2DSliceIO> M2DSliceContainerAppendableIO::GetSliceIO()
{
    return _driver->GetSliceIO();
}

void M2DSliceContainerAppendableIO::SetFileBufferSize(std::uint64_t size)
{
    _driver->SetFileBufferSize(size);
}

void M2DSliceContainerAppendableIO::SetReadOptions(const I2DSliceIO::ReadOptions& options)
{
    _driver->SetReadOptions(options);
}

bool M2DSliceContainerAppendableIO::ReadContainer(ITarget2DSlices& target, const std::wstring& path,
                                                  bool readVectors)
{
    if (_initialised)
        return false;
    return _driver->ReadContainer(target, path, readVectors);
}

bool M2DSliceContainerAppendableIO::InitializeAppendWriter(const std::wstring& path, std::int32_t unitConversion,
                                                           std::int32_t inverseResolution, bool force)
{
    if (_initialised)
        return true;
    I2DSliceIO* io = _driver->_io.get();
    if (!io)
        return false;
    // force only skips this test: a format without append mode then fails in WriteHeader.
    if (!force && !io->IsAppendModeSupported())
        return false;
    if (!io->OpenFile(path, I2DSliceIO::Write))
        return false;
    if (!io->WriteHeader({}, unitConversion, inverseResolution))
    {
        io->CloseFile();
        return false;
    }
    _initialised = true;
    return true;
}

bool M2DSliceContainerAppendableIO::WriteContainer(const ISource2DSlices& source, bool validate, bool flush)
{
    if (!_initialised)
        return false;
    if (validate)
        _ValidateAppendData(source);

    M2DSliceSourceVector sv;
    sv.GetOptions().JoinByHeight = true;
    sv.SetVector({&source});
    const std::uint64_t n = sv.GetNumSlices();
    if (n == 0)
        return false;

    std::lock_guard<std::mutex> guard(_lock);
    _driver->_WriteSliceContainer(sv);
    ++_appendIterations;
    _writtenSlices += static_cast<std::int32_t>(n);
    return flush ? _driver->_io->FlushFile() : true;
}

bool M2DSliceContainerAppendableIO::ReleaseAppendWriter()
{
    if (!_initialised)
        return false;
    I2DSliceIO* io = _driver->_io.get();
    const bool footer = io->WriteFooter({});
    const bool closed = io->CloseFile();
    _initialised = false;
    return footer && closed;
}

void M2DSliceContainerAppendableIO::_ValidateAppendData(const ISource2DSlices& source)
{
    // Runs before the lock: threads validating at once race on the last height, and a
    // caller needing strict order appends from one thread.
    const std::uint64_t n = source.GetNumSlices();
    for (std::uint64_t i = 0; i < n; ++i)
    {
        const std::shared_ptr<const M2DSlice> slice = source.GetSlice(i);
        if (!slice)
            continue;
        const std::int32_t height = slice->GetZ();
        const std::int32_t last = _lastHeight.load();
        if (height < last)
            throw std::invalid_argument("Slice can't be written on the height " + std::to_string(height) +
                                        ", due to already appended." + " It should be started from Z = " +
                                        std::to_string(last));
        _lastHeight = height;
    }
}
