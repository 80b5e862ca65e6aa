#include "I2DSliceIOFileSizeEstimate.h"

#include <algorithm>

namespace {

void AddLayer(I2DSliceIOFileSizeEstimate::EstimatedRange& range, const I2DSliceIOFileSizeEstimate::EstimatedRange& layer)
{
    range.NumLayers += layer.NumLayers;
    range.Size += layer.Size;
    range.ZMin = std::min(range.ZMin, layer.ZMin);
    range.ZMax = std::max(range.ZMax, layer.ZMax);
}

} // namespace

bool I2DSliceIOFileSizeEstimate::EsimateTotalFileSize(const ISource2DSlices& source, EstimatedRange& total)
{
    EstimatedRange header;
    std::vector<EstimatedRange> layers;
    _EstimateFileSizes(source, header, layers);
    total = header;
    if (!layers.empty())
    {
        // The layer count stays the header's: only sizes and heights are taken over.
        total.ZMin = layers.front().ZMin;
        total.ZMax = layers.back().ZMax;
        for (const EstimatedRange& layer : layers)
            total.Size += layer.Size;
    }
    return true;
}

bool I2DSliceIOFileSizeEstimate::EstimateFileRanges(const ISource2DSlices& source, std::vector<EstimatedRange>& ranges)
{
    ranges.clear();
    if (!_options.Split)
        return true;
    EstimatedRange header;
    std::vector<EstimatedRange> layers;
    _EstimateFileSizes(source, header, layers);

    EstimatedRange current = header;
    if (!layers.empty())
    {
        current.ZMin = layers.front().ZMin;
        current.ZMax = layers.front().ZMax;
    }
    for (const EstimatedRange& layer : layers)
    {
        const EstimatedRange before = current;
        AddLayer(current, layer);
        // A new range starts with the layer that broke the limit and counts the header
        // again. A range is never cut before its first layer, so a layer above the limit
        // gets a range of its own.
        if (current.Size > _options.SizeLimit && before.NumLayers >= 1)
        {
            ranges.push_back(before);
            current = header;
            AddLayer(current, layer);
        }
    }
    ranges.push_back(current);
    return true;
}
