// Geometry utilities: contour and vector conversions, block merging, orientation, nesting
// and the region sort.
#include <gtest/gtest.h>

#include <climits>
#include <memory>
#include <utility>
#include <vector>

#include "contracts/M2DSliceUtilities.h"

namespace {

using Points = std::vector<std::pair<int, int>>;

M2DSliceContour* AddContour(M2DSliceContourLayer& border, const Points& points, bool closed = true)
{
    M2DSliceContour* c = border.AddContourAtEnd();
    for (auto [x, y] : points)
        c->InsertAtEnd(x, y, nullptr);
    c->SetIsClosed(closed);
    return c;
}

Points Read(const M2DSliceContour& c)
{
    Points out;
    for (const M2DSliceContourPoint& p : c)
        out.emplace_back(p.x, p.y);
    return out;
}

// Corners of an axis-parallel square running the way of an outer contour (positive sum).
Points Outer(int x, int y, int size) { return {{x, y}, {x, y + size}, {x + size, y + size}, {x + size, y}}; }
// The same square the other way round.
Points Reversed(int x, int y, int size) { return {{x, y}, {x + size, y}, {x + size, y + size}, {x, y + size}}; }

class SameLabel : public IVectorBlockMergePredicate
{
public:
    bool CanMerge(const M2DSliceVectorBlock& a, const M2DSliceVectorBlock& b) const override
    {
        ++Calls;
        return a.GetTypeInfo() == b.GetTypeInfo();
    }
    mutable int Calls = 0;
};

} // namespace

TEST(M2DSliceUtilities, ContoursBecomeVectorsWithTheClosingSegment)
{
    M2DSliceContourLayer border;
    M2DSliceContour* closed = AddContour(border, {{0, 0}, {0, 10}, {10, 10}});
    closed->GetTypeInfoUpdate().SetIndex(e2DSliceVectorTypeIndex_Part, 4);
    AddContour(border, {{5, 5}}); // no segment: no block
    M2DSliceContour* open = AddContour(border, {{1, 2}, {3, 4}, {5, 6}}, false);
    open->SetTypeInfo(e2DSliceVectorType_Hatch);

    M2DSliceVectorLayer vectors;
    vectors.AddVectorBlockAtEnd(); // existing blocks stay in front
    M2DSliceUtilities::AddContoursToVectorLayer(border, vectors);
    ASSERT_EQ(vectors.GetNumVectorBlocks(), 3u);
    const M2DSliceVectorBlock& a = *vectors.GetVectorBlock(1);
    EXPECT_EQ(a.Vectors, (std::vector<M2DSliceVector>{{0, 0, 0, 10}, {0, 10, 10, 10}, {10, 10, 0, 0}}));
    EXPECT_EQ(a.GetTypeInfo().GetIndex(e2DSliceVectorTypeIndex_Part), 4);
    const M2DSliceVectorBlock& b = *vectors.GetVectorBlock(2);
    EXPECT_EQ(b.Vectors, (std::vector<M2DSliceVector>{{1, 2, 3, 4}, {3, 4, 5, 6}}));
    EXPECT_EQ(b.GetTypeInfo().GetType(), e2DSliceVectorType_Hatch);

    // A closed contour of two points goes there and back.
    M2DSliceVectorBlock twoPoints;
    M2DSliceContourLayer other;
    M2DSliceUtilities::ConvertContourToVectors(*AddContour(other, {{0, 0}, {7, 0}}), twoPoints);
    EXPECT_EQ(twoPoints.Vectors, (std::vector<M2DSliceVector>{{0, 0, 7, 0}, {7, 0, 0, 0}}));
}

TEST(M2DSliceUtilities, ChainsOfVectorsBecomeContours)
{
    M2DSliceVectorBlock block;
    block.SetTypeInfo(e2DSliceVectorType_Kind9);
    block.Vectors = {
        {0, 0, 0, 10}, {0, 10, 10, 10}, {10, 10, 10, 0}, {10, 0, 0, 0}, // closed square
        {20, 0, 30, 0}, {30, 0, 30, 5},                                 // open chain
        {40, 40, 50, 50}, {50, 50, 40, 40},                             // there and back
        {7, 7, 7, 7},                                                   // lone zero-length vector
    };
    M2DSliceContourLayer border;
    M2DSliceUtilities::ConvertVectorsToContours(block, border);
    ASSERT_EQ(border.GetNumContours(), 4u);
    const M2DSliceContour* c = border.GetContour(0);
    EXPECT_TRUE(c->GetIsClosed());
    EXPECT_EQ(Read(*c), (Points{{0, 0}, {0, 10}, {10, 10}, {10, 0}}));
    EXPECT_EQ(c->GetTypeInfo().GetType(), e2DSliceVectorType_Kind9);
    EXPECT_FALSE(border.GetContour(1)->GetIsClosed());
    EXPECT_EQ(Read(*border.GetContour(1)), (Points{{20, 0}, {30, 0}, {30, 5}}));
    // A vector and its way back chain into a closed contour of two points.
    EXPECT_TRUE(border.GetContour(2)->GetIsClosed());
    EXPECT_EQ(Read(*border.GetContour(2)), (Points{{40, 40}, {50, 50}}));
    EXPECT_FALSE(border.GetContour(3)->GetIsClosed());
    EXPECT_EQ(Read(*border.GetContour(3)), (Points{{7, 7}, {7, 7}}));

    // Round trip: the contours give back the vectors they came from.
    M2DSliceVectorBlock back;
    for (const M2DSliceContour& contour : border)
        M2DSliceUtilities::ConvertContourToVectors(contour, back);
    EXPECT_EQ(back.Vectors, block.Vectors);

    M2DSliceVectorBlock empty;
    M2DSliceUtilities::ConvertVectorsToContours(empty, border);
    EXPECT_EQ(border.GetNumContours(), 4u);
}

TEST(M2DSliceUtilities, MergeJoinsRunsThatThePredicateAllows)
{
    M2DSliceVectorLayer layer;
    auto add = [&](e2DSliceVectorType type, int x) {
        M2DSliceVectorBlock* b = layer.AddVectorBlockAtEnd();
        b->SetTypeInfo(type);
        b->Vectors.emplace_back(x, 0, x, 1);
        return b;
    };
    M2DSliceVectorBlock* a = add(e2DSliceVectorType_Hatch, 1);
    add(e2DSliceVectorType_Hatch, 2);
    add(e2DSliceVectorType_Hatch, 3);
    M2DSliceVectorBlock* c = add(e2DSliceVectorType_Border, 4);
    M2DSliceVectorBlock* d = add(e2DSliceVectorType_Hatch, 5);
    add(e2DSliceVectorType_Hatch, 6);

    SameLabel predicate;
    M2DSliceUtilities::MergeVectorBlocks(layer, predicate);
    EXPECT_EQ(predicate.Calls, 5);
    ASSERT_EQ(layer.GetNumVectorBlocks(), 3u);
    EXPECT_EQ(layer.GetVectorBlock(0), a);
    EXPECT_EQ(layer.GetVectorBlock(1), c);
    EXPECT_EQ(layer.GetVectorBlock(2), d);
    EXPECT_EQ(a->Vectors, (std::vector<M2DSliceVector>{{1, 0, 1, 1}, {2, 0, 2, 1}, {3, 0, 3, 1}}));
    EXPECT_EQ(d->Vectors.size(), 2u);
    EXPECT_EQ(a->GetNextVectorBlock(), c);
    EXPECT_EQ(d->GetNextVectorBlock(), nullptr);

    M2DSliceVectorLayer none;
    M2DSliceUtilities::MergeVectorBlocks(none, predicate);
    EXPECT_EQ(none.GetNumVectorBlocks(), 0u);
}

TEST(M2DSliceUtilities, OrientBorderFixesOuterAndHoleSense)
{
    M2DSliceContourLayer border;
    // Both given in the wrong sense, the hole first; the hole lies against the outer's side,
    // so its first corners are on the outer's boundary.
    M2DSliceContour* hole = AddContour(border, Outer(0, 20, 30));
    M2DSliceContour* outer = AddContour(border, Reversed(0, 0, 100));
    M2DSliceContour* island = AddContour(border, Reversed(10, 30, 5));
    M2DSliceContour* open = AddContour(border, Reversed(200, 200, 5), false);
    EXPECT_LT(M2DSliceUtilities::SignedAreaSum(*outer), 0);
    EXPECT_GT(M2DSliceUtilities::SignedAreaSum(*hole), 0);

    M2DSliceUtilities::OrientBorder(border);
    EXPECT_TRUE(outer->GetIsOuterContour());
    EXPECT_FALSE(hole->GetIsOuterContour());
    EXPECT_TRUE(island->GetIsOuterContour());
    EXPECT_EQ(M2DSliceUtilities::SignedAreaSum(*outer), 2.0 * 100 * 100);
    EXPECT_EQ(M2DSliceUtilities::SignedAreaSum(*hole), -2.0 * 30 * 30);
    EXPECT_GT(M2DSliceUtilities::SignedAreaSum(*island), 0);
    // Inverting starts at the old last point.
    EXPECT_EQ(Read(*outer), (Points{{0, 100}, {100, 100}, {100, 0}, {0, 0}}));
    EXPECT_EQ(Read(*open), Reversed(200, 200, 5));

    // Already oriented: nothing changes.
    M2DSliceUtilities::OrientBorder(border);
    EXPECT_EQ(Read(*outer), (Points{{0, 100}, {100, 100}, {100, 0}, {0, 0}}));
    EXPECT_FALSE(hole->GetIsOuterContour());
}

TEST(M2DSliceUtilities, NestingIsExactAtExtremeCoordinates)
{
    // Coordinate differences near 2^32 overflow 64-bit products in a naive test.
    M2DSliceContourLayer border;
    M2DSliceContour* outer =
        AddContour(border, {{INT_MIN + 1, INT_MIN + 1}, {INT_MIN + 1, INT_MAX}, {INT_MAX, INT_MAX}, {INT_MAX, INT_MIN + 1}});
    M2DSliceContour* hole = AddContour(border, Outer(-1000, -1000, 2000));
    M2DSliceUtilities::OrientBorder(border);
    EXPECT_TRUE(outer->GetIsOuterContour());
    EXPECT_GT(M2DSliceUtilities::SignedAreaSum(*outer), 0);
    EXPECT_FALSE(hole->GetIsOuterContour());
    EXPECT_LT(M2DSliceUtilities::SignedAreaSum(*hole), 0);
}

TEST(M2DSliceOperatorDetermineAreas, DepthParentAndGroups)
{
    M2DSliceContourLayer border;
    AddContour(border, Reversed(12, 32, 2));                // 0: inside the island
    AddContour(border, Outer(0, 0, 100));                   // 1
    AddContour(border, Outer(300, 0, 10));                  // 2: separate part
    AddContour(border, Reversed(10, 10, 50));               // 3: hole of 1
    AddContour(border, Outer(11, 31, 20));                  // 4: island in 3
    AddContour(border, Outer(0, 200, 5), false);            // 5: open
    AddContour(border, Outer(70, 70, 10));                  // 6: second hole of 1
    AddContour(border, {{1, 1}, {1, 1}, {1, 1}});           // 7: degenerate, inside 1

    M2DSliceOperatorDetermineAreas op;
    op.DetermineAreas(&border);
    const auto& areas = op.GetAreas();
    ASSERT_EQ(areas.size(), 8u);
    std::vector<int> depth;
    std::vector<long> parent;
    for (const auto& a : areas)
    {
        depth.push_back(a.Depth);
        parent.push_back(a.Parent);
    }
    EXPECT_EQ(depth, (std::vector<int>{3, 0, 0, 1, 2, 0, 1, 1}));
    EXPECT_EQ(parent, (std::vector<long>{4, -1, -1, 1, 3, -1, 1, 1}));
    EXPECT_EQ(areas[1].SignedArea, 100.0 * 100);
    EXPECT_EQ(areas[3].SignedArea, -50.0 * 50);
    EXPECT_EQ(areas[5].SignedArea, 0.0);

    // Index 0 is a hole (depth 3) of the island 4; every contour is in one group.
    using Group = std::vector<std::size_t>;
    EXPECT_EQ(op.GetGroups(), (std::vector<Group>{{1, 3, 6, 7}, {2}, {4, 0}, {5}}));

    op.DetermineAreas(nullptr);
    EXPECT_TRUE(op.GetAreas().empty());
    EXPECT_TRUE(op.GetGroups().empty());
}

TEST(M2DSliceOperatorSortRegions, ListedKindsFirstThenRegionByRegion)
{
    auto slice = std::make_shared<M2DSlice>();
    AddContour(*slice->GetSliceBorderUpdate(), Outer(0, 0, 100));    // region 0
    AddContour(*slice->GetSliceBorderUpdate(), Outer(500, 0, 100));  // region 1
    M2DSliceVectorLayer* layer = slice->GetVectorsUpdate();
    auto add = [&](e2DSliceVectorType type, int x) {
        M2DSliceVectorBlock* b = layer->AddVectorBlockAtEnd();
        b->SetTypeInfo(type);
        b->Vectors.emplace_back(x, 10, x + 10, 20);
        return b;
    };
    const M2DSliceVectorBlock* hatch1 = add(e2DSliceVectorType_Hatch, 510);
    const M2DSliceVectorBlock* other = add(e2DSliceVectorType_VectorGroup7, 10);
    const M2DSliceVectorBlock* hatch0 = add(e2DSliceVectorType_Hatch, 10);
    const M2DSliceVectorBlock* border1 = add(e2DSliceVectorType_Border, 520);
    const M2DSliceVectorBlock* stray = add(e2DSliceVectorType_Hatch, 2000);
    const M2DSliceVectorBlock* border0 = add(e2DSliceVectorType_Border, 20);
    const M2DSliceVectorBlock* hatch1b = add(e2DSliceVectorType_Hatch, 530);

    M2DSliceOperatorSortRegions sorter;
    sorter.SetSortingOrder({e2DSliceVectorType_Border, e2DSliceVectorType_Hatch}, true);
    std::vector<const M2DSliceVectorBlock*> blocks; // empty: filled from the slices
    sorter.Sort({slice}, blocks);
    EXPECT_EQ(blocks, (std::vector<const M2DSliceVectorBlock*>{border0, border1, hatch0, hatch1, hatch1b, stray,
                                                               other}));

    sorter.SetSortingOrder({e2DSliceVectorType_Hatch}, false);
    sorter.Sort({slice}, blocks);
    EXPECT_EQ(blocks, (std::vector<const M2DSliceVectorBlock*>{border0, border1, other, hatch0, hatch1, hatch1b,
                                                               stray}));

    // A given list is only reordered, never filled up.
    std::vector<const M2DSliceVectorBlock*> two{stray, hatch0};
    sorter.Sort({slice}, two);
    EXPECT_EQ(two, (std::vector<const M2DSliceVectorBlock*>{hatch0, stray}));
}
