// The slice data model: pooled contours, block lists with their spare, slices and labels.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "contracts/M2DSlice.h"

namespace {

using Points = std::vector<std::pair<int, int>>;

M2DSliceContour* AddContour(M2DSliceContourLayer& border, const Points& points)
{
    M2DSliceContour* c = border.AddContourAtEnd();
    for (auto [x, y] : points)
        c->InsertAtEnd(x, y, nullptr);
    return c;
}

// Reads the points forwards and checks that the backward links mirror them.
Points Read(const M2DSliceContour& c)
{
    Points forward;
    for (const M2DSliceContourPoint& p : c)
        forward.emplace_back(p.x, p.y);
    Points backward;
    const M2DSliceContourPoint* p = c.GetFirstPoint();
    for (std::uint32_t i = 0; i < c.GetNumPoints(); ++i)
    {
        p = p->GetPreviousPoint();
        backward.emplace_back(p->x, p->y);
    }
    Points mirrored(backward.rbegin(), backward.rend());
    EXPECT_EQ(forward, mirrored) << "previous links disagree with next links";
    return forward;
}

} // namespace

TEST(M2DSliceContourLayer, PointsAreACircularListFromTheLayerPool)
{
    M2DSliceContourLayer border;
    M2DSliceContour* c = AddContour(border, {{0, 0}, {10, 0}, {10, 10}, {0, 10}});
    EXPECT_EQ(c->GetNumPoints(), 4u);
    EXPECT_EQ(c->GetLastPoint()->GetNextPoint(), c->GetFirstPoint());
    EXPECT_EQ(c->GetFirstPoint()->GetPreviousPoint(), c->GetLastPoint());
    EXPECT_EQ(border.GetPool()->GetNumLive(), 4u);

    // Removing the first point moves the start; removing the last closes the ring again.
    c->RemovePoint(c->GetFirstPoint());
    EXPECT_EQ(Read(*c), (Points{{10, 0}, {10, 10}, {0, 10}}));
    c->RemovePoint(c->GetLastPoint());
    EXPECT_EQ(Read(*c), (Points{{10, 0}, {10, 10}}));
    EXPECT_EQ(border.GetPool()->GetNumLive(), 2u);

    // Freed slots are reused before the pool grows.
    const std::size_t capacity = border.GetPool()->GetCapacityBytes();
    M2DSliceContour* d = AddContour(border, {{1, 1}, {2, 2}});
    EXPECT_EQ(border.GetPool()->GetCapacityBytes(), capacity);
    EXPECT_EQ(border.GetNumContours(), 2u);
    EXPECT_EQ(c->GetNextContour(), d);
    EXPECT_EQ(d->GetPreviousContour(), c);

    c->RemovePoint(c->GetFirstPoint());
    c->RemovePoint(c->GetFirstPoint());
    EXPECT_EQ(c->GetNumPoints(), 0u);
    EXPECT_EQ(c->GetFirstPoint(), nullptr);
    EXPECT_TRUE(c->begin() == c->end());

    // Growing over several pool chunks keeps every point in place.
    for (int i = 0; i < 5000; ++i)
        c->InsertAtEnd(i, -i, nullptr);
    int i = 0;
    for (const M2DSliceContourPoint& p : *c)
    {
        ASSERT_EQ(std::make_pair(p.x, p.y), std::make_pair(i, -i));
        ++i;
    }
    border.MakeEmpty();
    EXPECT_EQ(border.GetPool()->GetNumLive(), 0u);
}

TEST(M2DSliceContourLayer, InvertReversesAndStartsAtTheOldLast)
{
    M2DSliceContourLayer border;
    M2DSliceContour* empty = AddContour(border, {});
    empty->Invert();
    EXPECT_EQ(empty->GetNumPoints(), 0u);

    M2DSliceContour* one = AddContour(border, {{5, 6}});
    one->Invert();
    EXPECT_EQ(Read(*one), (Points{{5, 6}}));

    M2DSliceContour* two = AddContour(border, {{1, 1}, {2, 2}});
    two->Invert();
    EXPECT_EQ(Read(*two), (Points{{2, 2}, {1, 1}}));

    // P3, P2, P1, P0, P3 inverted reads P3, P0, P1, P2, P3.
    M2DSliceContour* n = AddContour(border, {{3, 3}, {2, 2}, {1, 1}, {0, 0}, {3, 3}});
    n->Invert();
    EXPECT_EQ(Read(*n), (Points{{3, 3}, {0, 0}, {1, 1}, {2, 2}, {3, 3}}));

    // The layer's Invert also swaps the outer flags.
    n->SetIsOuterContour(true);
    two->SetIsOuterContour(false);
    border.Invert();
    EXPECT_FALSE(n->GetIsOuterContour());
    EXPECT_TRUE(two->GetIsOuterContour());
    EXPECT_EQ(Read(*n), (Points{{3, 3}, {2, 2}, {1, 1}, {0, 0}, {3, 3}}));
}

TEST(M2DSliceContourLayer, RemoveContourKeepsOneCleanSpare)
{
    M2DSliceContourLayer border;
    M2DSliceContour* a = AddContour(border, {{0, 0}, {1, 0}, {1, 1}});
    M2DSliceContour* b = AddContour(border, {{5, 5}, {6, 6}});
    M2DSliceContour* c = AddContour(border, {{9, 9}});
    b->SetIsClosed(false);
    b->SetIsOuterContour(false);
    b->GetTypeInfoUpdate().SetIndex(e2DSliceVectorTypeIndex_Part, 7);

    border.RemoveContour(b, false);
    EXPECT_EQ(border.GetNumContours(), 2u);
    EXPECT_EQ(a->GetNextContour(), c);
    EXPECT_EQ(c->GetPreviousContour(), a);
    EXPECT_EQ(border.GetPool()->GetNumLive(), 4u);

    // The spare comes back empty and with default attributes.
    M2DSliceContour* reused = border.AddContourAtEnd();
    EXPECT_EQ(reused, b);
    EXPECT_EQ(reused->GetNumPoints(), 0u);
    EXPECT_TRUE(reused->GetIsClosed());
    EXPECT_TRUE(reused->GetIsOuterContour());
    EXPECT_EQ(reused->GetTypeInfo(), M2DSliceVectorTypeInfo());
    EXPECT_EQ(c->GetNextContour(), reused);

    border.RemoveContour(a, true);
    EXPECT_EQ(border.GetFirstContour(), c);
    EXPECT_EQ(c->GetPreviousContour(), nullptr);
    EXPECT_EQ(border.GetPool()->GetNumLive(), 1u);

    // A contour that is not in the layer is left alone.
    M2DSliceContourLayer other;
    M2DSliceContour* foreign = AddContour(other, {{1, 2}});
    border.RemoveContour(foreign, true);
    EXPECT_EQ(other.GetNumContours(), 1u);
    EXPECT_EQ(border.GetNumContours(), 2u);
}

TEST(M2DSliceContourLayer, CopyIsDeepAndMoveEmptiesTheSource)
{
    M2DSliceContourLayer border;
    M2DSliceContour* c = AddContour(border, {{0, 0}, {4, 0}, {4, 4}});
    c->SetIsClosed(false);
    c->GetTypeInfoUpdate().SetType(e2DSliceVectorType_Hatch);

    M2DSliceContourLayer copy(border);
    ASSERT_EQ(copy.GetNumContours(), 1u);
    EXPECT_NE(copy.GetPool(), border.GetPool());
    M2DSliceContour* cc = copy.GetFirstContour();
    EXPECT_EQ(Read(*cc), Read(*c));
    EXPECT_FALSE(cc->GetIsClosed());
    EXPECT_EQ(cc->GetTypeInfo().GetType(), e2DSliceVectorType_Hatch);
    cc->GetFirstPoint()->x = 99;
    cc->InsertAtEnd(7, 7, nullptr);
    EXPECT_EQ(Read(*c), (Points{{0, 0}, {4, 0}, {4, 4}}));
    EXPECT_FALSE(copy.GetIsClosed());

    M2DSliceContourLayer moved(std::move(border));
    EXPECT_EQ(moved.GetFirstContour(), c);
    EXPECT_EQ(border.GetNumContours(), 0u);
    AddContour(border, {{2, 2}}); // the moved-from layer is still usable
    EXPECT_EQ(border.GetPool()->GetNumLive(), 1u);
}

TEST(M2DSliceVectorLayer, BlocksFormAListAndReuseOneSpare)
{
    M2DSliceVectorLayer layer;
    M2DSliceVectorBlock* a = layer.AddVectorBlockAtEnd();
    M2DSliceVectorBlock* b = layer.AddVectorBlockAtEnd();
    M2DSliceVectorBlock* c = layer.AddVectorBlockAtEnd();
    b->Vectors.assign(100, M2DSliceVector(1, 2, 3, 4));
    b->GetTypeInfoUpdate().SetType(e2DSliceVectorType_Hatch);

    layer.RemoveVectorBlock(b, false);
    EXPECT_EQ(a->GetNextVectorBlock(), c);
    EXPECT_EQ(layer.GetNumVectorBlocks(), 2u);
    M2DSliceVectorBlock* reused = layer.AddVectorBlockAtEnd();
    EXPECT_EQ(reused, b);
    EXPECT_TRUE(reused->Vectors.empty());
    EXPECT_GE(reused->Vectors.capacity(), 100u);
    EXPECT_EQ(reused->GetTypeInfo(), M2DSliceVectorTypeInfo());
    EXPECT_EQ(c->GetNextVectorBlock(), reused);

    layer.RemoveVectorBlock(layer.GetLastVectorBlock(), true);
    layer.RemoveVectorBlock(nullptr, false);
    EXPECT_EQ(c->GetNextVectorBlock(), nullptr);

    // One pass removal keeps order and links.
    for (int i = 0; i < 4; ++i)
        layer.AddVectorBlockAtEnd()->Vectors.resize(static_cast<std::size_t>(i));
    layer.RemoveVectorBlocksIf([](const M2DSliceVectorBlock& blk) { return blk.Vectors.size() % 2 == 1; });
    ASSERT_EQ(layer.GetNumVectorBlocks(), 4u);
    EXPECT_EQ(layer.GetNumVectors(2), 0u);
    EXPECT_EQ(layer.GetNumVectors(3), 2u);
    EXPECT_EQ(layer.GetVectorBlock(2)->GetNextVectorBlock(), layer.GetVectorBlock(3));

    M2DSliceVectorLayer copy(layer);
    EXPECT_EQ(copy.GetVectorBlock(2)->GetNextVectorBlock(), copy.GetVectorBlock(3));
    copy.GetVectorBlock(3)->Vectors.clear();
    EXPECT_EQ(layer.GetNumVectors(3), 2u);
}

TEST(M2DSliceVectorLayer, VectorFieldOrderDiffersFromConstructorOrder)
{
    M2DSliceVector v(1, 2, 3, 4);
    const int* fields = &v.x1;
    EXPECT_EQ(fields[0], 1); // x1
    EXPECT_EQ(fields[1], 3); // x2
    EXPECT_EQ(fields[2], 2); // y1
    EXPECT_EQ(fields[3], 4); // y2
}

TEST(M2DSlicePointLayer, BlocksSpareAndBlockArray)
{
    M2DSlicePointLayer layer;
    M2DSlicePointBlock* a = layer.AddPointBlockAtEnd();
    for (int i = 0; i < 2500; ++i)
        a->Points.push_back(M2DSlicePoint(i, 2 * i));
    EXPECT_EQ(a->Points.size(), 2500u);
    EXPECT_EQ(a->Points[1024], M2DSlicePoint(1024, 2048));
    EXPECT_EQ(layer.GetTotalNumPoints(), 2500u);

    M2DSlicePointLayer copy(layer);
    copy.GetFirstPointBlock()->Points[0] = M2DSlicePoint(-1, -1);
    EXPECT_EQ(a->Points[0], M2DSlicePoint(0, 0));

    // A moved-from array is empty, not a size without storage.
    MBlockArray<M2DSlicePoint, 1024> moved(std::move(copy.GetFirstPointBlock()->Points));
    EXPECT_EQ(moved.size(), 2500u);
    EXPECT_TRUE(copy.GetFirstPointBlock()->Points.empty());
    EXPECT_TRUE(copy.GetFirstPointBlock()->Points.begin() == copy.GetFirstPointBlock()->Points.end());

    M2DSlicePointBlock* b = layer.AddPointBlockAtEnd();
    EXPECT_EQ(a->GetNextPointBlock(), b);
    layer.RemovePointBlock(a, false);
    EXPECT_EQ(layer.GetFirstPointBlock(), b);
    M2DSlicePointBlock* reused = layer.AddPointBlockAtEnd();
    EXPECT_EQ(reused, a);
    EXPECT_TRUE(reused->Points.empty());
    EXPECT_EQ(b->GetNextPointBlock(), reused);
}

TEST(M2DSlice, EmptinessCountsGeometryNotContainers)
{
    M2DSlice slice;
    EXPECT_TRUE(slice.IsEmpty());
    slice.GetSliceBorderUpdate()->AddContourAtEnd();
    slice.GetVectorsUpdate()->AddVectorBlockAtEnd();
    slice.GetPointsUpdate()->AddPointBlockAtEnd();
    EXPECT_TRUE(slice.IsEmpty());

    M2DSlice withPoint;
    withPoint.GetPointsUpdate()->AddPointBlockAtEnd()->Points.push_back(M2DSlicePoint(1, 1));
    EXPECT_FALSE(withPoint.IsEmpty());
    M2DSlice withVector;
    withVector.GetVectorsUpdate()->AddVectorBlockAtEnd()->Vectors.emplace_back(0, 0, 0, 0);
    EXPECT_FALSE(withVector.IsEmpty());
    M2DSlice withContour;
    withContour.GetSliceBorderUpdate()->AddContourAtEnd()->InsertAtEnd(3, 3, nullptr);
    EXPECT_FALSE(withContour.IsEmpty());

    withContour.SetZ(40);
    withContour.Clear();
    EXPECT_TRUE(withContour.IsEmpty());
    EXPECT_EQ(withContour.GetZ(), 40);
    EXPECT_TRUE(withContour.GetXYArea(false).IsEmpty());
}

TEST(M2DSlice, AreaIsRecomputedUnlessKnown)
{
    M2DSlice slice;
    EXPECT_TRUE(slice.GetXYArea(true).IsEmpty());
    AddContour(*slice.GetSliceBorderUpdate(), {{-5, 2}, {10, 2}, {10, 30}});
    slice.GetVectorsUpdate()->AddVectorBlockAtEnd()->Vectors.emplace_back(0, -7, 20, 0);
    slice.GetPointsUpdate()->AddPointBlockAtEnd()->Points.push_back(M2DSlicePoint(3, 44));
    EXPECT_EQ(slice.GetXYArea(true), (M2DSliceXYArea{-5, 20, -7, 44}));

    // A reader widens the stored box itself and the slice is then marked known: the stored
    // box is handed out as it stands.
    slice.GetXYAreaUpdate().Extend(-100, -100);
    slice.DataKnown = true;
    EXPECT_EQ(slice.GetXYArea(true), (M2DSliceXYArea{-100, 20, -100, 44}));

    // Write access to the geometry makes the box unknown again.
    slice.GetVectorsUpdate();
    EXPECT_FALSE(slice.DataKnown);
    EXPECT_EQ(slice.GetXYArea(false), (M2DSliceXYArea{-100, 20, -100, 44}));
    EXPECT_EQ(slice.GetXYArea(true), (M2DSliceXYArea{-5, 20, -7, 44}));
}

TEST(M2DSlice, CopyTakeAndAppend)
{
    M2DSlice source;
    source.SetZ(120);
    AddContour(*source.GetSliceBorderUpdate(), {{0, 0}, {1, 0}, {1, 1}});
    source.GetVectorsUpdate()->AddVectorBlockAtEnd()->Vectors.emplace_back(1, 2, 3, 4);
    source.GetPointsUpdate()->AddPointBlockAtEnd()->Points.push_back(M2DSlicePoint(5, 5));
    const std::size_t memory = source.GetMemorySize();
    EXPECT_GT(memory, sizeof(M2DSlice));

    M2DSlice copy;
    copy.CopyFrom(source, false);
    EXPECT_EQ(copy.GetZ(), 120);
    copy.GetSliceBorderUpdate()->GetFirstContour()->GetFirstPoint()->x = 50;
    copy.GetVectorsUpdate()->GetFirstVectorBlock()->Vectors.clear();
    EXPECT_EQ(source.GetSliceBorder()->GetFirstContour()->GetFirstPoint()->x, 0);
    EXPECT_EQ(source.GetVectors()->GetTotalNumVectors(), 1u);

    M2DSlice taken;
    taken.CopyFrom(source, true);
    EXPECT_EQ(taken.GetZ(), 120);
    EXPECT_EQ(taken.GetMemorySize(), memory);
    EXPECT_TRUE(source.IsEmpty());
    EXPECT_EQ(source.GetSliceBorder()->GetNumContours(), 0u);

    M2DSlice plain = taken; // plain copy construction is deep as well
    plain.AppendFrom(taken);
    EXPECT_EQ(plain.GetSliceBorder()->GetNumContours(), 2u);
    EXPECT_EQ(plain.GetVectors()->GetNumVectorBlocks(), 2u);
    EXPECT_EQ(plain.GetPoints()->GetTotalNumPoints(), 2u);
    EXPECT_EQ(Read(*plain.GetSliceBorder()->GetLastContour()), (Points{{0, 0}, {1, 0}, {1, 1}}));
    EXPECT_EQ(taken.GetSliceBorder()->GetNumContours(), 1u);
}

// ---------------------------------------------------------------- labels

namespace {

// Keeps one written element and hands it back to a reader.
struct Element : ZanSAX::ISAXWriter, ZanSAX::ISAXReader
{
    bool WriteStartTag(const char* name) override
    {
        Tag = name;
        return true;
    }
    bool WriteAttribute(const char* name, const std::string& value) override
    {
        Attributes[name] = value;
        return true;
    }
    bool WriteEndTag(const char*) override { return true; }
    const std::string& GetTagName() const override { return Tag; }
    bool GetAttribute(const char* name, std::string& value) const override
    {
        auto it = Attributes.find(name);
        if (it == Attributes.end())
            return false;
        value = it->second;
        return true;
    }
    std::string Tag;
    std::map<std::string, std::string> Attributes;
};

} // namespace

TEST(M2DSliceVectorTypeInfo, UnsetTagsReadZeroAndZeroUnsets)
{
    M2DSliceVectorTypeInfo a(e2DSliceVectorType_Hatch);
    M2DSliceVectorTypeInfo b = e2DSliceVectorType_Hatch;
    a.SetFlag(e2DSliceVectorTypeFlag_3, true);
    a.SetIndex(e2DSliceVectorTypeIndex_Part, -1);
    a.SetNumber(e2DSliceVectorTypeNumber_2, 0.25);
    EXPECT_NE(a, b);
    EXPECT_EQ(a.GetIndex(2), -1);
    EXPECT_FALSE(b.GetFlag(3));

    // Tags set in another order compare equal; setting the unset value removes a tag.
    b.SetNumber(2, 0.25);
    b.SetIndex(2, -1);
    b.SetFlag(3, true);
    EXPECT_EQ(a, b);
    a.SetFlag(3, false);
    a.SetIndex(2, 0);
    a.SetNumber(2, 0.0);
    EXPECT_EQ(a, M2DSliceVectorTypeInfo(e2DSliceVectorType_Hatch));
    b = e2DSliceVectorType_Hatch; // assigning a kind resets the tags
    EXPECT_EQ(a, b);

    // Tags added by name get ids of their own, apart from the fixed ones.
    const int flag = M2DSliceVectorTypeInfo::GetFlagID(L"SliceTest.Flag");
    EXPECT_EQ(M2DSliceVectorTypeInfo::GetFlagID(L"SliceTest.Flag"), flag);
    EXPECT_NE(M2DSliceVectorTypeInfo::GetFlagID(L"SliceTest.Other"), flag);
    EXPECT_GE(flag, e2DSliceVectorTypeFlag_Count);
    EXPECT_GE(M2DSliceVectorTypeInfo::GetIndexID(L"SliceTest.Flag"), e2DSliceVectorTypeIndex_Count);
    a.SetFlag(flag, true);
    for (int fixed = 0; fixed < e2DSliceVectorTypeFlag_Count; ++fixed)
        EXPECT_FALSE(a.GetFlag(fixed));
}

TEST(M2DSliceVectorTypeInfo, PersistsThroughSax)
{
    M2DSliceVectorTypeInfo info(e2DSliceVectorType_VectorGroup7);
    info.SetFlag(e2DSliceVectorTypeFlag_1, true);
    info.SetFlag(e2DSliceVectorTypeFlag_9, true);
    info.SetIndex(e2DSliceVectorTypeIndex_Parameter, 19);
    info.SetIndex(e2DSliceVectorTypeIndex_Nozzle, -3);
    info.SetNumber(e2DSliceVectorTypeNumber_1, 0.1);

    Element xml;
    ASSERT_TRUE(info.Write(xml));
    M2DSliceVectorTypeInfo back;
    ASSERT_TRUE(back.HandleTag(xml));
    EXPECT_EQ(back, info);

    Element other;
    other.Tag = "Something";
    EXPECT_FALSE(back.HandleTag(other));
    Element broken;
    broken.Tag = "VectorType";
    broken.Attributes = {{"type", "6"}, {"indexes", "2"}};
    EXPECT_FALSE(back.HandleTag(broken));
    EXPECT_EQ(back, info); // refused input leaves the label unchanged
}
