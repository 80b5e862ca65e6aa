#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

#include "contracts/M2DSliceBuildParameters.h"
#include "contracts/MFile.h"
#include "contracts/PersistentProperties.h"
#include "contracts/StringConversion.h"
#include "contracts/TemporaryDirectory.h"

namespace {

using Indexed = IndexedProperties<PersistentProperties>;

class PersistentPropertiesTest : public ::testing::Test
{
protected:
    ZanSDK::FileIO::FileSystem::TemporaryDirectory dir;
    std::wstring path = dir.GetTemporaryFilePath();

    std::string Save(const PersistentProperties& store)
    {
        MFile f;
        EXPECT_TRUE(f.OPEN_WRITE(path.c_str()));
        EXPECT_TRUE(store.Write(f));
        EXPECT_TRUE(f.CLOSE());
        std::ifstream in(StringConversion::NativeToUtf8(path), std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }
    bool Load(const std::string& bytes, PersistentProperties& store)
    {
        // A fresh file each time: rewriting one file is slow on some file systems.
        std::wstring input = dir.GetTemporaryFilePath();
        std::ofstream(StringConversion::NativeToUtf8(input), std::ios::binary) << bytes;
        MFile f(64);
        EXPECT_TRUE(f.OPEN_READ(input.c_str()));
        return store.Read(f);
    }
};

std::string U32(std::uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }

// A store that holds every value type, nested lists two deep and a build-parameter table.
PersistentProperties MakeRichStore()
{
    PersistentProperties store;
    store.SetValue<std::int32_t>(L"SliceThickness", -30);
    store.SetValue(L"Factor", 0.1);
    store.SetValue(L"Hatched", true);
    store.SetValue<std::wstring>(L"Machine", L"M\u00FCnchen \U0001F600");
    store.AddProperty<double>(L"Unset", 7.0, false);
    Indexed list;
    PersistentProperties& first = list.Add();
    first.SetValue<std::int32_t>(L"Id", 1);
    Indexed inner;
    inner.Add().SetValue<std::wstring>(L"Name", L"core");
    inner.Add();
    first.SetValue(L"Inner", inner);
    list.Add().SetValue(L"Power", 250.0);
    store.SetValue(L"ScanParametersGeneric", list);
    M2DSliceBuildParameters* table = M2DSliceBuildParameters::Get(&store, true);
    M2DSliceBuildParameters::Instance instance;
    instance.SetID(3);
    instance.SetName(L"Contour");
    instance.SetSpeed(1200.0);
    instance.SetLaserPower(195.0);
    instance.SetLaserDiameter(0.08);
    table->AddInstance(instance);
    table->SetLookupIds({});
    table->GetLookupIdsUpdate().Second = 9;
    store.SetValue(L"Empty", ObjectHolder());
    return store;
}

TEST_F(PersistentPropertiesTest, TypedValuesUndefinedStateAndTypeClash)
{
    PersistentProperties store;
    auto* p = store.AddProperty<std::int32_t>(L"Layers", 5);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->GetType(), EPropertyType::Long);
    // Adding again returns the same property and leaves its value; another type is refused.
    EXPECT_EQ(store.AddProperty<std::int32_t>(L"Layers", 9), p);
    EXPECT_EQ(p->GetValue(), 5);
    EXPECT_EQ(store.AddProperty<double>(L"Layers", 1.0), nullptr);
    std::int32_t n = 0;
    EXPECT_TRUE(store.GetValue(L"Layers", n));
    EXPECT_EQ(n, 5);
    double d = 0;
    EXPECT_FALSE(store.GetValue(L"Layers", d)); // wrong type

    // SetValue with another type replaces the property.
    store.SetValue(L"Layers", 2.5);
    EXPECT_EQ(store.GetNumProperties(), 1u);
    EXPECT_TRUE(store.GetValue(L"Layers", d));
    EXPECT_EQ(d, 2.5);
    EXPECT_FALSE(store.GetValue(L"Layers", n));

    auto* s = store.AddProperty<std::wstring>(L"Name", L"x", false);
    std::wstring text;
    EXPECT_FALSE(store.GetValue(L"Name", text)); // exists, undefined
    s->SetValue(L"abc");
    EXPECT_TRUE(store.GetValue(L"Name", text));

    EXPECT_EQ(store.GetProperty(1L), s);
    EXPECT_EQ(store.GetProperty(2L), nullptr);
    EXPECT_EQ(store.GetProperty(-1L), nullptr);
    EXPECT_TRUE(store.RemoveProperty(L"Layers"));
    EXPECT_FALSE(store.RemoveProperty(L"Layers"));
    EXPECT_EQ(store.GetProperty(0L), s);
}

TEST_F(PersistentPropertiesTest, CopyIsDeepAndEqualityIgnoresOrder)
{
    PersistentProperties a = MakeRichStore();
    PersistentProperties b(a);
    EXPECT_EQ(a, b);
    M2DSliceBuildParameters::Get(&b, false)->GetInstanceUpdate(0).SetSpeed(1.0);
    EXPECT_NE(a, b);
    b = a;
    EXPECT_EQ(a, b);
    b.GetPropertyOfType<Indexed>(L"ScanParametersGeneric")->GetValueUpdate().Get(1).SetValue(L"Power", 1.0);
    EXPECT_NE(a, b);

    PersistentProperties x, y;
    x.SetValue<std::int32_t>(L"a", 1);
    x.SetValue(L"b", true);
    y.SetValue(L"b", true);
    y.SetValue<std::int32_t>(L"a", 1);
    EXPECT_EQ(x, y);
    // Undefined values compare equal whatever they hold, but not with defined ones.
    x.AddProperty<double>(L"u", 1.0, false);
    y.AddProperty<double>(L"u", 2.0, false);
    EXPECT_EQ(x, y);
    y.GetPropertyOfType<double>(L"u")->SetValue(1.0);
    EXPECT_NE(x, y);
}

TEST_F(PersistentPropertiesTest, WriteIsLittleEndianAndSelfDescribing)
{
    PersistentProperties store;
    store.SetValue<std::int32_t>(L"a", 5);
    store.AddProperty<bool>(L"b", true, false);
    std::string expected = "ZPRP" + U32(1) + U32(2) +               // magic, version, count
                           std::string("\x01\x01", 2) + U32(1) + std::string("a\0", 2) + U32(5) + // Long
                           std::string("\x03\x00", 2) + U32(1) + std::string("b\0", 2) + "\x01"; // undefined Bool
    EXPECT_EQ(Save(store), expected);
}

TEST_F(PersistentPropertiesTest, RoundTripOfEveryTypeAndNesting)
{
    PersistentProperties store = MakeRichStore();
    std::string bytes = Save(store);
    PersistentProperties read;
    read.SetValue(L"Old", 1.0);
    ASSERT_TRUE(Load(bytes, read));
    EXPECT_EQ(read, store);
    EXPECT_EQ(read.GetProperty(L"Old"), nullptr);
    std::wstring machine;
    EXPECT_TRUE(read.GetValue(L"Machine", machine));
    EXPECT_EQ(machine, L"M\u00FCnchen \U0001F600");
    EXPECT_FALSE(read.GetProperty(L"Unset")->IsDefined());
    const M2DSliceBuildParameters* table = M2DSliceBuildParameters::Get(&read, false);
    ASSERT_NE(table, nullptr);
    ASSERT_EQ(table->GetNumInstances(), 1u);
    EXPECT_EQ(table->GetInstance(0).GetName(), L"Contour");
    EXPECT_EQ(table->GetInstance(0).GetLaserDiameter(), 0.08);
    EXPECT_EQ(table->GetLookupIds().Second, 9);
    const Indexed& list = read.GetPropertyOfType<Indexed>(L"ScanParametersGeneric")->GetValue();
    ASSERT_EQ(list.GetNum(), 2u);
    EXPECT_EQ(list.Get(0).GetPropertyOfType<Indexed>(L"Inner")->GetValue().GetNum(), 2u);
}

TEST_F(PersistentPropertiesTest, MalformedInputIsRefusedAndLeavesTheStore)
{
    std::string bytes = Save(MakeRichStore());
    PersistentProperties sentinel;
    sentinel.SetValue<std::int32_t>(L"Keep", 42);
    for (std::size_t len = 0; len < bytes.size(); ++len)
    {
        PersistentProperties store = sentinel;
        ASSERT_FALSE(Load(bytes.substr(0, len), store)) << "prefix of " << len << " bytes";
        ASSERT_EQ(store, sentinel);
    }

    auto refused = [&](const std::string& body) {
        PersistentProperties store = sentinel;
        return !Load("ZPRP" + U32(1) + body, store) && store == sentinel;
    };
    std::string prop = std::string("\x01\x01", 2) + U32(1) + std::string("a\0", 2) + U32(5);
    EXPECT_FALSE(refused(U32(1) + prop)); // the well-formed base case reads
    EXPECT_TRUE(refused(U32(2) + prop + prop)); // duplicate name
    EXPECT_TRUE(refused(U32(0xFFFFFFFF) + prop)); // count beyond the file
    EXPECT_TRUE(refused(U32(1) + "\x09" + prop.substr(1))); // unknown type
    EXPECT_TRUE(refused(U32(1) + "\x01\x02" + prop.substr(2))); // defined byte not 0/1
    EXPECT_TRUE(refused(U32(1) + prop.substr(0, 2) + U32(0x7FFFFFFF) + prop.substr(6))); // name length
    std::string object = std::string("\x06\x01", 2) + U32(1) + std::string("o\0", 2);
    EXPECT_TRUE(refused(U32(1) + object + U32(7) + "Unknown" + std::string(8, '\0'))); // unregistered type
    // A record whose stated size differs from what it reads.
    std::string table = U32(0) + U32(0xFFFFFFFF) + U32(0xFFFFFFFF);
    std::string name = "M2DSliceBuildParameters";
    std::uint64_t wrong = table.size() + 1;
    std::string sized(reinterpret_cast<const char*>(&wrong), 8);
    EXPECT_TRUE(refused(U32(1) + object + U32(name.size()) + name + sized + table + "x"));
    std::uint64_t right = table.size();
    EXPECT_FALSE(refused(U32(1) + object + U32(name.size()) + name +
                         std::string(reinterpret_cast<const char*>(&right), 8) + table));

    // Nesting: lists within lists, refused beyond a fixed depth instead of recursing on.
    auto nested = [](int depth) {
        std::string body = U32(0);
        for (int i = 0; i < depth; ++i)
            body = U32(1) + std::string("\x05\x01", 2) + U32(1) + std::string("x\0", 2) + U32(1) + body;
        return body;
    };
    EXPECT_FALSE(refused(nested(10)));
    EXPECT_TRUE(refused(nested(1000)));
    PersistentProperties store;
    EXPECT_FALSE(Load("ZPRQ" + U32(1) + U32(0), store)); // magic
    EXPECT_FALSE(Load("ZPRP" + U32(2) + U32(0), store)); // version
}

TEST(M2DSliceBuildParameters, GetFindsOrCreatesTheTable)
{
    EXPECT_EQ(M2DSliceBuildParameters::Get(nullptr, true), nullptr);
    PersistentProperties store;
    EXPECT_EQ(M2DSliceBuildParameters::Get(&store, false), nullptr);
    M2DSliceBuildParameters* table = M2DSliceBuildParameters::Get(&store, true);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(M2DSliceBuildParameters::Get(&store, true), table);
    EXPECT_EQ(M2DSliceBuildParameters::Get(&store, false), table);
    auto* p = store.GetPropertyOfType<ObjectHolder>(M2DSliceBuildParameters::PropertyName);
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->GetType(), EPropertyType::Object);
    EXPECT_EQ(table->GetLookupIds(), M2DSliceBuildParameters::LookupIds());

    // A property of that name with another type is replaced only when asked to create.
    PersistentProperties other;
    other.SetValue<std::int32_t>(M2DSliceBuildParameters::PropertyName, 1);
    EXPECT_EQ(M2DSliceBuildParameters::Get(&other, false), nullptr);
    EXPECT_NE(M2DSliceBuildParameters::Get(&other, true), nullptr);

    EXPECT_NE(IPersistentObject::Create("M2DSliceBuildParameters"), nullptr);
    EXPECT_EQ(IPersistentObject::Create("Nothing"), nullptr);
}

} // namespace
