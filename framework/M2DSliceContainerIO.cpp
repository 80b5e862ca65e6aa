#include "M2DSliceContainerIO.h"

#include "I2DSliceIOFileSizeEstimate.h"
#include "M2DSliceIOFactory.h"

M2DSliceContainerIO::M2DSliceContainerIO(unsigned short code)
    : _io(M2DSliceIOFactory::GetSliceIO(static_cast<short>(code)))
{
    if (_io)
        _io->SetFileType(code);
}

M2DSliceContainerIO::M2DSliceContainerIO(std::shared_ptr<I2DSliceIO>& io) : _io(io) {}

void M2DSliceContainerIO::SetFileBufferSize(std::uint64_t size)
{
    if (_io)
        _io->SetFileBufferSize(size);
}

void M2DSliceContainerIO::SetReadOptions(const I2DSliceIO::ReadOptions& options)
{
    if (_io)
        _io->SetReadOptions(options);
}

bool M2DSliceContainerIO::ReadContainer(ITarget2DSlices& target, const std::wstring& path, bool readVectors)
{
    return ReadContainer(target, path, readVectors, nullptr);
}

bool M2DSliceContainerIO::ReadContainer(ITarget2DSlices& target, const std::wstring& path, bool readVectors,
                                        const std::shared_ptr<ZanSDK::Common::IProgressDelegate>& progress)
{
    if (!_io)
        return false;
    if (!_io->OpenFile(path, I2DSliceIO::Read) || !_io->ReadHeader(&target))
        return false;

    ZanSDK::Common::IndeterminateProgressReporter reporter(progress, "Loading slices");
    target.StartAddingSlices();
    M2DSlice slice;
    while (_io->ReadLayer(slice, &target, readVectors))
    {
        target.AddSlice(slice, true);
        if (reporter.IsCancelled())
            break;
        reporter.Pulse();
    }

    // The file is closed whatever the footer says. A successful load leaves the target
    // open for its caller; only a failed one is stopped here.
    const bool footer = _io->ReadFooter(&target);
    const bool closed = _io->CloseFile();
    if (footer && closed)
        return !reporter.IsCancelled();
    target.StopAddingSlices();
    return false;
}

bool M2DSliceContainerIO::WriteContainer(const ISource2DSlices& source, const std::wstring& path,
                                         std::int32_t unitConversion, std::int32_t inverseResolution,
                                         std::shared_ptr<ZanSDK::Common::IProgressDelegate> progress)
{
    return WriteContainers({&source}, path, unitConversion, inverseResolution, std::move(progress));
}

bool M2DSliceContainerIO::WriteContainers(const std::vector<const ISource2DSlices*>& sources,
                                          const std::wstring& path, std::int32_t unitConversion,
                                          std::int32_t inverseResolution,
                                          std::shared_ptr<ZanSDK::Common::IProgressDelegate> /*progress*/)
{
    if (!_io)
        return false;

    M2DSliceSourceVector sv;
    sv.GetOptions().JoinByHeight = true;
    sv.SetVector(sources);
    if (sv.GetNumSlices() == 0)
        return false;

    auto* estimate = dynamic_cast<I2DSliceIOFileSizeEstimate*>(_io.get());
    if (!estimate || !estimate->GetOptions().Split)
    {
        if (!_OpenForWriting(path))
            return false;
        _ResetProperties(sv.GetNumSlices());
        if (!_io->WriteHeader(sources, unitConversion, inverseResolution))
            return false;
        _io->_properties.NumLayers = 0;
        _WriteSliceContainer(sv);
        const bool footer = _io->WriteFooter(sources);
        return _io->CloseFile() && footer;
    }

    // Split save: one file per estimated range. Every file receives all the slices; the
    // range only gives the layer count its header expects.
    std::vector<I2DSliceIOFileSizeEstimate::EstimatedRange> ranges;
    estimate->EstimateFileRanges(sv, ranges);
    const std::uint64_t count = ranges.size();
    for (std::uint64_t i = 0; i < count; ++i)
    {
        if (!_OpenForWriting(_GetAdjustedFileName(path, i, count)))
            return false;
        _ResetProperties(ranges[i].NumLayers);
        if (!_io->WriteHeader(sources, unitConversion, inverseResolution))
            return false;
        _io->_properties.NumLayers = 0;
        if (ranges[i].NumLayers > 0)
            _WriteSliceContainer(sv);
        const bool footer = _io->WriteFooter(sources);
        if (!_io->CloseFile() || !footer)
            return false;
    }
    return true;
}

bool M2DSliceContainerIO::WriteContainersWithPriority(
    const std::map<std::uint64_t, std::vector<const ISource2DSlices*>>& sources, const std::wstring& path,
    std::int32_t unitConversion, std::int32_t inverseResolution,
    std::shared_ptr<ZanSDK::Common::IProgressDelegate> /*progress*/)
{
    if (!_io || !_OpenForWriting(path))
        return false;

    std::vector<const ISource2DSlices*> flat;
    std::uint64_t largest = 0;
    for (const auto& entry : sources)
        for (const ISource2DSlices* source : entry.second)
        {
            flat.push_back(source);
            if (source && source->GetNumSlices() > largest)
                largest = source->GetNumSlices();
        }

    _ResetProperties(largest);
    _io->_step = I2DSliceIO::Step::Header;
    if (!_io->_CheckWriteHeader(flat, unitConversion, inverseResolution))
        return false;
    _io->_properties.NumLayers = 0;

    if (largest > 0)
        for (const auto& entry : sources)
        {
            _WriteHeaderPerSliceContainer(entry.first);
            M2DSliceSourceVector sv;
            sv.SetVector(entry.second);
            _WriteSliceContainer(sv);
        }

    _io->_step = I2DSliceIO::Step::Footer;
    if (!_io->_IsOpenFor(I2DSliceIO::Write) || !_io->_WriteFooter(flat))
        return _io->_FailStep("writing the footer failed");
    return _io->CloseFile();
}

void M2DSliceContainerIO::_WriteSliceContainer(const M2DSliceSourceVector& sv)
{
    // WriteLayer's bookkeeping for each layer, with every failure dropped: a layer that
    // cannot be written is skipped, and a hook's error shows only when the file closes.
    const std::vector<const ISource2DSlices*>& sources = sv.GetSources();
    M2DSliceConstDataItems items;
    const std::uint64_t n = sv.GetNumSlices();
    for (std::uint64_t i = 0; i < n; ++i)
    {
        sv.GetSliceItems(items, i);
        std::int32_t z = 0;
        bool callHook = false;
        _io->_EnterLayer();
        if (_io->_AccountLayer(sources, items, z, callHook) && callHook && !_io->_WriteLayer(sources, z, items))
            _io->_FailStep("writing a layer failed");
    }
}

bool M2DSliceContainerIO::_WriteHeaderPerSliceContainer(std::uint64_t index)
{
    return _io->_WriteHeaderPerSliceContainer(index);
}

std::wstring M2DSliceContainerIO::_GetAdjustedFileName(const std::wstring& path, std::uint64_t index,
                                                       std::uint64_t count) const
{
    if (count < 2)
        return path;
    const std::size_t slash = path.find_last_of(L'/');
    const std::size_t nameStart = slash == std::wstring::npos ? 0 : slash + 1;
    std::size_t dot = path.find_last_of(L'.');
    // No extension, or a name that only starts with a dot: the mark goes at the end.
    if (dot == std::wstring::npos || dot <= nameStart)
        dot = path.size();
    const std::wstring mark = L"(" + std::to_wstring(index + 1) + L"," + std::to_wstring(count) + L")";
    return path.substr(0, dot) + mark + path.substr(dot);
}

bool M2DSliceContainerIO::_OpenForWriting(const std::wstring& path)
{
    return _io->OpenFile(path, I2DSliceIO::Write);
}

void M2DSliceContainerIO::_ResetProperties(std::uint64_t numLayers)
{
    M2DSliceContainerIOProperties properties;
    properties.NumLayers = numLayers;
    _io->SetIoProperties(properties);
}
