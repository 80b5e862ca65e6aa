#pragma once
#include "../framework/Export.h"
#include <filesystem>
#include <string>
#include <vector>

#include "MFile.h"
#include "SAX.h"

enum EXMLEncoding
{
    EXMLEncoding_UTF8 = 0,
};

// Streaming XML writer in UTF-8: an XML declaration line, then elements that nest, each
// start tag followed by its attributes. Attribute values and text are escaped. An element
// with no content is closed as <name .../>; every element ends its line. Every call returns
// false after a failure (including misuse, such as an end tag that does not match), and
// nothing is thrown.
class SLICEIO_API MXMLWriter : public ZanSAX::ISAXWriter
{
public:
    explicit MXMLWriter(EXMLEncoding encoding = EXMLEncoding_UTF8);
    ~MXMLWriter() override;

    bool Open(const std::filesystem::path& path);
    bool WriteStartTag(const char* name) override;
    bool WriteAttribute(const char* name, const std::string& value) override;
    bool WriteText(const std::string& text);
    bool WriteEndTag(const char* name) override;
    bool Close();

    static std::string Escape(const std::string& text);

private:
    bool _CloseStartTag(bool newLine);
    MFile _file;
    std::vector<std::string> _open; // names of the elements not yet ended, innermost last
    bool _inStartTag = false;       // the innermost start tag still takes attributes
    bool _ok = false;
};
