// Geometry utilities: contour and vector conversions, block merging, orientation, nesting
// and the region sort.
#include <climits>

#include "contracts/M2DSliceUtilities.h"
#include "tests/TestSupport.h"

namespace {

using ts::AddContour;
using ts::Points;
using ts::Reversed;
using ts::Square;
const auto Read = ts::PointsOf;

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

// A block of the given kind holding one vector from (x, 10) to (x + 10, 20).
M2DSliceVectorBlock* AddBlock(M2DSliceVectorLayer& layer, e2DSliceVectorType type, int x)
{
    M2DSliceVectorBlock* block = layer.AddVectorBlockAtEnd();
    block->SetTypeInfo(type);
    block->Vectors.emplace_back(x, 10, x + 10, 20);
    return block;
}

} // namespace

TEST(M2DSliceUtilities, ContoursBecomeVectorsWithTheClosingSegmentAndChainsBecomeContours)
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
    const M2DSliceVectorBlock &a = *vectors.GetVectorBlock(1), &b = *vectors.GetVectorBlock(2);
    EXPECT_EQ(a.Vectors, (std::vector<M2DSliceVector>{{0, 0, 0, 10}, {0, 10, 10, 10}, {10, 10, 0, 0}}));
    EXPECT_EQ(b.Vectors, (std::vector<M2DSliceVector>{{1, 2, 3, 4}, {3, 4, 5, 6}}));
    EXPECT_TRUE(a.GetTypeInfo() == closed->GetTypeInfo() && b.GetTypeInfo() == open->GetTypeInfo()); // labels kept

    // Chains of vectors become contours, closed when they come back to their start.
    M2DSliceVectorBlock block;
    block.SetTypeInfo(e2DSliceVectorType_Kind9);
    block.Vectors = {
        {0, 0, 0, 10}, {0, 10, 10, 10}, {10, 10, 10, 0}, {10, 0, 0, 0}, // closed square
        {20, 0, 30, 0}, {30, 0, 30, 5},                                 // open chain
        {40, 40, 50, 50}, {50, 50, 40, 40},                             // there and back
        {7, 7, 7, 7},                                                   // lone zero-length vector
    };
    M2DSliceContourLayer chains;
    M2DSliceUtilities::ConvertVectorsToContours(block, chains);
    std::vector<std::pair<bool, Points>> contours;
    for (const M2DSliceContour& c : chains)
        contours.emplace_back(c.GetIsClosed(), Read(c));
    // A vector and its way back chain into a closed contour of two points.
    EXPECT_EQ(contours, (std::vector<std::pair<bool, Points>>{{true, {{0, 0}, {0, 10}, {10, 10}, {10, 0}}},
                                                              {false, {{20, 0}, {30, 0}, {30, 5}}},
                                                              {true, {{40, 40}, {50, 50}}},
                                                              {false, {{7, 7}, {7, 7}}}}));
    EXPECT_EQ(chains.GetFirstContour()->GetTypeInfo().GetType(), e2DSliceVectorType_Kind9);

    // Round trip: the contours give back the vectors they came from; a closed contour of two
    // points goes there and back.
    M2DSliceVectorBlock back;
    for (const M2DSliceContour& contour : chains)
        M2DSliceUtilities::ConvertContourToVectors(contour, back);
    EXPECT_EQ(back.Vectors, block.Vectors);

    M2DSliceUtilities::ConvertVectorsToContours(M2DSliceVectorBlock(), chains);
    EXPECT_EQ(chains.GetNumContours(), 4u);
}

TEST(M2DSliceUtilities, MergeJoinsRunsThatThePredicateAllows)
{
    M2DSliceVectorLayer layer;
    std::vector<M2DSliceVectorBlock*> added;
    const e2DSliceVectorType hatch = e2DSliceVectorType_Hatch;
    int x = 0;
    for (e2DSliceVectorType type : {hatch, hatch, hatch, e2DSliceVectorType_Border, hatch, hatch})
        added.push_back(AddBlock(layer, type, ++x));
    M2DSliceVectorBlock *a = added[0], *c = added[3], *d = added[4];
    // Each neighbouring pair is asked once.
    SameLabel predicate;
    M2DSliceUtilities::MergeVectorBlocks(layer, predicate);
    EXPECT_EQ(predicate.Calls, 5);
    std::vector<const M2DSliceVectorBlock*> blocks;
    for (const M2DSliceVectorBlock* b = layer.GetFirstVectorBlock(); b; b = b->GetNextVectorBlock())
        blocks.push_back(b);
    EXPECT_EQ(blocks, (std::vector<const M2DSliceVectorBlock*>{a, c, d}));
    EXPECT_EQ(layer.GetNumVectorBlocks(), 3u);
    EXPECT_EQ(a->Vectors, (std::vector<M2DSliceVector>{{1, 10, 11, 20}, {2, 10, 12, 20}, {3, 10, 13, 20}}));
    EXPECT_EQ(d->Vectors.size(), 2u);

    M2DSliceVectorLayer none;
    M2DSliceUtilities::MergeVectorBlocks(none, predicate);
    EXPECT_EQ(none.GetNumVectorBlocks(), 0u);
}

TEST(M2DSliceUtilities, OrientBorderFixesOuterAndHoleSense)
{
    M2DSliceContourLayer border;
    // Both given in the wrong sense, the hole first; the hole lies against the outer's side,
    // so its first corners are on the outer's boundary.
    M2DSliceContour* hole = AddContour(border, Square(0, 20, 30));
    M2DSliceContour* outer = AddContour(border, Reversed(0, 0, 100));
    M2DSliceContour* island = AddContour(border, Reversed(10, 30, 5));
    M2DSliceContour* open = AddContour(border, Reversed(200, 200, 5), false);
    EXPECT_LT(M2DSliceUtilities::SignedAreaSum(*outer), 0);
    EXPECT_GT(M2DSliceUtilities::SignedAreaSum(*hole), 0);

    M2DSliceUtilities::OrientBorder(border);
    EXPECT_EQ(std::make_tuple(outer->GetIsOuterContour(), hole->GetIsOuterContour(), island->GetIsOuterContour()),
              std::make_tuple(true, false, true));
    EXPECT_EQ(M2DSliceUtilities::SignedAreaSum(*outer), 2.0 * 100 * 100);
    EXPECT_EQ(M2DSliceUtilities::SignedAreaSum(*hole), -2.0 * 30 * 30);
    EXPECT_GT(M2DSliceUtilities::SignedAreaSum(*island), 0);
    // Inverting starts at the old last point; open contours stay as they are.
    EXPECT_EQ(Read(*outer), (Points{{0, 100}, {100, 100}, {100, 0}, {0, 0}}));
    EXPECT_EQ(Read(*open), Reversed(200, 200, 5));
    // Already oriented: nothing changes.
    M2DSliceUtilities::OrientBorder(border);
    EXPECT_EQ(Read(*outer), (Points{{0, 100}, {100, 100}, {100, 0}, {0, 0}}));
    EXPECT_FALSE(hole->GetIsOuterContour());

    // Coordinate differences near 2^32 overflow 64-bit products in a naive nesting test.
    M2DSliceContourLayer huge;
    AddContour(huge, {{INT_MIN + 1, INT_MIN + 1}, {INT_MIN + 1, INT_MAX}, {INT_MAX, INT_MAX}, {INT_MAX, INT_MIN + 1}});
    AddContour(huge, Square(-1000, -1000, 2000));
    M2DSliceUtilities::OrientBorder(huge);
    EXPECT_TRUE(huge.GetFirstContour()->GetIsOuterContour());
    EXPECT_LT(M2DSliceUtilities::SignedAreaSum(*huge.GetLastContour()), 0);
}

TEST(M2DSliceOperatorDetermineAreas, DepthParentAndGroups)
{
    M2DSliceContourLayer border;
    AddContour(border, Reversed(12, 32, 2));                // 0: inside the island
    AddContour(border, Square(0, 0, 100));                   // 1
    AddContour(border, Square(300, 0, 10));                  // 2: separate part
    AddContour(border, Reversed(10, 10, 50));               // 3: hole of 1
    AddContour(border, Square(11, 31, 20));                  // 4: island in 3
    AddContour(border, Square(0, 200, 5), false);            // 5: open
    AddContour(border, Square(70, 70, 10));                  // 6: second hole of 1
    AddContour(border, {{1, 1}, {1, 1}, {1, 1}});           // 7: degenerate, inside 1

    M2DSliceOperatorDetermineAreas op;
    op.DetermineAreas(&border);
    const auto& areas = op.GetAreas();
    ASSERT_EQ(areas.size(), 8u);
    std::vector<std::pair<int, long>> depthAndParent;
    for (const auto& a : areas)
        depthAndParent.emplace_back(a.Depth, a.Parent);
    EXPECT_EQ(depthAndParent, (std::vector<std::pair<int, long>>{{3, 4}, {0, -1}, {0, -1}, {1, 1}, {2, 3}, {0, -1}, {1, 1}, {1, 1}}));
    EXPECT_EQ(std::make_tuple(areas[1].SignedArea, areas[3].SignedArea, areas[5].SignedArea),
              std::make_tuple(100.0 * 100, -50.0 * 50, 0.0));

    // Index 0 is a hole (depth 3) of the island 4; every contour is in one group.
    using Group = std::vector<std::size_t>;
    EXPECT_EQ(op.GetGroups(), (std::vector<Group>{{1, 3, 6, 7}, {2}, {4, 0}, {5}}));

    op.DetermineAreas(nullptr);
    EXPECT_TRUE(op.GetAreas().empty() && op.GetGroups().empty());
}

TEST(M2DSliceOperatorSortRegions, ListedKindsFirstThenRegionByRegion)
{
    auto slice = std::make_shared<M2DSlice>();
    AddContour(*slice->GetSliceBorderUpdate(), Square(0, 0, 100));    // region 0
    AddContour(*slice->GetSliceBorderUpdate(), Square(500, 0, 100));  // region 1
    M2DSliceVectorLayer& layer = *slice->GetVectorsUpdate();
    const M2DSliceVectorBlock* hatch1 = AddBlock(layer, e2DSliceVectorType_Hatch, 510);
    const M2DSliceVectorBlock* other = AddBlock(layer, e2DSliceVectorType_VectorGroup7, 10);
    const M2DSliceVectorBlock* hatch0 = AddBlock(layer, e2DSliceVectorType_Hatch, 10);
    const M2DSliceVectorBlock* border1 = AddBlock(layer, e2DSliceVectorType_Border, 520);
    const M2DSliceVectorBlock* stray = AddBlock(layer, e2DSliceVectorType_Hatch, 2000);
    const M2DSliceVectorBlock* border0 = AddBlock(layer, e2DSliceVectorType_Border, 20);
    const M2DSliceVectorBlock* hatch1b = AddBlock(layer, e2DSliceVectorType_Hatch, 530);

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
