// The XML writer behind the SVG writer, and the expat-based reader.
#include <stdexcept>

#include "contracts/MXMLExpat.h"
#include "contracts/MXMLWriter.h"
#include "tests/TestSupport.h"

namespace {

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

TEST(MXMLWriter, MisuseFailsAndEscapedDocumentsReadBack)
{
    ts::ScratchDir dir;
    const std::string path = dir.File("doc.xml"), tricky = "a<b & \"c\" > d\te\r\nf \xF0\x9F\x98\x80";
    MXMLWriter w;
    EXPECT_FALSE(w.WriteStartTag("a")); // not open
    EXPECT_FALSE(w.Open(dir.Path() / "missing" / "x.svg"));
    ASSERT_TRUE(w.Open(path) && w.WriteStartTag("a") && w.WriteStartTag("b"));
    EXPECT_FALSE(w.WriteEndTag("a") || w.WriteEndTag("b") || w.Close()); // b is still open; failure sticks
    ASSERT_TRUE(w.Open(path) && w.WriteStartTag("a") && w.WriteText("t")); // a new document starts clean
    EXPECT_FALSE(w.WriteAttribute("late", "1") || w.Close());
    ASSERT_TRUE(w.Open(path) && w.WriteStartTag("a"));
    EXPECT_FALSE(w.Close()); // left open

    // A document written after failed ones comes out whole.
    ASSERT_TRUE(w.Open(path));
    EXPECT_TRUE(w.WriteStartTag("svg") && w.WriteAttribute("width", "600px"));
    EXPECT_TRUE(w.WriteStartTag("path") && w.WriteAttribute("d", "") && w.WriteEndTag("path"));
    EXPECT_TRUE(w.WriteStartTag("g") && w.WriteAttribute("title", tricky) && w.WriteText(tricky) && w.WriteEndTag("g"));
    EXPECT_TRUE(w.WriteEndTag("svg") && w.Close());
    const std::string escaped = "a&lt;b &amp; &quot;c&quot; &gt; d&#9;e&#13;&#10;f \xF0\x9F\x98\x80";
    EXPECT_EQ(ts::ReadFile(path), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<svg width=\"600px\">\n<path d=\"\"/>\n"
                                  "<g title=\"" + escaped + "\">" + escaped + "</g>\n</svg>\n");
    EXPECT_EQ(MXMLWriter::Escape(std::string("a\x01" "b", 3)), "a\xEF\xBF\xBD" "b");

    // Written as references, CR, LF and tab survive the parser's normalisation.
    Recorder r;
    ASSERT_TRUE(r.ParseString(ts::ReadFile(path))) << r.GetErrorMessage();
    EXPECT_EQ(r.events, (std::vector<std::string>{"start svg width=[600px]", "text \n", "start path d=[]", "end path",
                                                  "text \n", "start g title=[" + tricky + "]", "text " + tricky,
                                                  "end g", "text \n", "end svg"}));
}

TEST(MXMLExpat, ReportsErrorsWithTheLine)
{
    Recorder r;
    EXPECT_FALSE(r.ParseString("<a>\n<b></a>"));
    EXPECT_NE(r.GetErrorMessage().find("mismatched tag"), std::string::npos) << r.GetErrorMessage();
    EXPECT_NE(r.GetErrorMessage().find("line 2"), std::string::npos) << r.GetErrorMessage();
    EXPECT_FALSE(r.ParseString("") || r.ParseString("<a>") || r.GetErrorMessage().empty());
    EXPECT_TRUE(r.ParseString("<a/>") && r.GetErrorMessage().empty());

    // A handler's exception leaves the parse, and the object can parse again.
    r.throwAt = "b";
    EXPECT_THROW(r.ParseString("<a><b/></a>"), std::runtime_error);
    r.throwAt.clear();
    r.events.clear();
    EXPECT_TRUE(r.ParseString("<a><b/></a>") && r.events.size() == 4u);
}

} // namespace
