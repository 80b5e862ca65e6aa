#pragma once
// The layer loop shared by the legacy writers that put every slice of a layer into the file:
// each slice is paired with the source of the same position (the last source for any slice
// beyond them), and that source's BordersFirst chooses whether its contours or its vectors go
// first; with no parameters the contours go first.
#include <algorithm>
#include <vector>

#include "../../contracts/M2DSliceSource.h"

namespace legacy {

// contours(border) and vectors(vectorLayer) write one part and return false on a failed
// write, which ends the loop with false.
template <class Contours, class Vectors>
bool PutSlices(const std::vector<const ISource2DSlices*>& sources, const std::vector<const M2DSlice*>& slices,
               Contours contours, Vectors vectors)
{
    for (std::size_t i = 0; i < slices.size(); ++i)
    {
        if (!slices[i])
            continue;
        const ISource2DSlices* source = sources.empty() ? nullptr : sources[std::min(i, sources.size() - 1)];
        const M2DSliceIOParameters* parameters = source ? source->GetSliceIOParameters() : nullptr;
        const M2DSliceContourLayer& border = *slices[i]->GetSliceBorder();
        const M2DSliceVectorLayer& vectorLayer = *slices[i]->GetVectors();
        const bool ok = !parameters || parameters->BordersFirst ? contours(border) && vectors(vectorLayer)
                                                                : vectors(vectorLayer) && contours(border);
        if (!ok)
            return false;
    }
    return true;
}

} // namespace legacy
