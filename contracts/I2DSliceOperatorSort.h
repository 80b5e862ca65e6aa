#pragma once
#include "../framework/Export.h"
#include <memory>
#include <vector>

#include "M2DSlice.h"

// Puts the vector blocks of a layer's slices into the order a writer hands them on in.
// blocks holds pointers into the slices; an empty list is first filled with every block of the
// slices, slice by slice in chain order.
class SLICEIO_API I2DSliceOperatorSort
{
public:
    virtual ~I2DSliceOperatorSort() = default;
    virtual void Sort(const std::vector<std::shared_ptr<const M2DSlice>>& slices,
                      std::vector<const M2DSliceVectorBlock*>& blocks) = 0;
};
