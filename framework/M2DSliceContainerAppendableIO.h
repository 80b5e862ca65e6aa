#pragma once
#include "Export.h"
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "M2DSliceContainerIO.h"

// Keeps one file open and appends layers to it in rounds, possibly from several threads,
// before it finishes the file.
class SLICEIO_API M2DSliceContainerAppendableIO
{
public:
    explicit M2DSliceContainerAppendableIO(unsigned short code);
    explicit M2DSliceContainerAppendableIO(std::shared_ptr<I2DSliceIO>& io);
    ~M2DSliceContainerAppendableIO();
    M2DSliceContainerAppendableIO(const M2DSliceContainerAppendableIO&) = delete;
    M2DSliceContainerAppendableIO& operator=(const M2DSliceContainerAppendableIO&) = delete;

    std::shared_ptr<I2DSliceIO> GetSliceIO();
    void SetFileBufferSize(std::uint64_t size);
    void SetReadOptions(const I2DSliceIO::ReadOptions& options);
    bool ReadContainer(ITarget2DSlices& target, const std::wstring& path, bool readVectors);

    bool InitializeAppendWriter(const std::wstring& path, std::int32_t unitConversion, std::int32_t inverseResolution,
                                bool force);
    bool WriteContainer(const ISource2DSlices& source, bool validate, bool flush);
    bool ReleaseAppendWriter();
    std::uint64_t GetNumWrittenSlices() const { return static_cast<std::uint64_t>(_writtenSlices.load()); }
    std::uint64_t GetNumAppendIterations() const { return static_cast<std::uint64_t>(_appendIterations.load()); }

private:
    void _ValidateAppendData(const ISource2DSlices& source);

    M2DSliceContainerIO* _driver;
    std::atomic<std::int32_t> _appendIterations{0};
    std::atomic<std::int32_t> _writtenSlices{0};
    std::atomic<bool> _initialised{false};
    std::atomic<std::int32_t> _lastHeight{0};
    std::mutex _lock;
};
