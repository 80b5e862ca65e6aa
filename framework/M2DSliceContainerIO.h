#pragma once
#include "Export.h"
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "../contracts/Progress.h"
#include "I2DSliceIO.h"

class M2DSliceSourceVector;

// Loads a whole file into a target and saves one or several sources into one or several
// files, through a shared format object.
class SLICEIO_API M2DSliceContainerIO
{
public:
    explicit M2DSliceContainerIO(unsigned short code);
    explicit M2DSliceContainerIO(std::shared_ptr<I2DSliceIO>& io);
    M2DSliceContainerIO(const M2DSliceContainerIO&) = default;
    M2DSliceContainerIO& operator=(const M2DSliceContainerIO&) = default;
    ~M2DSliceContainerIO() = default;

    std::shared_ptr<I2DSliceIO> GetSliceIO() { return _io; }
    void SetFileBufferSize(std::uint64_t size);
    void SetReadOptions(const I2DSliceIO::ReadOptions& options);

    bool ReadContainer(ITarget2DSlices& target, const std::wstring& path, bool readVectors);
    // The same, reporting to a delegate that may cancel the load.
    bool ReadContainer(ITarget2DSlices& target, const std::wstring& path, bool readVectors,
                       const std::shared_ptr<ZanSDK::Common::IProgressDelegate>& progress);

    bool WriteContainers(const std::vector<const ISource2DSlices*>& sources, const std::wstring& path,
                         std::int32_t unitConversion, std::int32_t inverseResolution,
                         std::shared_ptr<ZanSDK::Common::IProgressDelegate> progress);
    bool WriteContainer(const ISource2DSlices& source, const std::wstring& path, std::int32_t unitConversion,
                        std::int32_t inverseResolution, std::shared_ptr<ZanSDK::Common::IProgressDelegate> progress);
    bool WriteContainersWithPriority(const std::map<std::uint64_t, std::vector<const ISource2DSlices*>>& sources,
                                     const std::wstring& path, std::int32_t unitConversion,
                                     std::int32_t inverseResolution,
                                     std::shared_ptr<ZanSDK::Common::IProgressDelegate> progress);

private:
    friend class M2DSliceContainerAppendableIO;
    void _WriteSliceContainer(const M2DSliceSourceVector& sv);
    bool _WriteHeaderPerSliceContainer(std::uint64_t index);
    std::wstring _GetAdjustedFileName(const std::wstring& path, std::uint64_t index, std::uint64_t count) const;
    bool _OpenForWriting(const std::wstring& path);
    void _ResetProperties(std::uint64_t numLayers);

    std::shared_ptr<I2DSliceIO> _io;
    void* _reserved = nullptr; // used by no operation; survives copying
};
