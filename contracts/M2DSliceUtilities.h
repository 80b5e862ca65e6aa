#pragma once
#include "../framework/Export.h"
#include <cstdint>
#include <memory>
#include <vector>

#include "M2DSlice.h"

class SLICEIO_API IVectorBlockMergePredicate
{
public:
    virtual ~IVectorBlockMergePredicate() = default;
    // True when block b may be appended to block a.
    virtual bool CanMerge(const M2DSliceVectorBlock& a, const M2DSliceVectorBlock& b) const = 0;
};

namespace M2DSliceUtilities {

// Every segment of every contour (the closing one of closed contours included) as vectors,
// one new block per contour with the contour's label. A contour of fewer than two points has
// no segment and adds no block.
SLICEIO_API void AddContoursToVectorLayer(const M2DSliceContourLayer& border, M2DSliceVectorLayer& vectors);
// The segments of one contour appended to a block.
SLICEIO_API void ConvertContourToVectors(const M2DSliceContour& contour, M2DSliceVectorBlock& block);
// Chains of vectors (one's end equal to the next one's start) become contours with the
// block's label; a chain of two or more vectors that returns to its start is closed, with the
// start not repeated. Other chains are open contours of all their points.
SLICEIO_API void ConvertVectorsToContours(const M2DSliceVectorBlock& block, M2DSliceContourLayer& border);
// Joins each block into the block before it while the predicate holds for the pair: the
// block's vectors are appended to the block it joins, and the emptied block is destroyed.
// The predicate is asked with the growing block first, so a run of blocks becomes one.
SLICEIO_API void MergeVectorBlocks(M2DSliceVectorLayer& vectors, const IVectorBlockMergePredicate& predicate);
// Gives every closed contour its proper sense: outer contours (nested at even depth)
// positive signed area, holes negative, and sets the outer flags accordingly. Nesting is
// found by an exact even-odd test of a vertex; open contours are left alone.
SLICEIO_API void OrientBorder(M2DSliceContourLayer& border);
// Twice the signed area: the sum of (y1 + y2) * (x2 - x1) over the closed polygon.
SLICEIO_API double SignedAreaSum(const M2DSliceContour& contour);

} // namespace M2DSliceUtilities

// Classifies the closed contours of a layer by nesting: for each contour (by position) its
// depth (0 outermost) and the index of its direct parent (-1 for none). Open contours have
// depth 0, no parent and area 0, and are no one's parent.
class SLICEIO_API M2DSliceOperatorDetermineAreas
{
public:
    struct Area
    {
        int Depth = 0;
        long Parent = -1;
        // Half of SignedAreaSum: positive for a contour that runs the way outer contours do.
        double SignedArea = 0.0;
    };
    void DetermineAreas(const M2DSliceContourLayer* border);
    const std::vector<Area>& GetAreas() const { return _areas; }
    // The areas of the layer as groups of contour indices: each outer contour (even depth)
    // or open contour first, followed by its direct holes; groups in the order of their
    // first contour. A hole whose parent is itself a hole (overlapping contours) forms a
    // group of its own. Every contour is in exactly one group.
    const std::vector<std::vector<std::size_t>>& GetGroups() const { return _groups; }

private:
    std::vector<Area> _areas;
    std::vector<std::vector<std::size_t>> _groups;
};

// Orders vector blocks by region: blocks of the listed types first, in the order of the
// list; the others after them in their own order (before them when othersLast is false).
// Within a type, blocks whose bounding boxes overlap the same outer contour stay together:
// slice by slice, region by region in the order of the outer contours, and blocks that
// overlap none last. The sort is stable.
class SLICEIO_API M2DSliceOperatorSortRegions
{
public:
    virtual ~M2DSliceOperatorSortRegions() = default;
    void SetSortingOrder(const std::vector<e2DSliceVectorType>& types, bool othersLast);
    // Sorts blocks (pointers into the slices) in place. An empty list is first filled with
    // every block of the slices, slice by slice in chain order.
    virtual void Sort(const std::vector<std::shared_ptr<const M2DSlice>>& slices,
                      std::vector<const M2DSliceVectorBlock*>& blocks);

private:
    std::vector<e2DSliceVectorType> _order;
    bool _othersLast = true;
};
