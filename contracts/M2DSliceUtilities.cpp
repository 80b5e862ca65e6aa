#include "M2DSliceUtilities.h"

#include <algorithm>
#include <cmath>
#include <tuple>
#include <unordered_map>

namespace {

// Products of two coordinate differences need 66 bits; sums of them more.
__extension__ typedef __int128 Int128;

using Point = M2DSliceContourPoint;

M2DSliceXYArea BoxOf(const M2DSliceContour& contour)
{
    M2DSliceXYArea box;
    for (const Point& p : contour)
        box.Extend(p.x, p.y);
    return box;
}

bool Contains(const M2DSliceXYArea& outer, const M2DSliceXYArea& inner)
{
    return outer.XMin <= inner.XMin && inner.XMax <= outer.XMax && outer.YMin <= inner.YMin &&
           inner.YMax <= outer.YMax;
}

bool Overlaps(const M2DSliceXYArea& a, const M2DSliceXYArea& b)
{
    return a.XMin <= b.XMax && b.XMin <= a.XMax && a.YMin <= b.YMax && b.YMin <= a.YMax;
}

enum class Location
{
    Outside,
    Inside,
    OnBoundary
};

// Even-odd test of a point against the closed polygon of a contour, exact in integers.
Location Locate(std::int64_t px, std::int64_t py, const M2DSliceContour& contour)
{
    bool inside = false;
    const Point* a = contour.GetLastPoint();
    const Point* b = contour.GetFirstPoint();
    for (std::uint32_t i = 0; i < contour.GetNumPoints(); ++i, a = b, b = b->GetNextPoint())
    {
        const std::int64_t ax = a->x, ay = a->y, bx = b->x, by = b->y;
        if (py < std::min(ay, by) || py > std::max(ay, by))
            continue;
        const Int128 cross = Int128(bx - ax) * (py - ay) - Int128(by - ay) * (px - ax);
        if (cross == 0 && px >= std::min(ax, bx) && px <= std::max(ax, bx))
            return Location::OnBoundary;
        // The edge crosses the ray to the right of the point when the point lies left of
        // the edge as seen in the edge's y direction. Half-open in y so that a vertex on
        // the ray counts once.
        if ((ay > py) != (by > py) && (cross > 0) == (by > ay))
            inside = !inside;
    }
    return inside ? Location::Inside : Location::Outside;
}

// Whether contour a lies inside contour b, judged by the first vertices of a that are not
// on b's boundary. Contours that share all vertices tried count as not nested.
bool IsInside(const M2DSliceContour& a, const M2DSliceContour& b)
{
    constexpr std::uint32_t kMaxTries = 16;
    const Point* p = a.GetFirstPoint();
    for (std::uint32_t i = 0; i < a.GetNumPoints() && i < kMaxTries; ++i, p = p->GetNextPoint())
    {
        Location where = Locate(p->x, p->y, b);
        if (where != Location::OnBoundary)
            return where == Location::Inside;
    }
    return false;
}

} // namespace

// ---------------------------------------------------------------- conversions

void M2DSliceUtilities::ConvertContourToVectors(const M2DSliceContour& contour, M2DSliceVectorBlock& block)
{
    const std::uint32_t n = contour.GetNumPoints();
    if (n < 2)
        return;
    const std::uint32_t segments = contour.GetIsClosed() ? n : n - 1;
    block.Vectors.reserve(block.Vectors.size() + segments);
    const Point* p = contour.GetFirstPoint();
    for (std::uint32_t i = 0; i < segments; ++i)
    {
        const Point* q = p->GetNextPoint();
        block.Vectors.emplace_back(p->x, p->y, q->x, q->y);
        p = q;
    }
}

void M2DSliceUtilities::AddContoursToVectorLayer(const M2DSliceContourLayer& border, M2DSliceVectorLayer& vectors)
{
    for (const M2DSliceContour& contour : border)
    {
        if (contour.GetNumPoints() < 2)
            continue;
        M2DSliceVectorBlock* block = vectors.AddVectorBlockAtEnd();
        block->SetTypeInfo(contour.GetTypeInfo());
        ConvertContourToVectors(contour, *block);
    }
}

void M2DSliceUtilities::ConvertVectorsToContours(const M2DSliceVectorBlock& block, M2DSliceContourLayer& border)
{
    const std::vector<M2DSliceVector>& v = block.Vectors;
    std::size_t start = 0;
    while (start < v.size())
    {
        std::size_t end = start + 1;
        while (end < v.size() && v[end].x1 == v[end - 1].x2 && v[end].y1 == v[end - 1].y2)
            ++end;
        // A chain of at least two vectors that ends where it began is a closed contour,
        // stored without repeating its start.
        const bool closed = end - start >= 2 && v[end - 1].x2 == v[start].x1 && v[end - 1].y2 == v[start].y1;
        M2DSliceContour* contour = border.AddContourAtEnd();
        contour->SetTypeInfo(block.GetTypeInfo());
        contour->SetIsClosed(closed);
        contour->InsertAtEnd(v[start].x1, v[start].y1, nullptr);
        const std::size_t last = closed ? end - 1 : end;
        for (std::size_t k = start; k < last; ++k)
            contour->InsertAtEnd(v[k].x2, v[k].y2, nullptr);
        start = end;
    }
}

void M2DSliceUtilities::MergeVectorBlocks(M2DSliceVectorLayer& vectors, const IVectorBlockMergePredicate& predicate)
{
    // The predicate is asked once for each block after the first: does it join the run of
    // blocks before it (given the run's first block)? Each run's first block then gets room
    // for the whole run, so that its vectors are copied once and not at every growth.
    const std::size_t count = vectors.GetNumVectorBlocks();
    if (count < 2)
        return;
    std::vector<char> joins(count, 0);
    for (std::size_t i = 1, first = 0; i < count; ++i)
    {
        if (predicate.CanMerge(*vectors.GetVectorBlock(first), *vectors.GetVectorBlock(i)))
            joins[i] = 1;
        else
            first = i;
    }
    for (std::size_t i = 0; i < count;)
    {
        std::size_t total = vectors.GetVectorBlock(i)->Vectors.size();
        std::size_t end = i + 1;
        for (; end < count && joins[end]; ++end)
            total += vectors.GetVectorBlock(end)->Vectors.size();
        if (end > i + 1)
            vectors.GetVectorBlock(i)->Vectors.reserve(total);
        i = end;
    }

    M2DSliceVectorBlock* target = nullptr;
    std::size_t index = 0;
    vectors.RemoveVectorBlocksIf([&](M2DSliceVectorBlock& block) {
        if (joins[index++])
        {
            target->Vectors.insert(target->Vectors.end(), block.Vectors.begin(), block.Vectors.end());
            return true;
        }
        target = &block;
        return false;
    });
}

double M2DSliceUtilities::SignedAreaSum(const M2DSliceContour& contour)
{
    Int128 sum = 0;
    const Point* a = contour.GetLastPoint();
    const Point* b = contour.GetFirstPoint();
    for (std::uint32_t i = 0; i < contour.GetNumPoints(); ++i, a = b, b = b->GetNextPoint())
        sum += Int128(std::int64_t(a->y) + b->y) * (std::int64_t(b->x) - a->x);
    return static_cast<double>(sum);
}

void M2DSliceUtilities::OrientBorder(M2DSliceContourLayer& border)
{
    M2DSliceOperatorDetermineAreas areas;
    areas.DetermineAreas(&border);
    for (std::size_t i = 0; i < border.GetNumContours(); ++i)
    {
        M2DSliceContour* contour = border.GetContour(i);
        if (!contour->GetIsClosed())
            continue;
        const M2DSliceOperatorDetermineAreas::Area& area = areas.GetAreas()[i];
        const bool outer = area.Depth % 2 == 0;
        if ((outer && area.SignedArea < 0) || (!outer && area.SignedArea > 0))
            contour->Invert();
        contour->SetIsOuterContour(outer);
    }
}

// ---------------------------------------------------------------- areas

void M2DSliceOperatorDetermineAreas::DetermineAreas(const M2DSliceContourLayer* border)
{
    _areas.clear();
    _groups.clear();
    if (!border)
        return;
    const std::size_t n = border->GetNumContours();
    _areas.assign(n, Area());
    std::vector<M2DSliceXYArea> boxes(n);
    for (std::size_t i = 0; i < n; ++i)
    {
        const M2DSliceContour& c = *border->GetContour(i);
        if (!c.GetIsClosed())
            continue;
        boxes[i] = BoxOf(c);
        _areas[i].SignedArea = M2DSliceUtilities::SignedAreaSum(c) / 2;
    }

    // A contour's depth is the number of closed contours around it; its parent the smallest
    // of them.
    for (std::size_t i = 0; i < n; ++i)
    {
        const M2DSliceContour& inner = *border->GetContour(i);
        if (!inner.GetIsClosed() || inner.GetNumPoints() == 0)
            continue;
        for (std::size_t j = 0; j < n; ++j)
        {
            const M2DSliceContour& outer = *border->GetContour(j);
            if (j == i || !outer.GetIsClosed() || outer.GetNumPoints() < 3 || !Contains(boxes[j], boxes[i]) ||
                !IsInside(inner, outer))
                continue;
            Area& area = _areas[i];
            ++area.Depth;
            if (area.Parent < 0 ||
                std::fabs(_areas[j].SignedArea) < std::fabs(_areas[static_cast<std::size_t>(area.Parent)].SignedArea))
                area.Parent = static_cast<long>(j);
        }
    }

    // Groups: each outer (or open) contour followed by its holes, in position order. A hole
    // whose smallest surrounding contour is itself a hole (overlapping input) stands alone.
    auto joinsParent = [&](std::size_t i) {
        const Area& area = _areas[i];
        return border->GetContour(i)->GetIsClosed() && area.Depth % 2 == 1 && area.Parent >= 0 &&
               _areas[static_cast<std::size_t>(area.Parent)].Depth % 2 == 0;
    };
    std::vector<std::size_t> groupOf(n);
    for (std::size_t i = 0; i < n; ++i)
        if (!joinsParent(i))
        {
            groupOf[i] = _groups.size();
            _groups.push_back({i});
        }
    for (std::size_t i = 0; i < n; ++i)
        if (joinsParent(i))
            _groups[groupOf[static_cast<std::size_t>(_areas[i].Parent)]].push_back(i);
}

// ---------------------------------------------------------------- region sort

void M2DSliceOperatorSortRegions::SetSortingOrder(const std::vector<e2DSliceVectorType>& types, bool othersLast)
{
    _order = types;
    _othersLast = othersLast;
}

void M2DSliceOperatorSortRegions::Sort(const std::vector<std::shared_ptr<const M2DSlice>>& slices,
                                       std::vector<const M2DSliceVectorBlock*>& blocks)
{
    std::unordered_map<const M2DSliceVectorBlock*, std::size_t> sliceOf;
    const bool fill = blocks.empty();
    for (std::size_t s = 0; s < slices.size(); ++s)
        if (slices[s])
            for (const M2DSliceVectorBlock* b = slices[s]->GetVectors()->GetFirstVectorBlock(); b;
                 b = b->GetNextVectorBlock())
            {
                sliceOf.emplace(b, s);
                if (fill)
                    blocks.push_back(b);
            }

    // Boxes of the outer contours of each slice, made when a block of the slice needs them.
    std::vector<std::vector<M2DSliceXYArea>> outerBoxes(slices.size());
    std::vector<bool> haveBoxes(slices.size(), false);
    auto regionOf = [&](std::size_t s, const M2DSliceVectorBlock& block) {
        if (!haveBoxes[s])
        {
            haveBoxes[s] = true;
            const M2DSliceContourLayer& border = *slices[s]->GetSliceBorder();
            M2DSliceOperatorDetermineAreas areas;
            areas.DetermineAreas(&border);
            for (const std::vector<std::size_t>& group : areas.GetGroups())
            {
                const M2DSliceContour& head = *border.GetContour(group.front());
                if (head.GetIsClosed() && areas.GetAreas()[group.front()].Depth % 2 == 0)
                    outerBoxes[s].push_back(BoxOf(head));
            }
        }
        M2DSliceXYArea box;
        for (const M2DSliceVector& v : block.Vectors)
        {
            box.Extend(v.x1, v.y1);
            box.Extend(v.x2, v.y2);
        }
        const std::vector<M2DSliceXYArea>& boxes = outerBoxes[s];
        std::size_t region = 0;
        while (region < boxes.size() && !Overlaps(boxes[region], box))
            ++region;
        return region;
    };

    struct Key
    {
        std::size_t Rank;
        std::size_t Slice;
        std::size_t Region;
    };
    std::vector<Key> keys(blocks.size());
    const std::size_t listedOffset = _othersLast ? 0 : 1;
    for (std::size_t k = 0; k < blocks.size(); ++k)
    {
        const M2DSliceVectorBlock* block = blocks[k];
        auto listed = block ? std::find(_order.begin(), _order.end(), block->GetTypeInfo().GetType()) : _order.end();
        if (listed == _order.end())
        {
            // Unlisted kinds keep their own order.
            keys[k] = {_othersLast ? _order.size() : 0, 0, 0};
            continue;
        }
        auto found = sliceOf.find(block);
        const std::size_t s = found == sliceOf.end() ? slices.size() : found->second;
        keys[k] = {static_cast<std::size_t>(listed - _order.begin()) + listedOffset, s,
                   s < slices.size() ? regionOf(s, *block) : 0};
    }

    std::vector<std::size_t> order(blocks.size());
    for (std::size_t k = 0; k < order.size(); ++k)
        order[k] = k;
    std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
        return std::tie(keys[a].Rank, keys[a].Slice, keys[a].Region) <
               std::tie(keys[b].Rank, keys[b].Slice, keys[b].Region);
    });
    std::vector<const M2DSliceVectorBlock*> sorted(blocks.size());
    for (std::size_t k = 0; k < order.size(); ++k)
        sorted[k] = blocks[order[k]];
    blocks.swap(sorted);
}
