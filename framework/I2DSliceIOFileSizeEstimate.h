#pragma once
#include "Export.h"
#include <cstdint>
#include <vector>

#include "../contracts/M2DSliceSource.h"

// A second base of the formats that can tell their file size before writing: the total,
// or ranges of layers that each stay below a size limit.
class SLICEIO_API I2DSliceIOFileSizeEstimate
{
public:
    struct Options
    {
        bool Split = false;
        std::uint64_t SizeLimit = 5000000;
    };

    struct EstimatedRange
    {
        std::uint64_t NumLayers = 0;
        std::uint64_t Size = 0;
        std::int32_t ZMin = INT32_MAX;
        std::int32_t ZMax = INT32_MIN;
    };

    I2DSliceIOFileSizeEstimate() = default;
    I2DSliceIOFileSizeEstimate(const I2DSliceIOFileSizeEstimate&) = default;
    I2DSliceIOFileSizeEstimate& operator=(const I2DSliceIOFileSizeEstimate&) = default;

    void SetOptions(const Options& options) { _options = options; }
    const Options& GetOptions() const { return _options; }

    // The name keeps its historical spelling: callers use it.
    bool EsimateTotalFileSize(const ISource2DSlices& source, EstimatedRange& total);
    bool EstimateFileRanges(const ISource2DSlices& source, std::vector<EstimatedRange>& ranges);

protected:
    virtual ~I2DSliceIOFileSizeEstimate() = default;
    // The fixed part of a file into header, one entry per layer into layers.
    virtual void _EstimateFileSizes(const ISource2DSlices& source, EstimatedRange& header,
                                    std::vector<EstimatedRange>& layers) = 0;

private:
    Options _options;
};
