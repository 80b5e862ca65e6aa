// The property store: typed values, its byte format, and refusal of malformed input.
#include "contracts/M2DSliceBuildParameters.h"
#include "contracts/MFile.h"
#include "contracts/PersistentProperties.h"
#include "tests/TestSupport.h"

namespace {

using Indexed = IndexedProperties<PersistentProperties>;

class PersistentPropertiesTest : public ::testing::Test
{
protected:
    std::string Save(const PersistentProperties& store)
    {
        MFile f;
        EXPECT_TRUE(f.OPEN_WRITE(dir.WFile("saved").c_str()) && store.Write(f) && f.CLOSE());
        return ts::ReadFile(dir.File("saved"));
    }
    bool Load(const std::string& bytes, PersistentProperties& store)
    {
        // A fresh file each time: rewriting one file is slow on some file systems.
        const std::string input = dir.File("input" + std::to_string(++_inputs));
        ts::WriteFile(input, bytes);
        MFile f(64);
        EXPECT_TRUE(f.OPEN_READ(ts::Wide(input).c_str()));
        return store.Read(f);
    }
    ts::ScratchDir dir;
    int _inputs = 0;
};

std::string U32(std::uint32_t v) { return std::string(reinterpret_cast<const char*>(&v), 4); }
std::string U64(std::uint64_t v) { return std::string(reinterpret_cast<const char*>(&v), 8); }

// A store that holds every value type, nested lists two deep and a build-parameter table.
PersistentProperties MakeRichStore()
{
    PersistentProperties store;
    store.SetValue<std::int32_t>(L"SliceThickness", -30);
    store.SetValue(L"Factor", 0.1);
    store.SetValue(L"Hatched", true);
    store.SetValue<std::wstring>(L"Machine", L"M\u00FCnchen \U0001F600");
    store.AddProperty<double>(L"Unset", 7.0, false);
    Indexed list, inner;
    PersistentProperties& first = list.Add();
    first.SetValue<std::int32_t>(L"Id", 1);
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
    instance.SetLaserDiameter(0.08);
    table->AddInstance(instance);
    table->GetLookupIdsUpdate().Second = 9;
    store.SetValue(L"Empty", ObjectHolder());
    return store;
}

TEST_F(PersistentPropertiesTest, TypedValuesCopiesEqualityAndTheTable)
{
    PersistentProperties x;
    auto* p = x.AddProperty<std::int32_t>(L"Layers", 5);
    // Adding again returns the same property and leaves its value; another type is refused.
    EXPECT_EQ(x.AddProperty<std::int32_t>(L"Layers", 9), p);
    EXPECT_EQ(x.AddProperty<double>(L"Layers", 1.0), nullptr);
    std::int32_t n = 0;
    double d = 0;
    EXPECT_TRUE(x.GetValue(L"Layers", n) && n == 5 && !x.GetValue(L"Layers", d)); // not as another type
    x.SetValue(L"Layers", 2.5); // replaces the property with one of another type
    EXPECT_EQ(x.GetNumProperties(), 1u);
    EXPECT_TRUE(x.GetValue(L"Layers", d) && !x.GetValue(L"Layers", n));
    auto* s = x.AddProperty<std::wstring>(L"Name", L"x", false);
    std::wstring text;
    EXPECT_FALSE(x.GetValue(L"Name", text)); // exists, undefined
    s->SetValue(L"abc");
    EXPECT_TRUE(x.GetValue(L"Name", text));
    EXPECT_TRUE(x.GetProperty(-1L) == nullptr && x.RemoveProperty(L"Layers") && !x.RemoveProperty(L"Layers"));
    EXPECT_EQ(x.GetProperty(0L), s);

    // Order does not count; undefined values compare equal whatever they hold, but not with
    // defined ones.
    PersistentProperties y;
    y.AddProperty<double>(L"u", 2.0, false);
    y.SetValue<std::wstring>(L"Name", L"abc");
    x.AddProperty<double>(L"u", 1.0, false);
    EXPECT_EQ(x, y);
    y.GetPropertyOfType<double>(L"u")->SetValue(1.0);
    EXPECT_NE(x, y);

    // Copies are deep, nested lists and tables included.
    PersistentProperties a = MakeRichStore(), b(a);
    EXPECT_EQ(a, b);
    M2DSliceBuildParameters::Get(&b, false)->GetInstanceUpdate(0).SetSpeed(1.0);
    EXPECT_NE(a, b);
    b = a;
    b.GetPropertyOfType<Indexed>(L"ScanParametersGeneric")->GetValueUpdate().Get(1).SetValue(L"Power", 1.0);
    EXPECT_NE(a, b);

    // The build-parameter table is found, or created when asked. Creating it by type name is
    // covered by the round trip and the refusal of unregistered types.
    using Table = M2DSliceBuildParameters;
    PersistentProperties store, other;
    EXPECT_TRUE(Table::Get(nullptr, true) == nullptr && Table::Get(&store, false) == nullptr);
    Table* table = Table::Get(&store, true);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(Table::Get(&store, false), table);
    EXPECT_NE(store.GetPropertyOfType<ObjectHolder>(Table::PropertyName), nullptr);
    // A property of that name with another type is replaced only when asked to create.
    other.SetValue<std::int32_t>(Table::PropertyName, 1);
    EXPECT_TRUE(Table::Get(&other, false) == nullptr && Table::Get(&other, true) != nullptr);
}

TEST_F(PersistentPropertiesTest, WriteIsLittleEndianAndRoundTrips)
{
    PersistentProperties simple;
    simple.SetValue<std::int32_t>(L"a", 5);
    simple.AddProperty<bool>(L"b", true, false);
    EXPECT_EQ(Save(simple), "ZPRP" + U32(1) + U32(2) +                                             // magic, version, count
                                std::string("\x01\x01", 2) + U32(1) + std::string("a\0", 2) + U32(5) + // Long
                                std::string("\x03\x00", 2) + U32(1) + std::string("b\0", 2) + "\x01"); // undefined Bool

    // Every type and nesting reads back equal, and replaces what the store held.
    const PersistentProperties store = MakeRichStore();
    PersistentProperties read;
    read.SetValue(L"Old", 1.0);
    ASSERT_TRUE(Load(Save(store), read));
    EXPECT_EQ(read, store);
    EXPECT_EQ(read.GetProperty(L"Old"), nullptr);
    std::wstring machine;
    EXPECT_TRUE(read.GetValue(L"Machine", machine) && machine == L"M\u00FCnchen \U0001F600");
    EXPECT_FALSE(read.GetProperty(L"Unset")->IsDefined());
    const M2DSliceBuildParameters* table = M2DSliceBuildParameters::Get(&read, false);
    ASSERT_TRUE(table && table->GetNumInstances() == 1u);
    EXPECT_EQ(std::make_tuple(table->GetInstance(0).GetName(), table->GetInstance(0).GetLaserDiameter(),
                              table->GetLookupIds().Second),
              std::make_tuple(std::wstring(L"Contour"), 0.08, 9));
    const Indexed& list = read.GetPropertyOfType<Indexed>(L"ScanParametersGeneric")->GetValue();
    ASSERT_EQ(list.GetNum(), 2u);
    EXPECT_EQ(list.Get(0).GetPropertyOfType<Indexed>(L"Inner")->GetValue().GetNum(), 2u);
}

TEST_F(PersistentPropertiesTest, MalformedInputIsRefusedAndLeavesTheStore)
{
    const std::string bytes = Save(MakeRichStore());
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
    const std::string prop = std::string("\x01\x01", 2) + U32(1) + std::string("a\0", 2) + U32(5);
    EXPECT_FALSE(refused(U32(1) + prop)); // the well-formed base case reads
    EXPECT_TRUE(refused(U32(2) + prop + prop)); // duplicate name
    EXPECT_TRUE(refused(U32(0xFFFFFFFF) + prop)); // count beyond the file
    EXPECT_TRUE(refused(U32(1) + "\x09" + prop.substr(1))); // unknown type
    EXPECT_TRUE(refused(U32(1) + "\x01\x02" + prop.substr(2))); // defined byte not 0/1
    EXPECT_TRUE(refused(U32(1) + prop.substr(0, 2) + U32(0x7FFFFFFF) + prop.substr(6))); // name length
    const std::string object = std::string("\x06\x01", 2) + U32(1) + std::string("o\0", 2);
    EXPECT_TRUE(refused(U32(1) + object + U32(7) + "Unknown" + std::string(8, '\0'))); // unregistered type
    // A record whose stated size differs from what it reads.
    const std::string table = U32(0) + U32(0xFFFFFFFF) + U32(0xFFFFFFFF), name = "M2DSliceBuildParameters";
    EXPECT_TRUE(refused(U32(1) + object + U32(name.size()) + name + U64(table.size() + 1) + table + "x"));
    EXPECT_FALSE(refused(U32(1) + object + U32(name.size()) + name + U64(table.size()) + table));

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
    EXPECT_FALSE(Load("ZPRQ" + U32(1) + U32(0), store) || Load("ZPRP" + U32(2) + U32(0), store)); // magic, version
}

} // namespace
