#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include "contracts/MXMLExpat.h"
#include "contracts/MXMLWriter.h"
#include "contracts/StringConversion.h"
#include "contracts/TemporaryDirectory.h"

namespace {

std::string Slurp(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Records the events as one line each.
class Recorder : public MXMLExpat
{
public:
    std::vector<std::string> events;
    std::string throwAt;

protected:
    void OnStartElement(const std::string& name, const std::map<std::string, std::string>& attributes) override
    {
        if (name == throwAt)
            throw std::runtime_error("stop");
        std::string e = "start " + name;
        for (const auto& [key, value] : attributes)
            e += " " + key + "=[" + value + "]";
        events.push_back(e);
    }
    void OnEndElement(const std::string& name) override { events.push_back("end " + name); }
    void OnCharacterData(const std::string& text) override
    {
        if (!events.empty() && events.back().rfind("text ", 0) == 0)
            events.back() += text; // expat may hand one run of text in pieces
        else
            events.push_back("text " + text);
    }
};

class MXMLWriterTest : public ::testing::Test
{
protected:
    ZanSDK::FileIO::FileSystem::TemporaryDirectory dir;
    std::filesystem::path path = StringConversion::NativeToUtf8(dir.GetTemporaryFilePath());
};

TEST_F(MXMLWriterTest, WritesNestedElementsWithEscapedValues)
{
    MXMLWriter w;
    ASSERT_TRUE(w.Open(path));
    EXPECT_TRUE(w.WriteStartTag("svg"));
    EXPECT_TRUE(w.WriteAttribute("width", "600px"));
    EXPECT_TRUE(w.WriteStartTag("path"));
    EXPECT_TRUE(w.WriteAttribute("d", ""));
    EXPECT_TRUE(w.WriteEndTag("path"));
    EXPECT_TRUE(w.WriteStartTag("g"));
    EXPECT_TRUE(w.WriteAttribute("title", "a<b & \"c\" > d\te\nf"));
    EXPECT_TRUE(w.WriteText("x < y & \xC3\xA9"));
    EXPECT_TRUE(w.WriteEndTag("g"));
    EXPECT_TRUE(w.WriteEndTag("svg"));
    EXPECT_TRUE(w.Close());
    EXPECT_EQ(Slurp(path), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                           "<svg width=\"600px\">\n"
                           "<path d=\"\"/>\n"
                           "<g title=\"a&lt;b &amp; &quot;c&quot; &gt; d&#9;e&#10;f\">x &lt; y &amp; \xC3\xA9</g>\n"
                           "</svg>\n");
    EXPECT_EQ(MXMLWriter::Escape(std::string("a\x01" "b", 3)), "a\xEF\xBF\xBD" "b");
}

TEST_F(MXMLWriterTest, MisuseFailsAndStaysFailed)
{
    MXMLWriter w;
    EXPECT_FALSE(w.WriteStartTag("a")); // not open
    EXPECT_FALSE(w.Open(std::filesystem::path(dir.GetPath()) / "missing" / "x.svg"));
    ASSERT_TRUE(w.Open(path));
    ASSERT_TRUE(w.WriteStartTag("a"));
    ASSERT_TRUE(w.WriteStartTag("b"));
    EXPECT_FALSE(w.WriteEndTag("a")); // b is still open
    EXPECT_FALSE(w.WriteEndTag("b")); // failure sticks
    EXPECT_FALSE(w.Close());

    ASSERT_TRUE(w.Open(path)); // a new document starts clean
    ASSERT_TRUE(w.WriteStartTag("a"));
    ASSERT_TRUE(w.WriteText("t"));
    EXPECT_FALSE(w.WriteAttribute("late", "1"));
    EXPECT_FALSE(w.Close());

    ASSERT_TRUE(w.Open(path));
    ASSERT_TRUE(w.WriteStartTag("a"));
    EXPECT_FALSE(w.Close()); // left open
}

TEST(MXMLExpat, ParsesWhatTheWriterWrote)
{
    ZanSDK::FileIO::FileSystem::TemporaryDirectory dir;
    std::filesystem::path path = StringConversion::NativeToUtf8(dir.GetTemporaryFilePath());
    const std::string tricky = "a<b & \"c\" > d\te\r\nf \xF0\x9F\x98\x80";
    MXMLWriter w;
    ASSERT_TRUE(w.Open(path));
    w.WriteStartTag("Header");
    w.WriteAttribute("type", "Zanofab Buildfile");
    w.WriteStartTag("Part");
    w.WriteAttribute("name", tricky);
    w.WriteAttribute("id", "1");
    w.WriteEndTag("Part");
    w.WriteStartTag("Material");
    w.WriteText(tricky);
    w.WriteEndTag("Material");
    w.WriteEndTag("Header");
    ASSERT_TRUE(w.Close());

    Recorder r;
    ASSERT_TRUE(r.ParseString(Slurp(path))) << r.GetErrorMessage();
    std::vector<std::string> expected = {
        "start Header type=[Zanofab Buildfile]", "text \n", "start Part id=[1] name=[" + tricky + "]",
        "end Part",                             "text \n", "start Material",
        // Written as references, CR, LF and tab survive the parser's normalisation.
        "text " + tricky, "end Material", "text \n", "end Header"};
    EXPECT_EQ(r.events, expected);
}

TEST(MXMLExpat, ReportsErrorsWithTheLine)
{
    Recorder r;
    EXPECT_FALSE(r.ParseString("<a>\n<b></a>"));
    EXPECT_NE(r.GetErrorMessage().find("mismatched tag"), std::string::npos) << r.GetErrorMessage();
    EXPECT_NE(r.GetErrorMessage().find("line 2"), std::string::npos) << r.GetErrorMessage();
    EXPECT_FALSE(r.ParseString(""));
    EXPECT_FALSE(r.ParseString("<a>"));
    EXPECT_FALSE(r.GetErrorMessage().empty());
    EXPECT_TRUE(r.ParseString("<a/>"));
    EXPECT_TRUE(r.GetErrorMessage().empty());

    // A handler's exception leaves the parse, and the object can parse again.
    r.throwAt = "b";
    EXPECT_THROW(r.ParseString("<a><b/></a>"), std::runtime_error);
    r.throwAt.clear();
    r.events.clear();
    EXPECT_TRUE(r.ParseString("<a><b/></a>"));
    EXPECT_EQ(r.events.size(), 4u);
}

} // namespace
